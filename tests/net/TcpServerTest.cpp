#include "support/EventLoop.h"
#include "support/LogCapture.h"
#include "support/RawPeer.h"
#include "support/Seams.h"

#include <KepNuvikaUtil/NuvikaTcpServer.h>
#include <KepNuvikaUtil/NuvikaTcpSocket.h>
#include <KepNuvikaUtil/NuvikaUdpReceiver.h>

#include <QtCore/QEvent>

#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <thread>
#include <vector>

#include <sys/resource.h>

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

TEST(TcpServer, PausesAndTellsOnceWhileAcceptingFails)
{
    for (const int error : {EMFILE, ENFILE, ENOBUFS, ENOMEM, EPERM}) {
        Server server;
        ASSERT_TRUE(server.listen(kLocal, 0));
        LogCapture log;
        seams::accepting.nCalls = 0;
        seams::accepting.arm(1 << 30, error);
        RawSocket client = RawSocket::connectTo(server.serverPort());
        settle(250);
        EXPECT_LE(seams::accepting.nCalls, 5) << std::strerror(error) << ": it pauses between its tries";
        seams::accepting.arm(0, 0);
        EXPECT_TRUE(waitFor([&] { return server.accepted.size() == 1; })) << "the connection waited";
        EXPECT_EQ(
            log.count("NuvikaTcpServerThread::run(); WSAAccept failed on listen socket: ", QtWarningMsg), 1)
            << std::strerror(error);
    }
}

TEST(TcpServer, ListeningAgainInAHandlerHandsOutNothingOfTheClosedListening)
{
    // The thread objects come and go at few addresses: one round in some meets an old one.
    for (int round = 0; round < 20; ++round) {
        NuvikaTcpServer server;
        std::vector<RawSocket> handed;
        QObject::connect(&server, &NuvikaTcpServer::newConnectionDesc, [&](int s) {
            handed.emplace_back(s);
            ASSERT_TRUE(server.listen(kLocal, 0));
        });
        ASSERT_TRUE(server.listen(kLocal, 0));
        std::vector<RawSocket> clients;
        for (int i = 0; i < 5; ++i)
            clients.push_back(RawSocket::connectTo(server.serverPort()));
        ASSERT_TRUE(waitFor([&] { return handed.size() == 1; }));
        settle(2);
        ASSERT_EQ(handed.size(), 1U);
    }
}

TEST(TcpServer, AnOwnerThatLagsLeavesTheRestToTheSystem)
{
    constexpr int kBound = 4096;
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit enough{limit.rlim_max, limit.rlim_max};
    if (limit.rlim_max < 10500 || setrlimit(RLIMIT_NOFILE, &enough) != 0)
        GTEST_SKIP() << "needs 10,500 descriptors";
    Server server;
    ASSERT_TRUE(server.listen(kLocal, 0));
    std::vector<RawSocket> clients;
    const auto connectUntil = [&](std::size_t count) {
        while (clients.size() < count)
            clients.push_back(RawSocket::connectTo(server.serverPort()));
    };
    seams::accepting.nCalls = 0;
    connectUntil(kBound + 500); // while this thread's loop does not run
    QElapsedTimer time;
    for (time.start(); seams::accepting.nCalls < kBound && time.elapsed() < 5000;)
        std::this_thread::yield();
    ::usleep(20000);
    EXPECT_LE(openDescriptors(), int(clients.size()) + kBound + 50) << "the list has no bound";
    EXPECT_TRUE(waitFor([&] { return server.accepted.size() == clients.size(); })) << server.accepted.size();
    for (std::size_t i = 0; i < clients.size(); i += 97)
        ASSERT_EQ(peerPort(server.accepted[i]), localPort(clients[i])) << "accept order, " << i;
    setrlimit(RLIMIT_NOFILE, &limit);
}

TEST(TcpServer, AssertsItsOwnersThread)
{
    const char* const text = "m_currentThreadId == QThread::currentThreadId()";
    NuvikaTcpServer server;
    NuvikaTcpSocket socket;
    NuvikaUdpReceiver receiver;
    const LogCapture log;
    std::thread([&] {
        server.isListening();
        socket.getState();
        receiver.socketDescriptor();
    }).join();
    EXPECT_EQ(log.count(text, QtCriticalMsg), 3);
    server.isListening();
    EXPECT_EQ(log.count(text), 3);
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
