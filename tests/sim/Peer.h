// The other side, where it is not the library: an object in the kernel that gets bytes and writes bytes, cut
// and delayed by the same weather. Its handlers run in the kernel, between two steps of the library's
// threads: they may do with peers what they like, and never call the library.
#pragma once

#include "sim/DatagramSockets.h"
#include "sim/StreamSockets.h"

#include <QtCore/QByteArray>

#include <functional>
#include <memory>

namespace sim
{
// One end of a connection.
class Peer : public std::enable_shared_from_this<Peer>
{
public:
    explicit Peer(StreamSocket& socket) : m_pSocket(&socket), m_bConnecting(!socket.isConnected()) { }

    std::function<void()> onConnected; // of one that dials
    std::function<void(const QByteArray&)> onBytes; // cut anywhere
    std::function<void()> onEnd; // nothing more will come; it may still be written
    std::function<void(int error)> onFailure; // refused (ECONNREFUSED, ETIMEDOUT) or reset

    // Leaves as the other side takes it; never too much.
    void write(const QByteArray& bytes);
    void writeUrgent(char byte); // in order
    void end(); // behind what was written
    void close(); // so, and whatever still comes is answered by a reset
    void reset(); // at once
    void stall(bool bStalled); // reads nothing, so that the other side's buffers fill

    bool isOver() const { return m_pSocket == nullptr || m_bOver; }
    std::size_t unsent() const { return m_out.size(); }

    // Of whoever made it:
    void start(); // once the handlers are set
    void finish(); // no handler is called any more

private:
    void serveLater();
    void serve();
    void flush();
    bool readSome();

    StreamSocket* m_pSocket; // null when it is finished
    std::string m_out;
    long m_nSendError = 0;
    bool m_bConnecting;
    bool m_bDue = false;
    bool m_bStalled = false;
    bool m_bEnd = false; // once everything has left,
    bool m_bClose = false; // or so
    bool m_bEndSeen = false;
    bool m_bOver = false;
};

class UdpPeer
{
public:
    explicit UdpPeer(const Address& address);
    ~UdpPeer() { m_socket.released(); }
    UdpPeer(const UdpPeer&) = delete;
    UdpPeer& operator=(const UdpPeer&) = delete;

    std::function<void(const Address& from, const QByteArray& bytes)> onDatagram;
    // With a segment size: a run of datagrams that may arrive as one.
    void send(const Address& to, const QByteArray& bytes, std::size_t segment = 0);
    void join(const Address& group) { m_socket.join(group.withPort(0)); }
    const Address& address() const { return m_socket.local; }

private:
    DatagramSocket& m_socket;
};
} // namespace sim
