#pragma once

#include <KepNuvikaUtil/Buffer.h>
#include <KepNuvikaUtil/Export.h>
#include <KepNuvikaUtil/SocketCalls.h>

#include <QtCore/QString>
#include <QtNetwork/QAbstractSocket>
#include <QtNetwork/QHostAddress>

#include <memory>

/// Sends datagrams, unicast or multicast, from one UDP socket, of IPv4 unless told otherwise.
///
/// The socket that the constructor makes never blocks: a send that finds its buffer full fails. The one that
/// replaces it after close() or a failed construction has the system's own buffer size, and sendTo() waits
/// there while it is full; sendMany() and sendPackets() never wait.
///
/// Copies share the socket, and that it is bound; each has its own errorString(). The last of them closes it.
/// close() lets go of one copy's share: the others go on sending.
///
/// Threads: one at a time for all copies together; no event loop is needed. Calls are made at once, on the
/// calling thread; only a sendTo() that has to wait does so on a worker.
///
/// Errors: false, with errorString(). The socket stays usable; after a close, or where construction failed,
/// the next bind, option or send makes a new one.
class KEPNUVIKAUTIL_EXPORT NuvikaUdpSender
{
public:
    NuvikaUdpSender();
    NuvikaUdpSender(const NuvikaUdpSender& other) = default;
    NuvikaUdpSender& operator=(const NuvikaUdpSender& other) = default;
    ~NuvikaUdpSender() = default;

    bool bind(const NuvikaLLSock::ADDR_V4_V6& address);
    bool bind(unsigned short port, const QHostAddress& address);
    /// The first send binds to a free port. True when the whole datagram was taken by the system.
    bool sendTo(const void* data, int size, const NuvikaLLSock::ADDR_V4_V6& destination);

    /// The interface, by its address, that multicasts leave by; a null address changes nothing.
    bool setMulticastInterface(const QHostAddress& interfaceAddress);
    bool setMulticastTtl(unsigned int ttl);
    bool setTosBits(unsigned int tos);
    /// 65536 bytes at first.
    bool setSendBufferSize(int bytes);

    void close();
    const QString& errorString();
    /// Null and 0 without a socket.
    QHostAddress localAddress();
    unsigned short localPort() const;

    /// Sends each buffer as a datagram of its own, such as the packets of a picture, and never waits. One
    /// system call takes up to 1024; neighbours of one size (64 of them and 65507 bytes at most, each within
    /// the route's MTU, the last may be shorter) pass through the system as one, which costs a fifth. Returns
    /// how many went, in order from the first; the socket's buffer may be full for the rest, and
    /// errorString() tells.
    int sendMany(
        const KepNuvikaUtil::BUFFER* datagrams, int count, const NuvikaLLSock::ADDR_V4_V6& destination);

    /// As sendMany(), with datagrams that lie in pieces, so that an RTP sender need not copy a picture into
    /// its packets: \a count datagrams of \a partsEach (1 to 16) consecutive parts, for instance a head and
    /// a piece of the picture where it lies.
    int sendPackets(const KepNuvikaUtil::BUFFER* parts, int partsEach, int count,
        const NuvikaLLSock::ADDR_V4_V6& destination);

    /// With QAbstractSocket::IPv6Protocol a sender to IPv6 addresses only; with any other an IPv4 one. Of
    /// multicasts the TTL is the hop limit, and an interface may also be named by a scope id; link-local
    /// destinations need theirs in the record (sin6_scope_id).
    explicit NuvikaUdpSender(QAbstractSocket::NetworkLayerProtocol family);

private:
    struct Socket; // what copies share

    int descriptor() const;
    bool openSocket(const char* failureText);
    bool checkSock();
    bool checkBound();
    bool setMulticastInterface6(const QHostAddress& interfaceAddress);
    bool setOption(int level, int name, const void* value, int size, const char* failureText);

    std::shared_ptr<Socket> m_pSocket; // null when closed
    QString m_errorString;
    bool m_bIPv6 = false;
};
