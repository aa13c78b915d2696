#include "platform/Sockets_p.h"

#include "platform/ErrorCodes_p.h"

#include <algorithm>
#include <array>
#include <cerrno>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

namespace
{
using namespace Nuvika;

template <class Call>
auto checked(Call call)
{
    auto result = call();
    while (result == -1 && errno == EINTR)
        result = call();
    if (result == -1)
        ErrorCodes::setLastError(ErrorCodes::fromErrno(errno));
    return result;
}

template <class Value>
void setQuietly(int s, int level, int name, Value value)
{
    setsockopt(s, level, name, &value, sizeof value);
}
} // namespace

int Nuvika::Sockets::openStream(int family)
{
    return checked([&] { return ::socket(family, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP); });
}

int Nuvika::Sockets::openDatagram(int family)
{
    return checked([&] { return ::socket(family, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP); });
}

int Nuvika::Sockets::bind(int s, const sockaddr* address, int length)
{
    return checked([&] { return ::bind(s, address, static_cast<socklen_t>(length)); });
}

int Nuvika::Sockets::close(int s)
{
    // Linux releases the descriptor even when the call is interrupted: it must not be repeated.
    const int result = ::close(s);
    if (result == -1 && errno != EINTR)
        ErrorCodes::setLastError(ErrorCodes::fromErrno(errno));
    return result == -1 && errno == EINTR ? 0 : result;
}

int Nuvika::Sockets::shutdownWrite(int s)
{
    return checked([&] { return ::shutdown(s, SHUT_WR); });
}

int Nuvika::Sockets::sendTo(
    int s, const void* data, std::size_t size, int flags, const sockaddr* to, int length)
{
    return static_cast<int>(checked(
        [&] { return ::sendto(s, data, size, flags | MSG_NOSIGNAL, to, static_cast<socklen_t>(length)); }));
}

int Nuvika::Sockets::setOption(int s, int level, int name, const void* value, int length)
{
    return checked([&] { return ::setsockopt(s, level, name, value, static_cast<socklen_t>(length)); });
}

int Nuvika::Sockets::localName(int s, void* address, int* length)
{
    auto size = static_cast<socklen_t>(*length);
    const int result = checked([&] { return ::getsockname(s, static_cast<sockaddr*>(address), &size); });
    *length = static_cast<int>(size);
    return result;
}

int Nuvika::Sockets::peerName(int s, void* address, int* length)
{
    auto size = static_cast<socklen_t>(*length);
    const int result = checked([&] { return ::getpeername(s, static_cast<sockaddr*>(address), &size); });
    *length = static_cast<int>(size);
    return result;
}

int Nuvika::Sockets::connect(int s, const sockaddr* address, int length)
{
    return checked([&] { return ::connect(s, address, static_cast<socklen_t>(length)); });
}

int Nuvika::Sockets::listen(int s)
{
    return checked([&] { return ::listen(s, SOMAXCONN); });
}

int Nuvika::Sockets::setNonBlocking(int s, bool bNonBlocking)
{
    int value = bNonBlocking ? 1 : 0;
    return checked([&] { return ::ioctl(s, FIONBIO, &value); });
}

int Nuvika::Sockets::takePendingError(int s)
{
    int error = 0;
    socklen_t size = sizeof error;
    if (checked([&] { return ::getsockopt(s, SOL_SOCKET, SO_ERROR, &error, &size); }) == -1)
        return ErrorCodes::lastError();
    return ErrorCodes::fromErrno(error);
}

void Nuvika::Sockets::setNoDelay(int s) { setQuietly(s, IPPROTO_TCP, TCP_NODELAY, 1); }

void Nuvika::Sockets::setSegmentLimit(int s, int bytes) { setQuietly(s, IPPROTO_TCP, TCP_MAXSEG, bytes); }

void Nuvika::Sockets::setReuseAddress(int s) { setQuietly(s, SOL_SOCKET, SO_REUSEADDR, 1); }

long Nuvika::Sockets::receive(int s, const iovec& first, const iovec& second)
{
    if (first.iov_len == 0)
        return checked([&] { return ::recv(s, second.iov_base, second.iov_len, MSG_DONTWAIT); });
    std::array<iovec, 2> ranges{first, second};
    msghdr message{};
    message.msg_iov = ranges.data();
    message.msg_iovlen = second.iov_len > 0 ? 2 : 1;
    return checked([&] { return ::recvmsg(s, &message, MSG_DONTWAIT); });
}

long Nuvika::Sockets::send(int s, const iovec* ranges, int count)
{
    constexpr int kFlags = MSG_DONTWAIT | MSG_NOSIGNAL;
    if (count == 1)
        return checked([&] { return ::send(s, ranges->iov_base, ranges->iov_len, kFlags); });
    msghdr message{};
    message.msg_iov = const_cast<iovec*>(ranges);
    message.msg_iovlen = static_cast<std::size_t>(count);
    return checked([&] { return ::sendmsg(s, &message, kFlags); });
}

int Nuvika::Sockets::receiveDatagrams(int s, ReceivedDatagram* datagrams, int count)
{
    std::array<mmsghdr, kMaxBatch> messages;
    std::array<iovec, kMaxBatch> ranges;
    const auto wanted = static_cast<std::size_t>(std::min(count, kMaxBatch));
    for (std::size_t i = 0; i < wanted; ++i) {
        ranges[i] = {datagrams[i].data, datagrams[i].size};
        msghdr& head = messages[i].msg_hdr;
        head = msghdr{};
        head.msg_name = datagrams[i].sender;
        head.msg_namelen = static_cast<socklen_t>(datagrams[i].senderSize);
        head.msg_iov = &ranges[i];
        head.msg_iovlen = 1;
    }
    const int got = checked([&] {
        return ::recvmmsg(s, messages.data(), static_cast<unsigned int>(wanted), MSG_DONTWAIT, nullptr);
    });
    for (std::size_t i = 0; got > 0 && i < static_cast<std::size_t>(got); ++i) {
        datagrams[i].received = messages[i].msg_len;
        datagrams[i].bTruncated = (messages[i].msg_hdr.msg_flags & MSG_TRUNC) != 0;
    }
    return got;
}

int Nuvika::Sockets::sendDatagrams(int s, const iovec* datagrams, int count, const sockaddr* to, int length)
{
    constexpr int kMost = 1024; // of one call
    std::array<mmsghdr, kMost> messages; // 64 KiB
    int sent = 0;
    while (sent < count) {
        const int step = std::min(count - sent, kMost);
        for (int i = 0; i < step; ++i) {
            msghdr& head = messages[static_cast<std::size_t>(i)].msg_hdr;
            head = msghdr{};
            head.msg_name = const_cast<sockaddr*>(to);
            head.msg_namelen = static_cast<socklen_t>(length);
            head.msg_iov = const_cast<iovec*>(datagrams + sent + i);
            head.msg_iovlen = 1;
        }
        const int went = checked([&] {
            return ::sendmmsg(
                s, messages.data(), static_cast<unsigned int>(step), MSG_DONTWAIT | MSG_NOSIGNAL);
        });
        if (went <= 0)
            return sent > 0 ? sent : -1;
        sent += went;
    }
    return sent;
}

void Nuvika::Sockets::setOwnGroupsOnly(int s, int family)
{
    if (family == AF_INET6)
        setQuietly(s, IPPROTO_IPV6, IPV6_MULTICAST_ALL, 0);
    else
        setQuietly(s, IPPROTO_IP, IP_MULTICAST_ALL, 0);
}

void Nuvika::Sockets::setIPv6Only(int s) { setQuietly(s, IPPROTO_IPV6, IPV6_V6ONLY, 1); }

bool Nuvika::Sockets::hasInput(int s)
{
    char byte = 0;
    return ::recv(s, &byte, 1, MSG_PEEK | MSG_DONTWAIT) >= 0 || errno != EAGAIN;
}
