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
    for (int fd = 3; fd < 1024; ++fd) {
        RawSocket end(fd);
        const bool bIts = end.peerPort() == peer.localPort();
        (void)end.release();
        if (bIts)
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

// To that port, or from the descriptor of a connection that was accepted.
template <class Socket, class... Arguments>
Owner connection(Buffers buffers, int port, int descriptor, Arguments... arguments)
{
    auto socket = std::make_unique<Socket>(arguments...);
    if constexpr (std::is_same_v<Socket, NuvikaSslSocket>) {
        const QString own = port == 0 ? certificates().forLocalhost() : QString();
        EXPECT_TRUE(socket->initSsl(port == 0, NuvikaSslSocket::eSslAny12, own, QString(), QString()));
    }
    socket->setSystemBuffers(buffers);
    if (port != 0)
        socket->connectToHost(QStringLiteral("127.0.0.1"), static_cast<unsigned short>(port));
    else
        socket->setSocketDescriptor(descriptor);
    return socket;
}

template <class Client, class... Arguments>
Owner request(Buffers buffers, int port, int, Arguments... arguments)
{
    auto client = std::make_unique<Client>(
        QStringLiteral("127.0.0.1"), static_cast<unsigned short>(port), true, arguments...);
    client->setSystemBuffers(buffers);
    client->get(QStringLiteral("/"), QString(), QString(), true);
    return client;
}

// The last option that a connection gets before its buffers.
bool isTaken(const RawSocket& peer) { return option(ourEndOf(peer), IPPROTO_TCP, TCP_NODELAY) == 1; }
} // namespace

TEST(SystemBuffers, AreTheProfilesOrTheSystemsOwn)
{
    enum { eConnects = 1, eAccepts = 2 };
    const struct {
        const char* name;
        std::function<Owner(Buffers, int port, int descriptor)> begin;
        int directions;
    } rows[] = {{"NuvikaTcpSocket", connection<NuvikaTcpSocket>, eConnects | eAccepts},
        {"NuvikaTcpSocketQueued", connection<NuvikaTcpSocketQueued>, eConnects | eAccepts},
        {"NuvikaSslSocket", connection<NuvikaSslSocket>, eConnects | eAccepts},
        {"BufferSocketQueued",
            [](Buffers b, int port, int fd) { return connection<BufferSocketQueued>(b, port, fd, false); },
            eConnects | eAccepts},
        {"BufferSocketFixedFifo",
            [](Buffers b, int port, int fd) { return connection<BufferSocketFixedFifo>(b, port, fd, true); },
            eConnects | eAccepts},
        {"HttpClient", request<HttpClient>, eConnects},
        {"HttpsClient, plain", request<HttpsClient>, eConnects},
        {"HttpsClient, TLS",
            [](Buffers b, int port, int fd) {
                return request<HttpsClient>(
                    b, port, fd, NuvikaSslSocket::eSslAny12, QString(), QString(), QString());
            },
            eConnects},
        {"HttpResponseClient",
            [](Buffers b, int, int fd) { return std::make_unique<HttpResponseClient>(fd, false, b); },
            eAccepts}};
    for (const auto& row : rows) {
        for (const Buffers buffers : {NuvikaTcpSocket::eAsProfile, NuvikaTcpSocket::eTuned}) {
            if (row.directions & eConnects) {
                RawListener listener;
                const Owner owner = row.begin(buffers, listener.port(), -1);
                RawSocket peer;
                ASSERT_TRUE(waitFor([&] {
                    if (!peer.isOpen())
                        peer = listener.accept();
                    return peer.isOpen() && isTaken(peer);
                })) << row.name;
                expectBuffers(row.name, peer, buffers);
            }
            if (row.directions & eAccepts) {
                NuvikaTcpServer server;
                server.setSystemBuffers(buffers);
                Owner owner;
                QObject::connect(&server, &NuvikaTcpServer::newConnectionDesc,
                    [&](int descriptor) { owner = row.begin(buffers, 0, descriptor); });
                ASSERT_TRUE(server.listen(QHostAddress(QHostAddress::LocalHost), 0));
                const RawSocket peer = RawSocket::connectTo(server.serverPort());
                ASSERT_TRUE(waitFor([&] { return owner != nullptr; })) << row.name;
                expectBuffers(row.name, peer, buffers);
            }
        }
    }
}
