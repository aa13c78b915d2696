#include "sim/StreamSockets.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include <netinet/tcp.h>
#include <sys/epoll.h>

namespace sim
{
namespace
{
constexpr Time kFirstRetry = 1000 * kMs;
constexpr int kMostAttempts = 7;

std::map<Address, std::weak_ptr<StreamSocket>>& listeners()
{
    static std::map<Address, std::weak_ptr<StreamSocket>> map;
    return map;
}

// Without a descriptor, and with bytes on the wire.
std::set<std::shared_ptr<File>>& orphans()
{
    static std::set<std::shared_ptr<File>> set;
    return set;
}

// Never the port that is connected to: no socket connects to itself.
std::uint16_t freePort(const Address& remote)
{
    static std::uint16_t next = 0;
    if (next == 0)
        next = static_cast<std::uint16_t>(Kernel::get().random().below(28000));
    for (;;) {
        const auto port = static_cast<std::uint16_t>(32768 + next++ % 28000);
        if (port != remote.nPort && !StreamSocket::listenerAt(Address::of("127.0.0.1", port)))
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

std::shared_ptr<StreamSocket> StreamSocket::listenerAt(const Address& address)
{
    for (const Address& name : {address, address.withoutIp()}) {
        const auto found = listeners().find(name);
        if (found != listeners().end())
            return found->second.lock();
    }
    return nullptr;
}

// --- what is there -------------------------------------------------------------------------------------

std::size_t StreamSocket::roomToSend() const { return m_nSendLimit - std::min(m_nSendLimit, m_wire.size()); }

bool StreamSocket::isWriteable() const { return roomToSend() >= m_wire.size() / 2 && roomToSend() > 0; }

unsigned int StreamSocket::poll()
{
    if (m_state == eListening)
        return m_accepted.empty() ? 0U : static_cast<unsigned int>(EPOLLIN);
    unsigned int events = m_nError != 0 ? EPOLLERR : 0U;
    if (m_state == eConnecting)
        return events;
    if (m_state == eClosed || (m_bSendShut && m_bEndReceived))
        events |= EPOLLHUP;
    if (m_bEndReceived)
        events |= EPOLLIN | EPOLLRDHUP;
    if (!m_received.isEmpty())
        events |= EPOLLIN;
    if (hasUrgent())
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
    if (const int error = Kernel::get().fault(Kernel::get().weather.noMemory, {ENOMEM, EADDRINUSE}))
        return error;
    local = address.nPort != 0 ? address : address.withPort(freePort(address));
    return listenerAt(local) ? -EADDRINUSE : 0;
}

int StreamSocket::listen(int backlog)
{
    if (listenerAt(local))
        return -EADDRINUSE;
    m_state = eListening;
    m_nBacklog = static_cast<std::size_t>(std::clamp(backlog, 0, 4096)) + 1;
    listeners()[local] = std::static_pointer_cast<StreamSocket>(shared_from_this());
    return 0;
}

int StreamSocket::connect(const Address& address)
{
    if (m_state == eConnecting)
        return -EALREADY;
    if (m_bConnectCalled) {
        m_bConnectCalled = false; // told once
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
    const std::uint16_t port = local.nPort != 0 ? local.nPort : freePort(remote);
    local = sourceFor(remote).withPort(port);
    m_state = eConnecting;
    m_bConnectCalled = true;
    openConnection(0);
    return -EINPROGRESS;
}

// What opens the connection is on its way, for the nth time.
void StreamSocket::openConnection(int attempt)
{
    Kernel& kernel = Kernel::get();
    const auto self = std::static_pointer_cast<StreamSocket>(shared_from_this());
    Scheduler::get().after(kernel.delay(), [self, attempt] {
        Kernel& net = Kernel::get();
        if (self->m_state != eConnecting)
            return;
        const std::shared_ptr<StreamSocket> listener = listenerAt(self->remote);
        if (net.chance(net.weather.refuse) || (!listener && isKnownMachine(self->remote))) {
            self->connectionFails(ECONNREFUSED);
        } else if (!listener || listener->m_accepted.size() >= listener->m_nBacklog
            || net.chance(net.weather.lose)) {
            if (attempt + 1 == kMostAttempts)
                self->connectionFails(ETIMEDOUT);
            else
                Scheduler::get().after(
                    kFirstRetry << attempt, [self, attempt] { self->openConnection(attempt + 1); });
        } else {
            self->connectTo(*listener);
        }
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
    auto other = std::make_shared<StreamSocket>(local.nFamily);
    other->local = remote;
    other->remote = local;
    other->m_pPeer = std::static_pointer_cast<StreamSocket>(shared_from_this());
    other->m_state = eConnected;
    m_pPeer = other;
    m_state = eConnected;
    trace("%s is connected to %s", local.text().c_str(), remote.text().c_str());
    listener.m_accepted.push_back(std::move(other));
    listener.wake(EPOLLIN);
    wake();
}

std::shared_ptr<StreamSocket> StreamSocket::takeAccepted()
{
    if (m_accepted.empty())
        return nullptr;
    std::shared_ptr<StreamSocket> accepted = std::move(m_accepted.front());
    m_accepted.pop_front();
    return accepted;
}

int StreamSocket::accept(int flags)
{
    Kernel& kernel = Kernel::get();
    if (m_state != eListening)
        return -EINVAL;
    if (!kernel.hasRoom())
        return -EMFILE;
    if (const int error = kernel.fault(kernel.weather.noDescriptor, {EMFILE, ENFILE}))
        return error;
    if (const int error = kernel.outOfMemory())
        return error;
    const std::shared_ptr<StreamSocket> accepted = takeAccepted();
    if (!accepted)
        return -EAGAIN;
    if (const int error = kernel.fault(kernel.weather.reset, {ECONNABORTED})) {
        accepted->reset();
        return error;
    }
    accepted->bNonBlocking = (flags & SOCK_NONBLOCK) != 0;
    return kernel.open(accepted);
}

// --- bytes ---------------------------------------------------------------------------------------------

long StreamSocket::receive(const iovec* ranges, std::size_t count, int flags)
{
    const std::size_t wanted = sizeOf(ranges, count);
    if (m_received.isEmpty()) {
        if (m_bEndReceived && m_nError == 0)
            return 0;
        if (m_nError != 0)
            return -takeError();
        return m_state == eConnected ? -EAGAIN : -ENOTCONN;
    }
    if ((flags & MSG_PEEK) != 0)
        return static_cast<long>(std::min(wanted, m_received.size())); // how much, and nobody asks what
    // A read stops before an urgent byte.
    const bool bAtMark = m_nUrgent == 0;
    const std::size_t most = m_nUrgent != kNone && !bAtMark ? std::min(wanted, m_nUrgent) : wanted;
    const std::size_t taken = m_received.take(ranges, count, most);
    if (m_nUrgent != kNone)
        m_nUrgent = bAtMark ? kNone : m_nUrgent - taken;
    if (const auto peer = m_pPeer.lock())
        peer->deliverLater(); // there is room again
    return static_cast<long>(taken);
}

long StreamSocket::send(const iovec* ranges, std::size_t count, int flags)
{
    Kernel& kernel = Kernel::get();
    if (m_state == eConnecting)
        return -EAGAIN;
    if (m_state != eConnected || m_bSendShut || m_nError != 0)
        return -(m_nError != 0 ? takeError() : EPIPE);
    const std::size_t wanted = sizeOf(ranges, count);
    std::size_t taken = std::min(wanted, roomToSend());
    if (kernel.chance(kernel.weather.squeeze)) {
        taken = kernel.random().below(taken + 1);
        makeRoomLater();
    }
    if (taken < wanted)
        m_bNoSpace = true;
    if (taken == 0 && wanted > 0)
        return -EAGAIN;
    m_wire.append(ranges, count, taken);
    if ((flags & MSG_OOB) != 0)
        m_nUrgentOnWire = m_wire.size() - 1;
    deliverLater();
    return static_cast<long>(taken);
}

void StreamSocket::makeRoomLater()
{
    const auto self = std::static_pointer_cast<StreamSocket>(shared_from_this());
    Scheduler::get().after(Kernel::get().delay(), [self] { self->tellRoom(); });
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
    if (m_bDelivering || (m_wire.isEmpty() && !m_bSendShut && !m_bResetBehind))
        return;
    m_bDelivering = true;
    const Time stall = kernel.chance(kernel.weather.stall) ? kernel.random().below(5000 * kMs) : 0;
    const auto self = std::static_pointer_cast<StreamSocket>(shared_from_this());
    Scheduler::get().after(kernel.delay() + stall, [self] { self->deliver(); });
}

void StreamSocket::deliver()
{
    Kernel& kernel = Kernel::get();
    m_bDelivering = false;
    const std::shared_ptr<StreamSocket> peer = m_pPeer.lock();
    if (!peer || (m_bEndSent && !m_bResetBehind))
        return;
    if (kernel.chance(kernel.weather.reset)) {
        trace("the network resets %s - %s", local.text().c_str(), remote.text().c_str());
        receiveReset();
        peer->receiveReset();
        return;
    }
    deliverTo(*peer);
}

void StreamSocket::deliverTo(StreamSocket& peer)
{
    Kernel& kernel = Kernel::get();
    if (peer.m_bReleased && !m_wire.isEmpty()) { // nobody will read it
        peer.receiveReset(); // what it had still to send is lost, too
        receiveReset();
        return;
    }
    std::size_t size = std::min(
        m_wire.size(), peer.m_nReceiveLimit - std::min(peer.m_nReceiveLimit, peer.m_received.size()));
    if (size > 1 && kernel.chance(kernel.weather.cut))
        size = std::min<std::size_t>(size, kernel.random().size(size));
    if (size > 0) {
        if (m_nUrgentOnWire != kNone && m_nUrgentOnWire < size)
            peer.m_nUrgent = peer.m_received.size() + std::exchange(m_nUrgentOnWire, kNone);
        else if (m_nUrgentOnWire != kNone)
            m_nUrgentOnWire -= size;
        peer.m_received.append(m_wire.data(), size);
        m_wire.drop(size);
        trace("%zu bytes arrive at %s", size, peer.local.text().c_str());
        peer.wake(EPOLLIN | EPOLLPRI);
        tellRoom();
    }
    if (m_bResetBehind && (m_wire.isEmpty() || size == 0)) {
        trace("a reset arrives at %s", peer.local.text().c_str());
        m_wire.clear();
        m_pPeer.reset();
        orphans().erase(shared_from_this());
        peer.receiveReset();
    } else if (m_wire.isEmpty() && m_bSendShut && (size == 0 || !kernel.chance(kernel.weather.cut))) {
        trace("the end arrives at %s", peer.local.text().c_str());
        m_bEndSent = true;
        orphans().erase(shared_from_this());
        peer.m_bEndReceived = true;
        peer.wake();
    } else if (size > 0) {
        deliverLater();
    }
}

// --- connections end -----------------------------------------------------------------------------------

void StreamSocket::receiveReset()
{
    const std::shared_ptr<File> self = shared_from_this();
    orphans().erase(self);
    m_wire.clear();
    m_pPeer.reset();
    if (m_state == eClosed || (m_bEndReceived && m_bEndSent))
        return;
    m_nError = m_bEndReceived ? EPIPE : ECONNRESET;
    m_state = eClosed;
    m_bSendShut = true;
    m_bEndReceived = true;
    wake();
}

void StreamSocket::reset()
{
    m_wire.shorten(Kernel::get().random().below(m_wire.size() + 1));
    m_bResetBehind = true;
    m_state = eClosed;
    m_bSendShut = true;
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
    if (m_state == eListening) {
        listeners().erase(local);
        for (const std::shared_ptr<StreamSocket>& waiting : m_accepted)
            waiting->reset();
        m_accepted.clear();
    }
    if (m_state == eConnected && (!m_received.isEmpty() || (m_linger.l_onoff != 0 && m_linger.l_linger == 0)))
        reset();
    else if (m_state == eConnected)
        shutdownWrite();
    if ((m_state != eClosed || m_bResetBehind) && !m_bEndSent && !m_pPeer.expired())
        orphans().insert(shared_from_this());
    m_received.clear();
    m_state = eClosed;
}

// --- options -------------------------------------------------------------------------------------------

int StreamSocket::setOption(int level, int name, const void* value, socklen_t size)
{
    int number = 0;
    std::memcpy(&number, value, std::min<std::size_t>(size, sizeof number));
    const auto doubled = 2 * static_cast<std::size_t>(std::clamp(number, 1152, 1 << 20));
    if (level == SOL_SOCKET && name == SO_RCVBUF)
        m_nReceiveLimit = doubled;
    else if (level == SOL_SOCKET && name == SO_SNDBUF)
        m_nSendLimit = doubled;
    else if (level == SOL_SOCKET && name == SO_LINGER)
        std::memcpy(&m_linger, value, sizeof m_linger);
    return 0;
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
