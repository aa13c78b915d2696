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
    int events = 0, eventsOfAHundred = 0;
    void incomingConnection(int descriptor) override
    {
        accepted.emplace_back(descriptor);
        if (accepted.size() == 100)
            eventsOfAHundred = events;
    }
    void customEvent(QEvent* event) override
    {
        ++events;
        NuvikaTcpServer::customEvent(event);
    }
};

std::vector<RawSocket> connectMany(int count, unsigned short port)
{
    std::vector<RawSocket> clients;
    while (count-- > 0)
        clients.push_back(RawSocket::connectTo(port));
    return clients;
}
} // namespace

TEST(TcpServer, ClosesWhatItDidNotHandOutAndRestartsOnItsPort)
{
    Server server, second;
    ASSERT_TRUE(server.listen(kLocal, 0));
    EXPECT_EQ(server.serverAddress(), kLocal);
    const unsigned short port = server.serverPort();
    RawSocket client = RawSocket::connectTo(port);
    ::usleep(20000);
    server.close();
    EXPECT_TRUE(server.serverAddress().isNull());
    EXPECT_TRUE(waitFor([&] { return client.atEnd(); })) << "an undelivered connection is closed";
    EXPECT_TRUE(server.accepted.empty());
    ASSERT_TRUE(server.listen(kLocal, port)) << "at once, without waiting for old connections";
    LogCapture log;
    EXPECT_FALSE(second.listen(kLocal, port)) << "a live listener keeps its port";
    EXPECT_TRUE(log.has(
        "NuvikaTcpServerThread::run(); failed binding listen socket: Address already in use", QtCriticalMsg));
    EXPECT_FALSE(second.listen(QHostAddress(), 0)) << "a null address is no address";
    EXPECT_FALSE(second.listen(QHostAddress(QHostAddress::LocalHostIPv6), 0));
}

TEST(TcpServer, ListensOnBothFamiliesAndTellsIPv4PeersAsSuch)
{
    const QHostAddress any(QHostAddress::Any), any4(QHostAddress::AnyIPv4), any6(QHostAddress::AnyIPv6);
    const QHostAddress local6(QHostAddress::LocalHostIPv6);
    const struct {
        QHostAddress listened, told;
        bool bTakesIPv4, bTakesIPv6;
    } rows[] = {{any, any, true, true}, {any6, any6, false, true}, {local6, local6, false, true},
        {any4, any4, true, false}, {kLocal, kLocal, true, false}, {any, any4, true, false}};
    for (const auto& row : rows) {
        const std::string where
            = row.listened.toString().toStdString() + " as " + row.told.toString().toStdString();
        Server server, second;
        if (row.listened == any && row.told == any4)
            seams::opening.arm(1, EAFNOSUPPORT); // a host without IPv6
        ASSERT_TRUE(server.listenAnyFamily(row.listened, 0)) << where;
        EXPECT_EQ(server.serverAddress(), row.told) << where;
        const unsigned short port = server.serverPort();
        for (const QHostAddress& target : {kLocal, local6}) {
            NuvikaTcpSocket client, accepted;
            client.connectToHost(target, port);
            ASSERT_TRUE(waitFor([&] { return client.getState() != NuvikaTcpSocket::eConnecting; }));
            const bool bTaken = target == kLocal ? row.bTakesIPv4 : row.bTakesIPv6;
            ASSERT_EQ(client.getState() == NuvikaTcpSocket::eConnected, bTaken) << where;
            if (!bTaken)
                continue;
            ASSERT_TRUE(waitFor([&] { return !server.accepted.empty(); })) << where;
            accepted.setSocketDescriptor(server.accepted.back().release());
            server.accepted.clear();
            EXPECT_EQ(accepted.peerAddress(), target)
                << where << accepted.peerAddress().toString().toStdString();
            EXPECT_EQ(accepted.localAddress(), target) << where;
            EXPECT_EQ(accepted.peerPort(), client.localPort());
        }
        EXPECT_FALSE(second.listenAnyFamily(row.listened, port)) << "a live listener keeps its port";
        server.close();
        EXPECT_TRUE(server.listenAnyFamily(row.listened, port)) << "at once: " << where;
    }
    Server server, second;
    EXPECT_FALSE(server.listenAnyFamily(QHostAddress(), 0)) << "a null address is no address";
    ASSERT_TRUE(server.listenAnyFamily(any, 0));
    EXPECT_FALSE(second.listen(kLocal, server.serverPort())) << "IPv4 is taken, too";
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

TEST(TcpServer, ListeningAgainOrDeletingItInAHandlerHandsOutNothingFurther)
{
    const int before = openDescriptors();
    // The thread objects come and go at few addresses: one round in some meets an old one.
    for (int round = 0; round < 20; ++round) {
        auto server = std::make_unique<NuvikaTcpServer>();
        std::vector<RawSocket> handed;
        QObject::connect(server.get(), &NuvikaTcpServer::newConnectionDesc, [&](int s) {
            handed.emplace_back(s);
            if (round < 10)
                server.reset();
            else
                ASSERT_TRUE(server->listen(kLocal, 0));
        });
        ASSERT_TRUE(server->listen(kLocal, 0));
        std::vector<RawSocket> clients = connectMany(5, server->serverPort());
        ASSERT_TRUE(waitFor([&] { return handed.size() == 1; }));
        settle(2);
        ASSERT_EQ(handed.size(), 1U);
        handed.clear();
        for (RawSocket& client : clients)
            ASSERT_TRUE(waitFor([&] { return client.atEnd(); })) << "none leaks";
    }
    EXPECT_TRUE(waitFor([&] { return openDescriptors() == before; })) << "a descriptor is left over";
}

TEST(TcpServer, HandsOutABurstInOrderAndLeavesToTheSystemWhatItsOwnerLagsBehind)
{
    constexpr int kBound = 4096;
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit enough{limit.rlim_max, limit.rlim_max};
    if (limit.rlim_max < 10500 || setrlimit(RLIMIT_NOFILE, &enough) != 0)
        GTEST_SKIP() << "needs 10,500 descriptors";
    Server server;
    ASSERT_TRUE(server.listen(kLocal, 0));
    seams::accepting.nCalls = 0;
    const std::vector<RawSocket> clients
        = connectMany(kBound + 500, server.serverPort()); // while this thread's loop does not run
    QElapsedTimer time;
    for (time.start(); seams::accepting.nCalls < kBound && time.elapsed() < 5000;)
        std::this_thread::yield();
    ::usleep(20000);
    EXPECT_LE(openDescriptors(), int(clients.size()) + kBound + 50) << "the list has no bound";
    EXPECT_TRUE(waitFor([&] { return server.accepted.size() == clients.size(); })) << server.accepted.size();
    EXPECT_EQ(server.eventsOfAHundred, 1) << "a burst costs one event";
    for (std::size_t i = 0; i < clients.size(); i += 97)
        ASSERT_EQ(server.accepted[i].peerPort(), clients[i].localPort()) << "accept order, " << i;
    setrlimit(RLIMIT_NOFILE, &limit);
}

TEST(TcpServer, AssertsItsOwnersThread)
{
    NuvikaTcpServer server;
    NuvikaTcpSocket socket;
    NuvikaUdpReceiver receiver;
    const LogCapture log;
    const auto use = [&] {
        server.isListening();
        socket.getState();
        receiver.socketDescriptor();
    };
    use();
    EXPECT_EQ(log.records().size(), 0U);
    std::thread(use).join();
    EXPECT_EQ(log.count("m_currentThreadId == QThread::currentThreadId()", QtCriticalMsg), 3);
}
