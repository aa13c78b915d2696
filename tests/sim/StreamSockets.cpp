#include "sim/StreamSockets.h"

#include <cerrno>
#include <cstring>

#include <sys/epoll.h>

namespace sim
{
namespace
{
constexpr Time kFirstRetry = 1000 * kMs;
constexpr int kMostAttempts = 7;

std::map<Address, StreamSocket*>& listeners()
{
    static std::map<Address, StreamSocket*> map;
    return map;
}

StreamSocket* listenerAt(const Address& address)
{
    for (const Address& name : {address, address.withoutIp()}) {
        const auto found = listeners().find(name);
        if (found != listeners().end())
            return found->second;
    }
    return nullptr;
}

// Never the port that is connected to: no socket connects to itself.
std::uint16_t freePort(const Address& remote)
{
    static std::uint64_t next = Kernel::get().random().below(28000);
    for (;;) {
        const auto port = static_cast<std::uint16_t>(32768 + next++ % 28000);
        if (port != remote.nPort && !listenerAt(Address::of("127.0.0.1", port)))
            return port;
    }
}

bool isKnownMachine(const Address& address)
{
    if (address.isLoopback() || address.withPort(0) == ownAddress(address.nFamily))
        return true;
    const auto first = listeners().lower_bound(address.withPort(0));
    return first != listeners().end() && first->first.withPort(0) == address.withPort(0);
}
} // namespace

unsigned int StreamSocket::poll()
{
    if (m_state == eListening)
        return m_accepted.empty() ? 0U : EPOLLIN;
    unsigned int events = m_nError != 0 ? EPOLLERR : 0U;
    if (m_state == eConnecting)
        return events;
    if (m_state == eClosed || (m_bSendShut && m_bEndReceived))
        events |= EPOLLHUP;
    if (m_bEndReceived)
        events |= EPOLLIN | EPOLLRDHUP;
    if (!m_received.empty())
        events |= EPOLLIN;
    if (m_nUrgent != kNone)
        events |= EPOLLPRI;
    if (m_bSendShut || isWriteable())
        events |= EPOLLOUT;
    else
        m_bNoSpace = true;
    return events;
}

// --- connections begin ---------------------------------------------------------------------------------

int StreamSocket::bind(const Address& address)
{
    if (address.nFamily != local.nFamily)
        return -EAFNOSUPPORT;
    local = address.nPort != 0 ? address : address.withPort(freePort(address));
    return listenerAt(local) ? -EADDRINUSE : 0;
}

int StreamSocket::listen(int backlog)
{
    if (listenerAt(local))
        return -EADDRINUSE;
    m_state = eListening;
    m_nBacklog = static_cast<std::size_t>(std::clamp(backlog, 0, 4096)) + 1;
    listeners()[local] = this;
    return 0;
}

int StreamSocket::connect(const Address& address)
{
    if (m_state == eConnecting)
        return -EALREADY;
    if (std::exchange(m_bConnectCalled, false)) { // told once
        if (m_state == eConnected)
            return 0;
        const int error = takeError();
        m_bSendShut = m_bEndReceived = false;
        return -(error != 0 ? error : ECONNABORTED);
    }
    if (m_state != eClosed)
        return m_state == eConnected ? -EISCONN : -EINVAL;
    if (address.nFamily != local.nFamily)
        return -EAFNOSUPPORT;
    Kernel& kernel = Kernel::get();
    if (const int error = kernel.fault(kernel.weather.refuse / 4, {ENETUNREACH, EADDRNOTAVAIL, ENOBUFS}))
        return error;
    remote = address;
    local = sourceFor(remote).withPort(local.nPort != 0 ? local.nPort : freePort(remote));
    m_state = eConnecting;
    m_bConnectCalled = true;
    openConnection(0);
    return -EINPROGRESS;
}

// What opens the connection is on its way, for the nth time.
void StreamSocket::openConnection(int attempt)
{
    Scheduler::get().after(Kernel::get().delay(), [this, attempt] {
        Kernel& net = Kernel::get();
        if (m_state != eConnecting)
            return;
        StreamSocket* listener = listenerAt(remote);
        const bool bLost = !listener || listener->m_accepted.size() >= listener->m_nBacklog;
        if (net.chance(net.weather.refuse) || (!listener && isKnownMachine(remote)))
            connectionFails(ECONNREFUSED);
        else if (!bLost && !net.chance(net.weather.lose))
            connectTo(*listener);
        else if (attempt + 1 == kMostAttempts)
            connectionFails(ETIMEDOUT);
        else
            Scheduler::get().after(kFirstRetry << attempt, [=] { openConnection(attempt + 1); });
    });
}

void StreamSocket::connectionFails(int error)
{
    if (m_state != eConnecting)
        return;
    trace("%s is not connected to %s: %s", local.text().c_str(), remote.text().c_str(), std::strerror(error));
    m_state = eClosed;
    m_nError = error;
    m_bSendShut = m_bEndReceived = true;
    wake();
}

void StreamSocket::connectTo(StreamSocket& listener)
{
    auto& other = Kernel::get().make<StreamSocket>(local.nFamily);
    other.local = remote;
    other.remote = local;
    other.m_pPeer = this;
    m_pPeer = &other;
    m_state = other.m_state = eConnected;
    trace("%s is connected to %s", local.text().c_str(), remote.text().c_str());
    listener.m_accepted.push_back(&other);
    listener.wake(EPOLLIN);
    wake();
}

StreamSocket* StreamSocket::takeAccepted()
{
    if (m_accepted.empty())
        return nullptr;
    StreamSocket* accepted = m_accepted.front();
    m_accepted.erase(m_accepted.begin());
    return accepted;
}

int StreamSocket::accept(int flags)
{
    Kernel& kernel = Kernel::get();
    if (m_state != eListening)
        return -EINVAL;
    if (!kernel.hasRoom())
        return -EMFILE;
    StreamSocket* accepted = takeAccepted();
    if (accepted == nullptr)
        return -EAGAIN;
    if (const int error = kernel.fault(kernel.weather.reset, {ECONNABORTED})) {
        accepted->reset();
        return error;
    }
    accepted->bNonBlocking = (flags & SOCK_NONBLOCK) != 0;
    return kernel.open(*accepted);
}

// --- bytes ---------------------------------------------------------------------------------------------

long StreamSocket::receive(msghdr* message, int flags)
{
    std::size_t most = sizeOf(*message);
    if (m_received.empty()) {
        if (m_nError != 0)
            return -takeError();
        return m_bEndReceived ? 0 : m_state == eConnected ? -EAGAIN : -ENOTCONN;
    }
    if ((flags & MSG_PEEK) != 0)
        return static_cast<long>(std::min(most, m_received.size())); // how much, and nobody asks what
    if (m_nUrgent != kNone && m_nUrgent > 0)
        most = std::min(most, m_nUrgent); // a read stops before an urgent byte
    const std::size_t taken = scatter(std::string_view(m_received).substr(0, most), *message);
    m_received.erase(0, taken);
    if (m_nUrgent != kNone)
        m_nUrgent = m_nUrgent == 0 ? kNone : m_nUrgent - taken;
    if (m_pPeer != nullptr)
        m_pPeer->deliverLater(); // there is room again
    return static_cast<long>(taken);
}

long StreamSocket::send(const msghdr& message, int flags)
{
    Kernel& kernel = Kernel::get();
    if (m_state == eConnecting)
        return -EAGAIN;
    if (m_state != eConnected || m_bSendShut || m_nError != 0)
        return -(m_nError != 0 ? takeError() : EPIPE);
    const std::size_t wanted = sizeOf(message);
    std::size_t taken = std::min(wanted, roomToSend());
    if (kernel.chance(kernel.weather.squeeze)) {
        taken = kernel.random().below(taken + 1);
        Scheduler::get().after(kernel.delay(), [this] { tellRoom(); });
    }
    m_bNoSpace = m_bNoSpace || taken < wanted;
    if (taken == 0 && wanted > 0)
        return -EAGAIN;
    m_wire += gather(message, taken);
    if ((flags & MSG_OOB) != 0)
        m_nUrgentOnWire = m_wire.size() - 1;
    deliverLater();
    return static_cast<long>(taken);
}

void StreamSocket::tellRoom()
{
    if (!m_bNoSpace || !isWriteable())
        return;
    m_bNoSpace = false;
    wake(EPOLLOUT);
}

void StreamSocket::deliverLater()
{
    Kernel& kernel = Kernel::get();
    if (m_bDelivering || (m_wire.empty() && !m_bSendShut && !m_bResetBehind))
        return;
    m_bDelivering = true;
    const Time stall = kernel.chance(kernel.weather.stall) ? kernel.random().below(5000 * kMs) : 0;
    Scheduler::get().after(kernel.delay() + stall, [this] { deliver(); });
}

void StreamSocket::deliver()
{
    Kernel& kernel = Kernel::get();
    m_bDelivering = false;
    StreamSocket* peer = m_pPeer;
    if (peer == nullptr || (m_bEndSent && !m_bResetBehind))
        return;
    const bool bNobodyReads = peer->m_bReleased && !m_wire.empty();
    const bool bReset = kernel.chance(kernel.weather.reset);
    if (bReset)
        trace("the network resets %s - %s", local.text().c_str(), remote.text().c_str());
    if (bReset || bNobodyReads) { // what either had still to send is lost
        receiveReset();
        peer->receiveReset();
        return;
    }
    std::size_t size = std::min(
        m_wire.size(), peer->m_nReceiveLimit - std::min(peer->m_nReceiveLimit, peer->m_received.size()));
    if (size > 1 && kernel.chance(kernel.weather.cut))
        size = std::min<std::size_t>(size, kernel.random().size(size));
    if (size > 0)
        deliverBytes(size);
    if (m_bResetBehind && (m_wire.empty() || size == 0)) {
        trace("a reset arrives at %s", peer->local.text().c_str());
        m_wire.clear();
        m_pPeer = nullptr;
        peer->receiveReset();
    } else if (m_wire.empty() && m_bSendShut && (size == 0 || !kernel.chance(kernel.weather.cut))) {
        trace("the end arrives at %s", peer->local.text().c_str());
        m_wire.shrink_to_fit();
        m_bEndSent = true;
        peer->m_bEndReceived = true;
        peer->wake();
    } else if (size > 0) {
        deliverLater();
    }
}

void StreamSocket::deliverBytes(std::size_t size)
{
    StreamSocket& peer = *m_pPeer;
    if (m_nUrgentOnWire != kNone && m_nUrgentOnWire < size)
        peer.m_nUrgent = peer.m_received.size() + std::exchange(m_nUrgentOnWire, kNone);
    else if (m_nUrgentOnWire != kNone)
        m_nUrgentOnWire -= size;
    peer.m_received.append(m_wire, 0, size);
    m_wire.erase(0, size);
    trace("%zu bytes arrive at %s", size, peer.local.text().c_str());
    peer.wake(EPOLLIN | EPOLLPRI);
    tellRoom();
}

// --- connections end -----------------------------------------------------------------------------------

void StreamSocket::receiveReset()
{
    m_wire.clear();
    m_pPeer = nullptr;
    if (m_state == eClosed || (m_bEndReceived && m_bEndSent))
        return;
    m_nError = m_bEndReceived ? EPIPE : ECONNRESET;
    m_state = eClosed;
    m_bSendShut = m_bEndReceived = true;
    wake();
}

void StreamSocket::reset()
{
    m_wire.resize(Kernel::get().random().below(m_wire.size() + 1));
    m_bResetBehind = m_bSendShut = true;
    m_state = eClosed;
    deliverLater();
}

int StreamSocket::shutdownWrite()
{
    if (m_state != eConnected)
        return -ENOTCONN;
    m_bSendShut = true;
    wake();
    deliverLater();
    return 0;
}

void StreamSocket::released()
{
    m_bReleased = true;
    onWake = nullptr;
    if (m_state == eListening)
        listeners().erase(local);
    while (StreamSocket* waiting = takeAccepted())
        waiting->reset();
    if (m_state == eConnected && (!m_received.empty() || (m_linger.l_onoff != 0 && m_linger.l_linger == 0)))
        reset();
    else if (m_state == eConnected)
        shutdownWrite();
    std::string().swap(m_received);
    m_state = eClosed;
}

// --- options -------------------------------------------------------------------------------------------

int StreamSocket::setOption(int level, int name, const void* value, socklen_t size)
{
    if (level == SOL_SOCKET && name == SO_LINGER)
        std::memcpy(&m_linger, value, sizeof m_linger);
    return Socket::setOption(level, name, value, size);
}

int StreamSocket::option(int level, int name, void* value, socklen_t* size)
{
    if (level == SOL_SOCKET && name == SO_LINGER) {
        std::memcpy(value, &m_linger, *size = sizeof m_linger);
        return 0;
    }
    if (level != SOL_SOCKET || name != SO_ERROR)
        return -ENOPROTOOPT;
    const int error = takeError();
    std::memcpy(value, &error, *size = sizeof error);
    return 0;
}
} // namespace sim
