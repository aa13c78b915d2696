#include "support/EventLoop.h"
#include "support/LogCapture.h"
#include "support/OwnThread.h"
#include "support/RawPeer.h"
#include "support/Seams.h"

#include <KepNuvikaUtil/NuvikaTcpSocket.h>
#include <KepNuvikaUtil/NuvikaTcpSocketQueued.h>

#include <gtest/gtest.h>
#include <memory>
#include <thread>
#include <type_traits>

using Marker = NuvikaTcpSocket::QueuedConnNotAllowed;

namespace
{
// A socket with a raw peer, and a log of its signals.
template <class Socket>
struct Connection {
    RawListener listener;
    RawSocket peer;
    std::unique_ptr<Socket> socket;
    QStringList events;
    QByteArray received;

    explicit Connection(std::unique_ptr<Socket> s) : socket(std::move(s))
    {
        QObject::connect(socket.get(), &Socket::connected, [this] { events << QStringLiteral("connected"); });
        QObject::connect(
            socket.get(), &Socket::disconnected, [this] { events << QStringLiteral("disconnected"); });
        QObject::connect(socket.get(), &Socket::error,
            [this](int code) { events << QStringLiteral("error %1").arg(code); });
        QObject::connect(socket.get(), &Socket::dataReceived,
            [this](const char* data, int size, Marker) { received.append(data, size); });
    }
    void openAgain()
    {
        socket->close();
        peer = RawSocket();
        open();
    }
    void open()
    {
        socket->connectToHost(QStringLiteral("127.0.0.1"), listener.port());
        ASSERT_TRUE(waitFor([&] {
            if (!peer.isOpen())
                peer = listener.accept();
            return peer.isOpen() && socket->getState() == NuvikaTcpSocket::eConnected;
        }));
    }
};

struct Tcp : Connection<NuvikaTcpSocket> {
    explicit Tcp(
        NuvikaTcpSocket::LOAD_PROFILE profile = NuvikaTcpSocket::eMedium, int hint = 0, bool bSingle = false)
        : Connection(std::make_unique<NuvikaTcpSocket>(profile, profile, hint, bSingle))
    {
        QObject::connect(socket.get(), &NuvikaTcpSocket::sigCanSend, [this] { ++canSends; });
    }
    int canSends = 0;
};

struct Queued : Connection<NuvikaTcpSocketQueued> {
    Queued() : Connection(std::make_unique<NuvikaTcpSocketQueued>()) { }
};
} // namespace

TEST(TcpSocket, NamesItsPeerAndTakesNoOtherConnection)
{
    Tcp c;
    LogCapture log;
    c.open();
    EXPECT_EQ(c.socket->peerAddress(), QHostAddress(QHostAddress::LocalHost));
    EXPECT_NE(c.socket->localPort(), 0);
    EXPECT_EQ(c.socket->peerName(), QStringLiteral("127.0.0.1:%1").arg(c.listener.port()));
    c.socket->connectToHost(QStringLiteral("127.0.0.1"), 1);
    c.socket->setSocketDescriptor(0);
    EXPECT_TRUE(log.has("NuvikaTcpSocket::connectToHost() failed; invalid state", QtWarningMsg));
    EXPECT_TRUE(log.has("NuvikaTcpSocket::setSocketDescriptor() failed: invalid state", QtWarningMsg));
    EXPECT_EQ(QMetaType::type("NuvikaTcpSocket::QueuedConnNotAllowed"), 0) << "bytes could be queued";
    c.peer.close();
    ASSERT_TRUE(waitFor([&] { return c.events.size() == 2; }));
    EXPECT_FALSE(c.socket->sendData("x", 1));
}

TEST(TcpSocket, ABlockPastTheBoundIsTakenWholeAndTheNextRefused)
{
    Tcp c(NuvikaTcpSocket::eMedium, 10000);
    EXPECT_EQ(c.socket->bytesToSend(), 0);
    c.open();
    ASSERT_TRUE(waitFor([&] { return c.canSends == 1; }));
    const QByteArray data(8 << 20, 'x'); // more than the queue and the system hold
    EXPECT_TRUE(c.socket->sendData(data.constData(), data.size()));
    settle(20);
    const qint64 left = c.socket->bytesToSend();
    EXPECT_TRUE(left > data.size() / 2 && left < data.size()) << left << " that the system has not taken";
    EXPECT_FALSE(c.socket->canSend());
    EXPECT_FALSE(c.socket->sendData("x", 1));
    EXPECT_EQ(c.socket->bytesToSend(), left) << "a refused block does not count";
    EXPECT_FALSE(c.socket->sendData("", 0)) << "a size of 0 asks for room";
    EXPECT_FALSE(c.socket->sendData("x", -1));
    EXPECT_TRUE(c.socket->sendEndOfData());
    LogCapture log;
    EXPECT_FALSE(c.socket->sendEndOfData());
    EXPECT_TRUE(
        log.has("NuvikaTcpSocketIO::sendEndOfData() failed: EndOfData already enqueued", QtWarningMsg));
    EXPECT_FALSE(c.socket->sendData("x", 1));
    EXPECT_TRUE(log.has("NuvikaTcpSocketIO::sendData failed: end of data already enqueued", QtWarningMsg));
    ASSERT_TRUE(waitFor([&] { return c.peer.atEnd(); }));
    EXPECT_EQ(c.peer.received(), data) << "the half-close follows the last byte";
    EXPECT_TRUE(waitFor([&] { return c.canSends == 2; })) << "the queue has room again";
    EXPECT_EQ(c.socket->bytesToSend(), 0);
    c.peer.write("still open");
    EXPECT_TRUE(waitFor([&] { return c.received == "still open"; })) << "the other direction goes on";
}

TEST(TcpSocket, LogsRepeatedFailuresOnce)
{
    Tcp refused;
    const unsigned short port = refused.listener.port();
    refused.listener.close();
    LogCapture log;
    for (int i = 0; i < 3; ++i) {
        refused.socket->connectToHost(QHostAddress(QHostAddress::LocalHost), port);
        ASSERT_TRUE(waitFor([&] { return refused.events.size() == i + 1; }));
        EXPECT_EQ(refused.events.last(), QStringLiteral("error 10061"));
        EXPECT_EQ(refused.socket->getState(), NuvikaTcpSocket::eError);
        EXPECT_EQ(refused.socket->errorString(), QStringLiteral("Connection refused"));
        refused.socket->close();
    }
    EXPECT_EQ(log.count("NuvikaTcpSocket::slotError(): connecting to 127.0.0.1:", QtWarningMsg), 1);
    seams::clockOffsetMs += 7000;
    refused.listener = RawListener();
    refused.open();
    EXPECT_TRUE(log.has("established after error. Timespan: 7 seconds", QtWarningMsg));
}

TEST(TcpSocket, FailedCallsEndTheConnectionWithTheirWinsockCodes)
{
    inOwnThread([] { // whose port has no buffers yet
        const struct {
            seams::Fault& fault;
            int error, code;
        } cases[] = {{seams::allocating, ENOMEM, 10055}, {seams::receiving, ETIMEDOUT, 10060},
            {seams::sending, ECONNRESET, 10054}};
        for (const auto& c : cases) {
            Tcp tcp;
            tcp.open();
            tcp.peer.write("bytes");
            c.fault.arm(1, c.error);
            EXPECT_TRUE(tcp.socket->sendData("x", 1));
            EXPECT_EQ(tcp.events.size(), 1) << "never inside the call";
            EXPECT_TRUE(waitFor([&] { return tcp.events.size() == 2; }));
            EXPECT_EQ(tcp.events.last(), QStringLiteral("error %1").arg(c.code));
        }
        LogCapture log;
        Tcp options;
        seams::settingOptions.arm(100, EINVAL);
        options.open();
        seams::settingOptions.arm(0, 0);
        EXPECT_TRUE(log.has("NuvikaTcpSocketIO::setLoadProfile: setting SO_RCVBUF failed", QtCriticalMsg));
        EXPECT_TRUE(log.has("NuvikaTcpSocketIO::setLoadProfile: setting SO_SNDBUF failed", QtCriticalMsg));
        options.peer.write("works all the same");
        EXPECT_TRUE(waitFor([&] { return options.received == "works all the same"; }));
    });
}

TEST(TcpSocket, AConnectionToItselfIsRefusedAndClosed)
{
    RawListener closed; // only to learn of a free port
    const unsigned short port = closed.port();
    closed.close();
    seams::setName("itself.test", {"127.0.0.1"});
    for (const char* host : {"127.0.0.1", "itself.test"}) {
        Tcp c;
        const int before = openDescriptors();
        seams::streamPort = port;
        c.socket->connectToHost(QString::fromLatin1(host), port);
        EXPECT_TRUE(waitFor([&] { return c.events.size() == 1; }));
        seams::streamPort = 0;
        EXPECT_EQ(c.events, QStringList(QStringLiteral("error 10061"))) << host;
        EXPECT_EQ(openDescriptors(), before) << "a descriptor is left over";
    }
}

TEST(TcpSocket, APeerThatHasResetAlreadyLeavesNoOthersAddress)
{
    Tcp c;
    c.open();
    EXPECT_EQ(c.socket->peerPort(), c.listener.port());
    c.socket->close();
    RawSocket other = RawSocket::connectTo(c.listener.port());
    RawSocket accepted;
    ASSERT_TRUE(waitFor([&] { return (accepted = c.listener.accept()).isOpen(); }));
    other.reset();
    ASSERT_TRUE(waitFor([&] { return accepted.peerPort() == 0; }));
    c.socket->setSocketDescriptor(accepted.release());
    EXPECT_TRUE(c.socket->peerAddress().isNull()) << c.socket->peerAddress().toString().toStdString();
    EXPECT_EQ(c.socket->peerPort(), 0);
    EXPECT_EQ(c.socket->localPort(), c.listener.port());
}

// Qt tells who makes and ends objects; see qhooks_p.h.
extern Q_CORE_EXPORT quintptr qtHookData[];
namespace
{
thread_local int t_nObjects = 0;
}

TEST(TcpSocket, ASocketDestroyedWhileConnectingInAnEndedThreadLeavesNothing)
{
    constexpr int kAdd = 3;
    constexpr int kRemove = 4;
    const quintptr previous[] = {qtHookData[kAdd], qtHookData[kRemove]};
    qtHookData[kAdd] = reinterpret_cast<quintptr>(+[](QObject*) { ++t_nObjects; });
    qtHookData[kRemove] = reinterpret_cast<quintptr>(+[](QObject*) { --t_nObjects; });
    const RawListener listener;
    int nLeft = -1;
    std::thread([&] {
        QEventLoop().processEvents(); // the thread's dispatcher, which stays
        const int nBefore = t_nObjects;
        auto socket = std::make_unique<NuvikaTcpSocket>();
        socket->connectToHost(QHostAddress(QHostAddress::LocalHost), listener.port());
        socket.reset();
        nLeft = t_nObjects - nBefore;
    }).join();
    qtHookData[kAdd] = previous[0];
    qtHookData[kRemove] = previous[1];
    EXPECT_EQ(nLeft, 0) << "objects that wait for a loop that will not run again";
}

TEST(TcpSocket, TriesIPv4FirstAndThenTheNextAddress)
{
    Tcp c;
    LogCapture log;
    seams::setName("both.test", {"::1", "127.0.0.1"});
    seams::setName("second.test", {"127.0.0.2", "127.0.0.1"}); // nobody listens on the first
    seams::setName("nowhere.test", {});
    QStringList events;
    const auto connectTo = [&](const QString& host, const QString& event) {
        c.socket->close();
        c.socket->connectToHost(host, c.listener.port());
        events << event;
        EXPECT_TRUE(waitFor([&] { return c.events == events; })) << host.toStdString();
    };
    connectTo(QStringLiteral("both.test"), QStringLiteral("connected"));
    EXPECT_FALSE(log.has("trying ::1")) << "IPv4 before IPv6";
    connectTo(QStringLiteral("second.test"), QStringLiteral("connected"));
    connectTo(QStringLiteral("nowhere.test"), QStringLiteral("error 11001"));
    c.socket->close();
    c.socket->connectToHost(QHostAddress(), 80);
    ASSERT_TRUE(waitFor([&] { return c.events.size() == 4; }));
    EXPECT_EQ(c.events.last(), QStringLiteral("error 11001"));
    EXPECT_TRUE(log.has("HostLookup: looking up both.test done; lookup result: ::1, 127.0.0.1", QtDebugMsg));
    EXPECT_TRUE(log.has("NuvikaTcpSocketConnect: connect to 127.0.0.2", QtDebugMsg));
    EXPECT_TRUE(log.has("HostLookup: looking up nowhere.test failed: ", QtWarningMsg));
    EXPECT_TRUE(log.has("NuvikaTcpSocketConnect::tryNextAddress(): unsupported protocol", QtWarningMsg));
}

TEST(TcpSocket, NoCanSendFromASessionBeforeAClose)
{
    Tcp c;
    c.open();
    ASSERT_TRUE(waitFor([&] { return c.canSends == 1; }));
    RawSocket other = RawSocket::connectTo(c.listener.port());
    RawSocket accepted = c.listener.accept();
    c.socket->close();
    c.socket->setSocketDescriptor(accepted.release()); // its own notification waits in the loop
    c.socket->close();
    settle(20);
    EXPECT_EQ(c.canSends, 1);
}

TEST(QueuedSocket, HalfCloseWaitsForADrainThatMayNeverCome)
{
    Queued c;
    c.open();
    settle(10); // the sigCanSend of the new connection
    c.socket->sendData("small", 5);
    c.socket->sendEndOfData();
    settle(30);
    EXPECT_EQ(c.peer.received(), "small");
    EXPECT_FALSE(c.peer.atEnd()) << "nothing filled, so nothing drains";
    c.openAgain();
    settle(20);
    EXPECT_FALSE(c.peer.atEnd()) << "the request does not outlive its connection";
    c.socket->finishSending();
    EXPECT_TRUE(waitFor([&] { return c.peer.atEnd(); }));
}

TEST(QueuedSocket, NothingIsTakenBehindTheEnd)
{
    for (const int size : {5, 12 << 20}) {
        Queued c;
        c.open();
        const QByteArray data(size, 'x');
        EXPECT_TRUE(c.socket->sendData(data.constData(), data.size()));
        c.socket->finishSending();
        EXPECT_FALSE(c.socket->sendData("y", 1));
        ASSERT_TRUE(waitFor([&] { return c.peer.atEnd(); }, 30000));
        EXPECT_TRUE(c.peer.received() == data);
        EXPECT_FALSE(c.socket->sendData("y", 1));
        EXPECT_TRUE(c.socket->isDynamicDataQueueEmpty()) << "a byte that can never leave is kept";
        EXPECT_FALSE(c.socket->notifyWhenAllSent()) << "no signal can follow";
        c.openAgain();
        EXPECT_TRUE(c.socket->sendData("again", 5)) << "the next connection takes bytes";
        EXPECT_TRUE(waitFor([&] { return c.peer.received() == "again"; }));
    }
}

// A pointer would silently become the flag.
using P = NuvikaTcpSocket::LOAD_PROFILE;
static_assert(!std::is_constructible_v<NuvikaTcpSocketQueued, QObject*>);
static_assert(!std::is_constructible_v<NuvikaTcpSocketQueued, NuvikaTcpSocket*>);
static_assert(!std::is_constructible_v<NuvikaTcpSocketQueued, int, QObject*>);
static_assert(!std::is_constructible_v<NuvikaTcpSocket, P, P, QObject*>);
static_assert(!std::is_constructible_v<NuvikaTcpSocket, P, P, int, QObject*>);
static_assert(!std::is_constructible_v<NuvikaTcpSocket, P, P, const char*>);
static_assert(std::is_constructible_v<NuvikaTcpSocketQueued, bool, QObject*>);
static_assert(std::is_constructible_v<NuvikaTcpSocketQueued, int, bool, QObject*>);
static_assert(std::is_constructible_v<NuvikaTcpSocket, P, P, int, bool, QObject*>);

TEST(QueuedSocket, AnErrorEmptiesTheQueue)
{
    Queued c;
    c.open();
    const QByteArray data(12 << 20, 'x');
    c.socket->sendData(data.constData(), data.size());
    EXPECT_FALSE(c.socket->isDynamicDataQueueEmpty());
    c.peer.reset();
    ASSERT_TRUE(waitFor([&] { return c.events.size() == 2; }));
    EXPECT_EQ(c.events.last(), QStringLiteral("error 10054"));
    EXPECT_TRUE(c.socket->isDynamicDataQueueEmpty());
}
