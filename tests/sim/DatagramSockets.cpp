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
constexpr std::size_t kMostSegments = 64;
constexpr std::size_t kOverhead = 256; // of a datagram in a buffer

std::vector<DatagramSocket*>& sockets() // in the order of their making
{
    static std::vector<DatagramSocket*> all;
    return all;
}

std::size_t segmentOf(const msghdr& message)
{
    std::uint16_t size = 0;
    const cmsghdr* record = CMSG_FIRSTHDR(&message); // the only one
    if (record != nullptr && record->cmsg_level == SOL_UDP && record->cmsg_type == UDP_SEGMENT)
        std::memcpy(&size, CMSG_DATA(record), sizeof size);
    return size;
}
} // namespace

std::vector<std::string> Run::datagrams() const
{
    std::vector<std::string> all;
    const std::size_t step = nSegment > 0 ? nSegment : std::max<std::size_t>(bytes.size(), 1);
    for (std::size_t at = 0; at == 0 || at < bytes.size(); at += step)
        all.push_back(bytes.substr(at, step));
    return all;
}

DatagramSocket::DatagramSocket(int family) : Socket(family)
{
    m_nReceiveLimit = m_nSendLimit = 212992;
    sockets().push_back(this);
}

void DatagramSocket::released()
{
    sockets().erase(std::find(sockets().begin(), sockets().end(), this));
    m_received.clear();
}

unsigned int DatagramSocket::poll()
{
    m_bNoSpace = m_bNoSpace || m_nOnWire >= m_nSendLimit;
    return (m_received.empty() ? 0U : EPOLLIN) | (m_bNoSpace ? 0U : EPOLLOUT);
}

int DatagramSocket::bind(const Address& address)
{
    if (address.nFamily != local.nFamily)
        return -EAFNOSUPPORT;
    if (local.nPort != 0)
        return -EINVAL;
    const auto isTaken = [this](const Address& name) {
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
    const std::size_t size = sizeOf(message);
    const std::size_t segment = segmentOf(message);
    if (to.nFamily != local.nFamily)
        return to.nFamily == AF_UNSPEC ? -EDESTADDRREQ : -EAFNOSUPPORT;
    if (size > kLargest)
        return -EMSGSIZE;
    if (segment > (to.isLoopback() ? kLargest : kMtu) || (segment > 0 && size > segment * kMostSegments))
        return -EINVAL;
    if (segment > 0 && kernel.chance(kernel.weather.noMemory))
        return -EIO; // a device that cannot
    if (const int error = kernel.fault(kernel.weather.noMemory, {ENOBUFS, ENOMEM, EPERM}))
        return error;
    if (m_nOnWire >= m_nSendLimit || kernel.chance(kernel.weather.squeeze)) {
        m_bNoSpace = true;
        Scheduler::get().after(kernel.delay(), [this] { tellRoom(); });
        return -EAGAIN;
    }
    if (local.nPort == 0)
        bind(Address{local.nFamily, {}, 0});
    transmit(to, {{}, gather(message, size), segment});
    return static_cast<long>(size);
}

void DatagramSocket::tellRoom()
{
    m_bNoSpace = false;
    wake(EPOLLOUT);
}

void DatagramSocket::transmit(const Address& to, Run run)
{
    Kernel& kernel = Kernel::get();
    run.from = local.isAny() || local.isMulticast() ? sourceFor(to).withPort(local.nPort) : local;
    if (run.nSegment > 0 && kernel.chance(kernel.weather.cut)) {
        for (const std::string& bytes : run.datagrams())
            transmit(to, {{}, bytes, 0});
        return;
    }
    if (kernel.chance(kernel.weather.lose))
        return;
    Time due = std::max(Scheduler::get().now() + kernel.delay(), m_nLastDue);
    if (kernel.chance(kernel.weather.reorder))
        due += kernel.delay() * 4;
    else
        m_nLastDue = due;
    deliver(to, run, due);
    if (kernel.chance(kernel.weather.duplicate))
        deliver(to, run, due + kernel.delay());
}

void DatagramSocket::deliver(const Address& to, const Run& run, Time due)
{
    m_nOnWire += run.bytes.size() + kOverhead;
    Scheduler::get().at(due, [this, to, run] {
        m_nOnWire -= run.bytes.size() + kOverhead;
        if (m_bNoSpace && m_nOnWire < m_nSendLimit / 2)
            tellRoom();
        std::vector<DatagramSocket*> hearing;
        std::copy_if(sockets().begin(), sockets().end(), std::back_inserter(hearing),
            [&](const DatagramSocket* socket) { return socket->hears(to); });
        if (!to.isMulticast() && hearing.size() > 1)
            hearing = {hearing.back()}; // of one address: who was bound last
        for (DatagramSocket* socket : hearing)
            socket->arrive(run);
    });
}

// --- receiving -----------------------------------------------------------------------------------------

bool DatagramSocket::hears(const Address& to) const
{
    return local.nPort == to.nPort && local.nFamily == to.nFamily && (local.isAny() || local == to)
        && (!to.isMulticast() || m_bAllGroups || m_groups.count(to.withPort(0)) != 0);
}

// A run of datagrams for a socket that takes none comes as single ones.
void DatagramSocket::arrive(const Run& run)
{
    if (onRun) {
        onRun(run);
        return;
    }
    if (run.nSegment > 0 && !m_bRuns) {
        for (const std::string& bytes : run.datagrams())
            arrive({run.from, bytes, 0});
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
        || last.bytes.size() + run.bytes.size() > kLargest || Kernel::get().chance(0.5))
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
    const std::size_t size = scatter(run.bytes, *message);
    message->msg_flags = size < run.bytes.size() ? MSG_TRUNC : 0;
    if (message->msg_name != nullptr)
        run.from.copyTo(message->msg_name, &message->msg_namelen);
    const auto segment = static_cast<int>(run.nSegment);
    const bool bRecord = segment > 0 && message->msg_controllen >= CMSG_SPACE(sizeof segment);
    message->msg_controllen = bRecord ? CMSG_SPACE(sizeof segment) : 0;
    if (cmsghdr* record = CMSG_FIRSTHDR(message)) {
        *record = {CMSG_LEN(sizeof segment), SOL_UDP, UDP_GRO};
        std::memcpy(CMSG_DATA(record), &segment, sizeof segment);
    }
    return static_cast<long>(size);
}

// --- options -------------------------------------------------------------------------------------------

int DatagramSocket::join(const Address& group)
{
    if (!group.isMulticast())
        return -EINVAL;
    return m_groups.insert(group).second ? 0 : -EADDRINUSE;
}

int DatagramSocket::setOption(int level, int name, const void* value, socklen_t size)
{
    const auto is = [=](int itsLevel, int itsName) { return level == itsLevel && name == itsName; };
    const bool bOn = size >= sizeof(int) && *static_cast<const int*>(value) != 0;
    if (is(SOL_SOCKET, SO_REUSEADDR))
        m_bReuse = bOn;
    else if (is(SOL_UDP, UDP_GRO))
        m_bRuns = bOn;
    else if (is(IPPROTO_IP, IP_MULTICAST_ALL) || is(IPPROTO_IPV6, IPV6_MULTICAST_ALL))
        m_bAllGroups = bOn;
    else if (is(IPPROTO_IP, IP_ADD_MEMBERSHIP) || is(IPPROTO_IPV6, IPV6_ADD_MEMBERSHIP)) {
        Address group;
        group.nFamily = local.nFamily;
        std::memcpy(group.ip.data(), value, level == IPPROTO_IP ? 4 : 16); // stands first
        return join(group);
    }
    return Socket::setOption(level, name, value, size);
}
} // namespace sim
