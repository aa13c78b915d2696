#include "sim/Peer.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include <netinet/udp.h>

namespace sim
{
Peer::Peer(std::shared_ptr<StreamSocket> socket)
    : m_pSocket(std::move(socket)), m_bConnecting(!m_pSocket->isConnected())
{
}

Peer::~Peer() { finish(); }

void Peer::start()
{
    if (m_pSocket == nullptr) // reset at once
        return;
    const std::weak_ptr<Peer> self = weak_from_this();
    m_pSocket->onWake = [self] {
        if (const auto peer = self.lock())
            peer->serveLater();
    };
    serveLater();
}

void Peer::serveLater()
{
    if (m_bDue || m_pSocket == nullptr)
        return;
    m_bDue = true;
    const std::weak_ptr<Peer> self = weak_from_this();
    Scheduler::get().after(Kernel::get().delay() / 4, [self] {
        if (const auto peer = self.lock())
            peer->serve();
    });
}

void Peer::serve()
{
    m_bDue = false;
    if (m_pSocket == nullptr || m_pSocket->isConnecting())
        return;
    if (m_bConnecting && m_pSocket->isConnected()) {
        m_bConnecting = false;
        if (onConnected)
            onConnected();
    }
    flush();
    if (!m_bStalled && m_pSocket != nullptr && !m_bOver && readSome())
        serveLater();
}

// True when there may be more.
bool Peer::readSome()
{
    std::string bytes(Kernel::get().random().size(262144), '\0');
    const iovec range{bytes.data(), bytes.size()};
    const long got = m_pSocket->receive(&range, 1, MSG_DONTWAIT);
    if (got > 0 && onBytes)
        onBytes(QByteArray(bytes.data(), static_cast<int>(got)));
    if (got == 0 && !std::exchange(m_bEndSeen, true) && onEnd)
        onEnd();
    if (got < 0 && got != -EAGAIN) {
        m_bOver = true;
        if (onFailure)
            onFailure(static_cast<int>(-got));
    }
    return got > 0;
}

void Peer::flush()
{
    while (m_pSocket != nullptr && m_out.size() > 0) {
        const iovec range{const_cast<char*>(m_out.data()), m_out.size()};
        const long sent = m_pSocket->send(&range, 1, MSG_DONTWAIT);
        if (sent == -EAGAIN)
            return;
        if (sent < 0) { // reading tells why
            m_out.clear();
            break;
        }
        m_out.drop(static_cast<std::size_t>(sent));
    }
    if (m_pSocket == nullptr || m_bConnecting)
        return;
    if (std::exchange(m_bEnd, false))
        m_pSocket->shutdownWrite();
    if (m_bClose)
        finish();
}

void Peer::finish()
{
    if (m_pSocket == nullptr)
        return;
    m_pSocket->onWake = nullptr;
    std::exchange(m_pSocket, nullptr)->released();
}

void Peer::write(const QByteArray& bytes)
{
    m_out.append(bytes.constData(), static_cast<std::size_t>(bytes.size()));
    serveLater();
}

void Peer::writeUrgent(char byte)
{
    flush();
    const iovec range{&byte, 1};
    if (m_pSocket == nullptr || m_out.size() > 0 || m_pSocket->send(&range, 1, MSG_DONTWAIT | MSG_OOB) < 0)
        write(QByteArray(1, byte));
}

void Peer::end()
{
    m_bEnd = true;
    serveLater();
}

void Peer::close()
{
    m_bClose = true;
    serveLater();
}

void Peer::reset()
{
    if (m_pSocket == nullptr)
        return;
    m_pSocket->reset();
    finish();
}

void Peer::stall(bool bStalled)
{
    m_bStalled = bStalled;
    serveLater();
}

// --- datagrams -----------------------------------------------------------------------------------------

UdpPeer::UdpPeer(const Address& address) : m_pSocket(std::make_shared<DatagramSocket>(address.nFamily))
{
    const int on = 1;
    const int off = 0;
    m_pSocket->setOption(SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    m_pSocket->setOption(IPPROTO_IP, IP_MULTICAST_ALL, &off, sizeof off);
    m_pSocket->local = address;
    m_pSocket->onRun = [this](const Run& run) {
        const std::size_t step = run.nSegment > 0 ? run.nSegment : std::max<std::size_t>(run.bytes.size(), 1);
        for (std::size_t at = 0; onDatagram && (at == 0 || at < run.bytes.size()); at += step)
            onDatagram(run.from, QByteArray::fromStdString(run.bytes.substr(at, step)));
    };
}

void UdpPeer::send(const Address& to, const QByteArray& bytes, std::size_t segment)
{
    m_pSocket->transmit(to, bytes.toStdString(), segment);
}

void UdpPeer::join(const Address& group) { m_pSocket->join(group.withPort(0)); }

// --- listening -----------------------------------------------------------------------------------------

PeerListener::PeerListener(
    const Address& address, std::function<void(const std::shared_ptr<Peer>&)> accepted, int backlog)
    : m_pSocket(std::make_shared<StreamSocket>(address.nFamily))
{
    m_pSocket->local = address;
    if (m_pSocket->listen(backlog) != 0)
        fail("%s has a listener already", address.text().c_str());
    const std::weak_ptr<StreamSocket> listener = m_pSocket;
    m_pSocket->onWake = [listener, accepted] {
        Scheduler::get().after(Kernel::get().delay(), [listener, accepted] {
            const auto socket = listener.lock();
            while (auto connection = socket ? socket->takeAccepted() : nullptr) {
                const auto peer = std::make_shared<Peer>(std::move(connection));
                accepted(peer);
                peer->start();
            }
        });
    };
}

PeerListener::~PeerListener()
{
    m_pSocket->onWake = nullptr;
    m_pSocket->released();
}
} // namespace sim
