#include "platform/Sockets_p.h"

#include "platform/ErrorCodes_p.h"

#include <array>
#include <cerrno>

#include <fcntl.h>
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

int setNumber(int s, int level, int name, int value)
{
    return Sockets::setOption(s, level, name, &value, sizeof value);
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

bool Nuvika::Sockets::isBlocking(int s)
{
    const int flags = fcntl(s, F_GETFL);
    return flags != -1 && (flags & O_NONBLOCK) == 0;
}

bool Nuvika::Sockets::lingers(int s)
{
    linger value{};
    socklen_t size = sizeof value;
    return getsockopt(s, SOL_SOCKET, SO_LINGER, &value, &size) == 0 && value.l_onoff != 0
        && value.l_linger > 0;
}

int Nuvika::Sockets::takePendingError(int s)
{
    int error = 0;
    socklen_t size = sizeof error;
    if (checked([&] { return ::getsockopt(s, SOL_SOCKET, SO_ERROR, &error, &size); }) == -1)
        return ErrorCodes::lastError();
    return ErrorCodes::fromErrno(error);
}

int Nuvika::Sockets::setNoDelay(int s, bool bOn)
{
    return setNumber(s, IPPROTO_TCP, TCP_NODELAY, bOn ? 1 : 0);
}

int Nuvika::Sockets::setKeepAlive(int s, bool bOn, int nIdle, int nInterval, int nProbes)
{
    if (!bOn)
        return setNumber(s, SOL_SOCKET, SO_KEEPALIVE, 0);
    const bool bTaken = setNumber(s, IPPROTO_TCP, TCP_KEEPIDLE, nIdle) == 0
        && setNumber(s, IPPROTO_TCP, TCP_KEEPINTVL, nInterval) == 0
        && setNumber(s, IPPROTO_TCP, TCP_KEEPCNT, nProbes) == 0
        && setNumber(s, SOL_SOCKET, SO_KEEPALIVE, 1) == 0;
    return bTaken ? 0 : -1;
}

void Nuvika::Sockets::setUrgentInline(int s) { setQuietly(s, SOL_SOCKET, SO_OOBINLINE, 1); }

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

void Nuvika::Sockets::setOwnGroupsOnly(int s, int family)
{
    if (family == AF_INET6)
        setQuietly(s, IPPROTO_IPV6, IPV6_MULTICAST_ALL, 0);
    else
        setQuietly(s, IPPROTO_IP, IP_MULTICAST_ALL, 0);
}

int Nuvika::Sockets::bindToInterface(int s, unsigned int index)
{
    const auto value = static_cast<int>(index);
    return setOption(s, SOL_SOCKET, SO_BINDTOIFINDEX, &value, sizeof value);
}

int Nuvika::Sockets::setIPv6Only(int s, bool bOnly)
{
    return setNumber(s, IPPROTO_IPV6, IPV6_V6ONLY, bOnly ? 1 : 0);
}

bool Nuvika::Sockets::hasInput(int s)
{
    char byte = 0;
    return ::recv(s, &byte, 1, MSG_PEEK | MSG_DONTWAIT) >= 0 || errno != EAGAIN;
}
