#include "support/EventLoop.h"
#include "support/LogCapture.h"
#include "support/RawPeer.h"
#include "support/Seams.h"

#include <KepNuvikaUtil/NuvikaTcpServer.h>
#include <KepNuvikaUtil/NuvikaTcpSocket.h>

#include <QtCore/QEvent>

#include <gtest/gtest.h>
#include <memory>
#include <vector>

namespace
{
const QHostAddress kLocal(QHostAddress::LocalHost);

struct Server : NuvikaTcpServer {
    std::vector<RawSocket> accepted;
    int events = 0;
    void incomingConnection(int descriptor) override { accepted.emplace_back(descriptor); }
    void customEvent(QEvent* event) override
    {
        ++events;
        NuvikaTcpServer::customEvent(event);
    }
};

unsigned short localPort(const RawSocket& socket)
{
    sockaddr_in address{};
    socklen_t size = sizeof address;
    getsockname(socket.fd(), reinterpret_cast<sockaddr*>(&address), &size);
    return ntohs(address.sin_port);
}

unsigned short peerPort(const RawSocket& socket)
{
    sockaddr_in address{};
    socklen_t size = sizeof address;
    getpeername(socket.fd(), reinterpret_cast<sockaddr*>(&address), &size);
    return ntohs(address.sin_port);
}
} // namespace

TEST(TcpServer, HandsOutABurstInOrderWithOneEvent)
{
    Server server;
    EXPECT_EQ(server.serverPort(), 0);
    ASSERT_TRUE(server.listen(kLocal, 0));
    EXPECT_TRUE(server.isListening());
    EXPECT_EQ(server.serverAddress(), kLocal);
    std::vector<RawSocket> clients;
    for (int i = 0; i < 100; ++i) {
        clients.push_back(RawSocket::connectTo(server.serverPort()));
        ASSERT_TRUE(clients.back().isOpen());
    }
    ::usleep(50000); // the accept thread takes them all while this loop does not run
    ASSERT_TRUE(waitFor([&] { return server.accepted.size() == clients.size(); }));
    EXPECT_LE(server.events, 2) << "a burst costs one event";
    for (std::size_t i = 0; i < clients.size(); ++i)
        ASSERT_EQ(peerPort(server.accepted[i]), localPort(clients[i])) << "accept order, " << i;
}

TEST(TcpServer, ClosesWhatItDidNotHandOutAndRestartsOnItsPort)
{
    const int before = openDescriptors();
    {
        Server server;
        ASSERT_TRUE(server.listen(kLocal, 0));
        const unsigned short port = server.serverPort();
        RawSocket client = RawSocket::connectTo(port);
        ::usleep(20000);
        server.close();
        EXPECT_FALSE(server.isListening());
        EXPECT_EQ(server.serverPort(), 0);
        EXPECT_TRUE(server.serverAddress().isNull());
        EXPECT_TRUE(waitFor([&] { return client.atEnd(); })) << "an undelivered connection is closed";
        settle(10);
        EXPECT_TRUE(server.accepted.empty());
        ASSERT_TRUE(server.listen(kLocal, port)) << "at once, without waiting for old connections";
        Server second;
        LogCapture log;
        EXPECT_FALSE(second.listen(kLocal, port)) << "a live listener keeps its port";
        EXPECT_TRUE(
            log.has("NuvikaTcpServerThread::run(); failed binding listen socket: Address already in use",
                QtCriticalMsg));
        EXPECT_FALSE(second.listen(QHostAddress(), 0)) << "a null address is no address";
        EXPECT_FALSE(second.listen(QHostAddress(QHostAddress::LocalHostIPv6), 0));
    }
    EXPECT_TRUE(waitFor([&] { return openDescriptors() == before; })) << "a descriptor is left over";
}

TEST(TcpServer, RunsOutOfDescriptorsAndResumes)
{
    Server server;
    ASSERT_TRUE(server.listen(kLocal, 0));
    LogCapture log;
    seams::accepting.nCalls = 0;
    seams::accepting.arm(3, EMFILE);
    RawSocket client = RawSocket::connectTo(server.serverPort());
    ASSERT_TRUE(waitFor([&] { return server.accepted.size() == 1; }));
    EXPECT_EQ(
        log.count("NuvikaTcpServerThread::run(); WSAAccept failed on listen socket: Too many open files",
            QtWarningMsg),
        1);
    EXPECT_LE(seams::accepting.nCalls, 6) << "it pauses between its tries";
}

TEST(TcpServer, MayBeDeletedByAHandlerOfItsSignal)
{
    const int before = openDescriptors();
    auto server = std::make_unique<NuvikaTcpServer>();
    int handed = 0;
    QObject::connect(server.get(), &NuvikaTcpServer::newConnectionDesc, [&](int descriptor) {
        RawSocket owner(descriptor);
        ++handed;
        server.reset();
    });
    ASSERT_TRUE(server->listen(kLocal, 0));
    std::vector<RawSocket> clients;
    for (int i = 0; i < 5; ++i)
        clients.push_back(RawSocket::connectTo(server->serverPort()));
    ::usleep(30000);
    ASSERT_TRUE(waitFor([&] { return handed == 1; }));
    for (RawSocket& client : clients)
        EXPECT_TRUE(waitFor([&] { return client.atEnd(); })) << "none leaks";
    clients.clear();
    EXPECT_TRUE(waitFor([&] { return openDescriptors() == before; })) << "a descriptor is left over";
}
