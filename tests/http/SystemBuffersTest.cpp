#include "support/Certificates.h"
#include "support/EventLoop.h"
#include "support/RawPeer.h"

#include <KepNuvikaUtil/BufferSocketFixedFifo.h>
#include <KepNuvikaUtil/BufferSocketQueued.h>
#include <KepNuvikaUtil/HttpClient.h>
#include <KepNuvikaUtil/HttpResponseClient.h>
#include <KepNuvikaUtil/HttpsClient.h>
#include <KepNuvikaUtil/NuvikaSslSocket.h>
#include <KepNuvikaUtil/NuvikaTcpServer.h>
#include <KepNuvikaUtil/NuvikaTcpSocketQueued.h>

#include <functional>
#include <gtest/gtest.h>
#include <memory>

#include <netinet/tcp.h>

namespace
{
using Buffers = NuvikaTcpSocket::SYSTEM_BUFFERS;
using Owner = std::unique_ptr<QObject>;
constexpr int kProfilesReceiveBuffer = 2 * 65536; // the system doubles what it is told
constexpr int kProfilesSegment = 16384;

int option(int fd, int level, int name)
{
    int value = -1;
    socklen_t size = sizeof value;
    getsockopt(fd, level, name, &value, &size);
    return value;
}

// The connection's end that the library holds: the descriptor that has the peer as its peer.
int ourEndOf(const RawSocket& peer)
{
    sockaddr_in theirs{};
    socklen_t size = sizeof theirs;
    getsockname(peer.fd(), reinterpret_cast<sockaddr*>(&theirs), &size);
    for (int fd = 3; fd < 1024; ++fd) {
        sockaddr_in address{};
        size = sizeof address;
        if (getpeername(fd, reinterpret_cast<sockaddr*>(&address), &size) == 0
            && address.sin_port == theirs.sin_port)
            return fd;
    }
    return -1;
}

int systemsReceiveBuffer()
{
    const RawListener listener;
    return option(RawSocket::connectTo(listener.port()).fd(), SOL_SOCKET, SO_RCVBUF);
}

void expectBuffers(const char* name, const RawSocket& peer, Buffers buffers)
{
    const bool bTuned = buffers == NuvikaTcpSocket::eTuned;
    const int segment = option(peer.fd(), IPPROTO_TCP, TCP_MAXSEG);
    EXPECT_EQ(option(ourEndOf(peer), SOL_SOCKET, SO_RCVBUF),
        bTuned ? systemsReceiveBuffer() : kProfilesReceiveBuffer)
        << name << (bTuned ? ": the buffer is not the system's own" : ": the buffer is not the profile's");
    EXPECT_EQ(segment > kProfilesSegment, bTuned) << name << ": the peer's segments have " << segment;
}

const QString& localHost()
{
    static const QString host = QStringLiteral("127.0.0.1");
    return host;
}

template <class Socket, class... Arguments>
Owner connecting(Buffers buffers, unsigned short port, Arguments... arguments)
{
    auto socket = std::make_unique<Socket>(arguments...);
    socket->setSystemBuffers(buffers);
    socket->connectToHost(localHost(), port);
    return socket;
}

template <class Client, class... Arguments>
Owner requesting(Buffers buffers, unsigned short port, Arguments... arguments)
{
    auto client = std::make_unique<Client>(localHost(), port, true, arguments...);
    client->setSystemBuffers(buffers);
    client->get(QStringLiteral("/"), QString(), QString(), true);
    return client;
}

template <class Socket, class... Arguments>
Owner accepting(Buffers buffers, int descriptor, Arguments... arguments)
{
    auto socket = std::make_unique<Socket>(arguments...);
    socket->setSystemBuffers(buffers);
    socket->setSocketDescriptor(descriptor);
    return socket;
}

std::unique_ptr<NuvikaSslSocket> tlsSocket(bool bServer, Buffers buffers)
{
    auto socket = std::make_unique<NuvikaSslSocket>();
    EXPECT_TRUE(socket->initSsl(bServer, NuvikaSslSocket::eSslAny12,
        bServer ? certificates().forLocalhost() : QString(), QString(), QString()));
    socket->setSystemBuffers(buffers);
    return socket;
}

Owner connectingTls(Buffers buffers, unsigned short port)
{
    auto socket = tlsSocket(false, buffers);
    socket->connectToHost(localHost(), port);
    return socket;
}

Owner acceptingTls(Buffers buffers, int descriptor)
{
    auto socket = tlsSocket(true, buffers);
    socket->setSocketDescriptor(descriptor);
    return socket;
}

Owner requestingTls(Buffers buffers, unsigned short port)
{
    return requesting<HttpsClient>(
        buffers, port, NuvikaSslSocket::eSslAny12, QString(), QString(), QString());
}

Owner acceptingHttp(Buffers buffers, int descriptor)
{
    return std::make_unique<HttpResponseClient>(descriptor, false, buffers);
}

// The last option that a connection gets before its buffers.
bool isTaken(const RawSocket& peer) { return option(ourEndOf(peer), IPPROTO_TCP, TCP_NODELAY) == 1; }

constexpr Buffers kBoth[] = {NuvikaTcpSocket::eAsProfile, NuvikaTcpSocket::eTuned};
} // namespace

TEST(SystemBuffers, OfConnectionsThatAreMadeAreTheProfilesOrTheSystemsOwn)
{
    const struct {
        const char* name;
        std::function<Owner(Buffers, unsigned short port)> begin;
    } rows[] = {
        {"NuvikaTcpSocket", connecting<NuvikaTcpSocket>},
        {"NuvikaTcpSocketQueued", connecting<NuvikaTcpSocketQueued>},
        {"NuvikaSslSocket", connectingTls},
        {"BufferSocketQueued",
            [](Buffers b, auto port) { return connecting<BufferSocketQueued>(b, port, false); }},
        {"BufferSocketFixedFifo",
            [](Buffers b, auto port) { return connecting<BufferSocketFixedFifo>(b, port, true); }},
        {"HttpClient", requesting<HttpClient>},
        {"HttpsClient, plain", requesting<HttpsClient>},
        {"HttpsClient, TLS", requestingTls},
    };
    for (const auto& row : rows) {
        for (const Buffers buffers : kBoth) {
            RawListener listener;
            const Owner owner = row.begin(buffers, listener.port());
            RawSocket peer;
            ASSERT_TRUE(waitFor([&] {
                if (!peer.isOpen())
                    peer = listener.accept();
                return peer.isOpen() && isTaken(peer);
            })) << row.name;
            expectBuffers(row.name, peer, buffers);
        }
    }
}

TEST(SystemBuffers, OfConnectionsThatAreAcceptedAreTheProfilesOrTheSystemsOwn)
{
    const struct {
        const char* name;
        std::function<Owner(Buffers, int descriptor)> take;
    } rows[] = {
        {"NuvikaTcpSocket", accepting<NuvikaTcpSocket>},
        {"NuvikaTcpSocketQueued", accepting<NuvikaTcpSocketQueued>},
        {"NuvikaSslSocket", acceptingTls},
        {"BufferSocketQueued", [](Buffers b, int fd) { return accepting<BufferSocketQueued>(b, fd, false); }},
        {"BufferSocketFixedFifo",
            [](Buffers b, int fd) { return accepting<BufferSocketFixedFifo>(b, fd, true); }},
        {"HttpResponseClient", acceptingHttp},
    };
    for (const auto& row : rows) {
        for (const Buffers buffers : kBoth) {
            NuvikaTcpServer server;
            server.setSystemBuffers(buffers);
            Owner owner;
            QObject::connect(&server, &NuvikaTcpServer::newConnectionDesc,
                [&](int descriptor) { owner = row.take(buffers, descriptor); });
            ASSERT_TRUE(server.listen(QHostAddress(QHostAddress::LocalHost), 0));
            const RawSocket peer = RawSocket::connectTo(server.serverPort());
            ASSERT_TRUE(waitFor([&] { return owner != nullptr; })) << row.name;
            expectBuffers(row.name, peer, buffers);
        }
    }
}
