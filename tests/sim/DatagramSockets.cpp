#include "sim/DatagramSockets.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <netinet/udp.h>
#include <sys/epoll.h>

namespace sim
{
namespace
{
constexpr std::size_t kLargest = 65507;
constexpr std::size_t kMtu = 1472; // of a run's segments towards a network
constexpr std::size_t kLoopbackMtu = 65507;
constexpr std::size_t kMostSegments = 64;
constexpr std::size_t kOverhead = 256; // of a datagram in a buffer

std::vector<DatagramSocket*>& sockets() // in the order of their making
{
    static std::vector<DatagramSocket*> all;
    return all;
}

std::size_t segmentOf(const msghdr& message)
{
    for (cmsghdr* record = CMSG_FIRSTHDR(&message); record != nullptr;
         record = CMSG_NXTHDR(const_cast<msghdr*>(&message), record)) {
        std::uint16_t size = 0;
        if (record->cmsg_level == SOL_UDP && record->cmsg_type == UDP_SEGMENT) {
            std::memcpy(&size, CMSG_DATA(record), sizeof size);
            return size;
        }
    }
    return 0;
}
} // namespace

DatagramSocket::DatagramSocket(int family)
{
    local.nFamily = family;
    sockets().push_back(this);
}

DatagramSocket::~DatagramSocket() { sockets().erase(std::find(sockets().begin(), sockets().end(), this)); }

unsigned int DatagramSocket::poll()
{
    if (m_nOnWire >= m_nSendLimit)
        m_bNoSpace = true;
    return (m_received.empty() ? 0U : EPOLLIN) | (m_bNoSpace ? 0U : EPOLLOUT);
}

int DatagramSocket::bind(const Address& address)
{
    if (address.nFamily != local.nFamily)
        return -EAFNOSUPPORT;
    if (local.nPort != 0)
        return -EINVAL;
    if (const int error = Kernel::get().outOfMemory())
        return error;
    const auto isTaken = [&](const Address& name) {
        return std::any_of(sockets().begin(), sockets().end(), [&](const DatagramSocket* other) {
            const bool bSame = other->local.nPort == name.nPort && other->local.nFamily == name.nFamily
                && (other->local.isAny() || name.isAny() || other->local == name);
            return other != this && bSame && !(m_bReuse && other->m_bReuse);
        });
    };
    if (address.nPort != 0 && isTaken(address))
        return -EADDRINUSE;
    local = address;
    while (local.nPort == 0 || isTaken(local))
        local.nPort = static_cast<std::uint16_t>(Kernel::get().random().between(32768, 60999));
    return 0;
}

// --- sending -------------------------------------------------------------------------------------------

long DatagramSocket::send(const msghdr& message, int)
{
    Kernel& kernel = Kernel::get();
    const Address to = Address::of(static_cast<const sockaddr*>(message.msg_name), message.msg_namelen);
    const std::size_t size = sizeOf(message.msg_iov, message.msg_iovlen);
    const std::size_t segment = segmentOf(message);
    if (to.nFamily != local.nFamily)
        return to.nFamily == AF_UNSPEC ? -EDESTADDRREQ : -EAFNOSUPPORT;
    if (size > kLargest)
        return -EMSGSIZE;
    if (segment > (to.isLoopback() ? kLoopbackMtu : kMtu) || (segment > 0 && size > segment * kMostSegments))
        return -EINVAL;
    if (segment > 0 && kernel.chance(kernel.weather.noMemory))
        return -EIO; // a device that cannot
    if (const int error = kernel.fault(kernel.weather.noMemory, {ENOBUFS, ENOMEM, EPERM}))
        return error;
    if (m_nOnWire >= m_nSendLimit || kernel.chance(kernel.weather.squeeze)) {
        m_bNoSpace = true;
        const auto self = std::static_pointer_cast<DatagramSocket>(shared_from_this());
        Scheduler::get().after(kernel.delay(), [self] {
            self->m_bNoSpace = false;
            self->wake(EPOLLOUT);
        });
        return -EAGAIN;
    }
    ByteQueue bytes;
    bytes.append(message.msg_iov, message.msg_iovlen, size);
    if (local.nPort == 0)
        bind(Address{local.nFamily, {}, 0});
    transmit(to, bytes.take(size), segment);
    return static_cast<long>(size);
}

void DatagramSocket::transmit(const Address& to, const std::string& bytes, std::size_t segment)
{
    Kernel& kernel = Kernel::get();
    const Address from = local.isAny() || local.isMulticast() ? sourceFor(to).withPort(local.nPort) : local;
    const bool bTogether = segment > 0 && !kernel.chance(kernel.weather.cut);
    const std::size_t step = bTogether || segment == 0 ? std::max<std::size_t>(bytes.size(), 1) : segment;
    for (std::size_t at = 0; at == 0 || at < bytes.size(); at += step) {
        const Run run{from, bytes.substr(at, step), bTogether ? segment : 0};
        if (kernel.chance(kernel.weather.lose))
            continue;
        Time due = std::max(Scheduler::get().now() + kernel.delay(), m_nLastDue);
        if (kernel.chance(kernel.weather.reorder))
            due += kernel.delay() * 4;
        else
            m_nLastDue = due;
        deliver(to, run, due);
        if (kernel.chance(kernel.weather.duplicate))
            deliver(to, run, due + kernel.delay());
    }
}

void DatagramSocket::deliver(const Address& to, const Run& run, Time due)
{
    m_nOnWire += run.bytes.size() + kOverhead;
    const std::weak_ptr<File> self = weak_from_this();
    Scheduler::get().at(due, [self, to, run] {
        if (const auto file = self.lock()) {
            auto& sender = static_cast<DatagramSocket&>(*file);
            sender.m_nOnWire -= run.bytes.size() + kOverhead;
            if (sender.m_bNoSpace && sender.m_nOnWire < sender.m_nSendLimit / 2) {
                sender.m_bNoSpace = false;
                sender.wake(EPOLLOUT);
            }
        }
        const std::vector<DatagramSocket*> all = sockets();
        DatagramSocket* last = nullptr; // of one address: who was bound last
        for (DatagramSocket* socket : all) {
            if (!socket->hears(to))
                continue;
            if (to.isMulticast())
                socket->arrive(run);
            last = socket;
        }
        if (last != nullptr && !to.isMulticast())
            last->arrive(run);
    });
}

// --- receiving -----------------------------------------------------------------------------------------

bool DatagramSocket::hears(const Address& to) const
{
    if (local.nPort != to.nPort || local.nFamily != to.nFamily)
        return false;
    if (!to.isMulticast())
        return local.isAny() || local == to;
    return (local.isAny() || local == to) && (m_bAllGroups || m_groups.count(to.withPort(0)) != 0);
}

// A run of datagrams for a socket that takes none, or that is cut by the way, comes as single ones.
void DatagramSocket::arrive(const Run& run)
{
    if (onRun) {
        onRun(run);
        return;
    }
    if (run.nSegment > 0 && !m_bRuns) {
        for (std::size_t at = 0; at < run.bytes.size(); at += run.nSegment)
            arrive({run.from, run.bytes.substr(at, run.nSegment), 0});
        return;
    }
    if (m_nQueued + run.bytes.size() + kOverhead > m_nReceiveLimit)
        return; // lost, as it is when a buffer is full
    m_nQueued += run.bytes.size() + kOverhead;
    trace("%zu bytes arrive at %s from %s, of %zu", run.bytes.size(), local.text().c_str(),
        run.from.text().c_str(), run.nSegment);
    if (!appendToRun(run))
        m_received.push_back(run);
    wake(EPOLLIN);
}

// What the device put together: datagrams of one sender and one size.
bool DatagramSocket::appendToRun(const Run& run)
{
    if (!m_bRuns || m_received.empty() || run.nSegment > 0 || run.bytes.empty())
        return false;
    Run& last = m_received.back();
    const std::size_t segment = last.nSegment > 0 ? last.nSegment : last.bytes.size();
    if (!(last.from == run.from) || segment == 0 || last.bytes.size() % segment != 0
        || run.bytes.size() > segment || last.bytes.size() / segment >= kMostSegments
        || last.bytes.size() + run.bytes.size() > kLargest || Kernel::get().random().chance(0.5))
        return false;
    last.nSegment = segment;
    last.bytes += run.bytes;
    m_nQueued -= kOverhead;
    return true;
}

long DatagramSocket::receive(msghdr* message, int flags)
{
    if (m_received.empty())
        return -EAGAIN;
    const Run run = m_received.front();
    if ((flags & MSG_PEEK) == 0) {
        m_received.pop_front();
        m_nQueued -= run.bytes.size() + kOverhead;
    }
    ByteQueue bytes;
    bytes.append(run.bytes.data(), run.bytes.size());
    const std::size_t size = bytes.take(message->msg_iov, message->msg_iovlen, run.bytes.size());
    message->msg_flags = size < run.bytes.size() ? MSG_TRUNC : 0;
    if (message->msg_name != nullptr)
        run.from.copyTo(message->msg_name, &message->msg_namelen);
    cmsghdr* record = run.nSegment > 0 ? CMSG_FIRSTHDR(message) : nullptr;
    if (record != nullptr && message->msg_controllen >= CMSG_SPACE(sizeof(int))) {
        const auto segment = static_cast<int>(run.nSegment);
        record->cmsg_level = SOL_UDP;
        record->cmsg_type = UDP_GRO;
        record->cmsg_len = CMSG_LEN(sizeof segment);
        std::memcpy(CMSG_DATA(record), &segment, sizeof segment);
        message->msg_controllen = CMSG_SPACE(sizeof segment);
    } else {
        message->msg_controllen = 0;
    }
    return static_cast<long>(size);
}

// --- options -------------------------------------------------------------------------------------------

int DatagramSocket::join(const Address& group)
{
    if (!group.isMulticast())
        return -EINVAL;
    if (const int error = Kernel::get().fault(Kernel::get().weather.noMemory, {ENOBUFS, ENODEV}))
        return error;
    return m_groups.insert(group).second ? 0 : -EADDRINUSE;
}

int DatagramSocket::setOption(int level, int name, const void* value, socklen_t size)
{
    int number = 0;
    std::memcpy(&number, value, std::min<std::size_t>(size, sizeof number));
    if (level == SOL_SOCKET && name == SO_REUSEADDR)
        m_bReuse = number != 0;
    else if (level == SOL_SOCKET && name == SO_RCVBUF)
        m_nReceiveLimit = 2 * static_cast<std::size_t>(std::clamp(number, 1152, 1 << 20));
    else if (level == SOL_SOCKET && name == SO_SNDBUF)
        m_nSendLimit = 2 * static_cast<std::size_t>(std::clamp(number, 2304, 1 << 20));
    else if (level == SOL_UDP && name == UDP_GRO)
        m_bRuns = number != 0;
    else if ((level == IPPROTO_IP && name == IP_MULTICAST_ALL)
        || (level == IPPROTO_IPV6 && name == IPV6_MULTICAST_ALL))
        m_bAllGroups = number != 0;
    else if (level == IPPROTO_IP && name == IP_ADD_MEMBERSHIP && size >= sizeof(ip_mreq)) {
        Address group;
        std::memcpy(group.ip.data(), value, 4); // imr_multiaddr stands first
        return join(group);
    } else if (level == IPPROTO_IPV6 && name == IPV6_ADD_MEMBERSHIP && size >= sizeof(ipv6_mreq)) {
        Address group;
        group.nFamily = AF_INET6;
        std::memcpy(group.ip.data(), value, 16); // ipv6mr_multiaddr, too
        return join(group);
    }
    return 0;
}
} // namespace sim
