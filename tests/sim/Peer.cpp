#include "sim/Peer.h"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace sim
{
void Peer::start()
{
    if (m_pSocket == nullptr) // reset at once
        return;
    m_pSocket->onWake = [this] { serveLater(); };
    serveLater();
}

void Peer::serveLater()
{
    if (m_pSocket != nullptr && !std::exchange(m_bDue, true))
        Scheduler::get().after(Kernel::get().delay() / 4, [this] { serve(); });
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
    QByteArray bytes(static_cast<int>(Kernel::get().random().size(262144)), Qt::Uninitialized);
    Message message(bytes.constData(), static_cast<std::size_t>(bytes.size()));
    long got = m_pSocket->receive(&message, 0);
    if (got == 0)
        got = m_nSendError;
    if (got > 0 && onBytes)
        onBytes(bytes.left(static_cast<int>(got)));
    if (got == 0 && !std::exchange(m_bEndSeen, true) && onEnd)
        onEnd();
    if (got < 0 && got != -EAGAIN) {
        m_bOver = true;
        if (onFailure)
            onFailure(static_cast<int>(-got));
        finish();
    }
    return got > 0;
}

void Peer::flush()
{
    while (m_pSocket != nullptr && !m_out.empty()) {
        const long sent = m_pSocket->send(Message(m_out.data(), m_out.size()), 0);
        if (sent == -EAGAIN)
            return;
        m_nSendError = std::min(sent, 0L); // reading tells it
        m_out.erase(0, sent < 0 ? m_out.size() : static_cast<std::size_t>(sent));
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
    if (m_pSocket != nullptr)
        std::exchange(m_pSocket, nullptr)->released();
    std::string().swap(m_out);
}

void Peer::write(const QByteArray& bytes)
{
    m_out += bytes.toStdString();
    serveLater();
}

void Peer::writeUrgent(char byte)
{
    flush();
    if (m_pSocket == nullptr || !m_out.empty() || m_pSocket->send(Message(&byte, 1), MSG_OOB) < 0)
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
    if (m_pSocket != nullptr)
        m_pSocket->reset();
    finish();
}

void Peer::stall(bool bStalled)
{
    m_bStalled = bStalled;
    serveLater();
}

UdpPeer::UdpPeer(const Address& address) : m_socket(Kernel::get().make<DatagramSocket>(address.nFamily))
{
    const int on = 1;
    const int off = 0;
    m_socket.setOption(SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    m_socket.setOption(IPPROTO_IP, IP_MULTICAST_ALL, &off, sizeof off);
    m_socket.local = address;
    m_socket.onRun = [this](const Run& run) {
        for (const std::string& bytes : run.datagrams()) {
            if (onDatagram)
                onDatagram(run.from, QByteArray::fromStdString(bytes));
        }
    };
}

void UdpPeer::send(const Address& to, const QByteArray& bytes, std::size_t segment)
{
    m_socket.transmit(to, {{}, bytes.toStdString(), segment});
}
} // namespace sim
