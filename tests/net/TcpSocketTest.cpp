#include "support/EventLoop.h"
#include "support/LogCapture.h"
#include "support/OwnThread.h"
#include "support/RawPeer.h"
#include "support/Seams.h"

#include <KepNuvikaUtil/NuvikaTcpSocket.h>
#include <KepNuvikaUtil/NuvikaTcpSocketQueued.h>

#include <QtCore/QPointer>

#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <thread>
#include <type_traits>

using Marker = NuvikaTcpSocket::QueuedConnNotAllowed;

namespace
{
QByteArray pattern(int size)
{
    QByteArray bytes(size, Qt::Uninitialized);
    for (int i = 0; i < size; ++i)
        bytes[i] = static_cast<char>(i * 7 + i / 251);
    return bytes;
}

// A socket with a raw peer, and a log of its signals.
template <class Socket>
struct Connection {
    RawListener listener;
    RawSocket peer;
    std::unique_ptr<Socket> socket;
    QStringList events;
    QByteArray received;
    std::function<void(const char*, int)> onData;

    explicit Connection(std::unique_ptr<Socket> s) : socket(std::move(s))
    {
        QObject::connect(socket.get(), &Socket::connected, [this] { events << QStringLiteral("connected"); });
        QObject::connect(
            socket.get(), &Socket::disconnected, [this] { events << QStringLiteral("disconnected"); });
        QObject::connect(socket.get(), &Socket::error,
            [this](int code) { events << QStringLiteral("error %1").arg(code); });
        QObject::connect(socket.get(), &Socket::dataReceived, [this](const char* data, int size, Marker) {
            received.append(data, size);
            if (onData)
                onData(data, size);
        });
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

TEST(TcpSocket, ConnectsTransfersAndSeesTheEnd)
{
    Tcp c;
    c.socket->connectToHost(QStringLiteral("127.0.0.1"), c.listener.port());
    EXPECT_EQ(c.socket->getState(), NuvikaTcpSocket::eConnecting);
    EXPECT_TRUE(c.events.isEmpty()) << "never inside the call";
    ASSERT_TRUE(waitFor([&] { return !c.events.isEmpty(); }));
    c.peer = c.listener.accept();
    EXPECT_EQ(c.socket->peerPort(), c.listener.port());
    EXPECT_EQ(c.socket->peerAddress(), QHostAddress(QHostAddress::LocalHost));
    EXPECT_NE(c.socket->localPort(), 0);
    EXPECT_EQ(c.socket->peerName(), QStringLiteral("127.0.0.1:%1").arg(c.listener.port()));
    EXPECT_TRUE(waitFor([&] { return c.canSends == 1; })) << "one sigCanSend follows";

    LogCapture log;
    c.socket->connectToHost(QStringLiteral("127.0.0.1"), 1);
    c.socket->setSocketDescriptor(0);
    EXPECT_TRUE(log.has("NuvikaTcpSocket::connectToHost() failed; invalid state", QtWarningMsg));
    EXPECT_TRUE(log.has("NuvikaTcpSocket::setSocketDescriptor() failed: invalid state", QtWarningMsg));

    c.socket->sendData("hello", 5);
    c.peer.write("world");
    ASSERT_TRUE(waitFor([&] { return c.received == "world" && c.peer.received() == "hello"; }));
    c.peer.close();
    ASSERT_TRUE(waitFor([&] { return c.events.size() == 2; }));
    settle(20);
    EXPECT_EQ(c.events, (QStringList{QStringLiteral("connected"), QStringLiteral("disconnected")}))
        << "exactly one";
    EXPECT_EQ(c.socket->getState(), NuvikaTcpSocket::eUnconnected);
    EXPECT_FALSE(c.socket->sendData("x", 1));
}

TEST(TcpSocket, EveryProfileMovesMegabytesBothWaysInOrder)
{
    for (const auto profile : {NuvikaTcpSocket::eLight, NuvikaTcpSocket::eMedium, NuvikaTcpSocket::eHeavy}) {
        Tcp c(profile);
        c.open();
        const QByteArray data = pattern(6 << 20);
        int sent = 0;
        const auto sendMore = [&] {
            while (sent < data.size() && c.socket->canSend()) {
                const int n = std::min(100000, data.size() - sent);
                ASSERT_TRUE(c.socket->sendData(data.constData() + sent, n));
                sent += n;
            }
            if (sent == data.size())
                c.socket->sendEndOfData();
        };
        QObject::connect(
            c.socket.get(), &NuvikaTcpSocket::sigCanSend, [&] { sent < data.size() ? sendMore() : void(); });
        sendMore();
        int fed = 0;
        QElapsedTimer time;
        time.start();
        ASSERT_TRUE(waitFor(
            [&] {
                c.peer.received(300000);
                const ssize_t n = ::send(c.peer.fd(), data.constData() + fed,
                    static_cast<std::size_t>(std::min(100000, data.size() - fed)), MSG_DONTWAIT);
                fed += n > 0 ? static_cast<int>(n) : 0;
                return c.peer.received(0).size() == data.size() && c.peer.atEnd()
                    && c.received.size() == data.size();
            },
            60000))
            << "profile " << profile << " sent " << c.peer.received().size() << " received "
            << c.received.size();
        EXPECT_EQ(c.peer.received(), data);
        EXPECT_EQ(c.received, data);
        EXPECT_LT(time.elapsed(), 10000) << "stalled windows, profile " << profile;
    }
}

TEST(TcpSocket, ABlockPastTheBoundIsTakenWholeAndTheNextRefused)
{
    Tcp c(NuvikaTcpSocket::eMedium, 10000);
    c.open();
    ASSERT_TRUE(waitFor([&] { return c.canSends == 1; }));
    const QByteArray data = pattern(8 << 20); // more than the queue and the system hold
    EXPECT_TRUE(c.socket->sendData(data.constData(), data.size()));
    EXPECT_FALSE(c.socket->canSend());
    EXPECT_FALSE(c.socket->sendData("x", 1));
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
    c.peer.write("still open");
    EXPECT_TRUE(waitFor([&] { return c.received == "still open"; })) << "the other direction goes on";
}

TEST(TcpSocket, ReportsFailuresOnceWithWinsockCodes)
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
    EXPECT_EQ(log.count("NuvikaTcpSocket::slotError(): connecting to 127.0.0.1:", QtWarningMsg), 1)
        << "repeated failures are logged once";
    seams::clockOffsetMs += 7000;
    RawListener back;
    refused.socket->connectToHost(QHostAddress(QHostAddress::LocalHost), back.port());
    ASSERT_TRUE(waitFor([&] { return refused.events.last() == QLatin1String("connected"); }));
    EXPECT_TRUE(log.has("established after error. Timespan: 7 seconds", QtWarningMsg));

    Tcp reset;
    reset.open();
    reset.peer.reset();
    ASSERT_TRUE(waitFor([&] { return reset.events.size() == 2; }));
    EXPECT_EQ(reset.events.last(), QStringLiteral("error 10054"));

    Tcp failing;
    failing.open();
    seams::sending.arm(1, ECONNRESET);
    EXPECT_TRUE(failing.socket->sendData("x", 1));
    EXPECT_EQ(failing.events.size(), 1) << "never inside the call";
    ASSERT_TRUE(waitFor([&] { return failing.events.size() == 2; }));
    EXPECT_EQ(failing.events.last(), QStringLiteral("error 10054"));
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
    sockaddr_in unused{};
    socklen_t size = sizeof unused;
    ASSERT_TRUE(waitFor(
        [&] { return getpeername(accepted.fd(), reinterpret_cast<sockaddr*>(&unused), &size) != 0; }));
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

TEST(TcpSocket, WithoutMemoryToReceiveTheConnectionEndsWithAnError)
{
    inOwnThread([] { // whose port has no buffers yet
        for (const int refused : {1, 0}) {
            Tcp tcp;
            tcp.open();
            seams::allocating.arm(refused, ENOMEM);
            tcp.peer.write("bytes");
            EXPECT_TRUE(waitFor([&] { return tcp.received == "bytes" || tcp.events.size() == 2; }));
            EXPECT_EQ(
                tcp.events.last(), refused > 0 ? QStringLiteral("error 10055") : QStringLiteral("connected"));
        }
    });
}

TEST(TcpSocket, FailingSystemCallsAreReportedAndNothingElse)
{
    Tcp options;
    LogCapture log;
    seams::settingOptions.arm(100, EINVAL);
    options.open();
    seams::settingOptions.arm(0, 0);
    EXPECT_TRUE(log.has("NuvikaTcpSocketIO::setLoadProfile: setting SO_RCVBUF failed", QtCriticalMsg));
    EXPECT_TRUE(log.has("NuvikaTcpSocketIO::setLoadProfile: setting SO_SNDBUF failed", QtCriticalMsg));
    options.peer.write("works all the same");
    EXPECT_TRUE(waitFor([&] { return options.received == "works all the same"; }));

    Tcp receiving;
    receiving.open();
    seams::receiving.arm(1, ETIMEDOUT);
    receiving.peer.write("x");
    ASSERT_TRUE(waitFor([&] { return receiving.events.size() == 2; }));
    EXPECT_EQ(receiving.events.last(), QStringLiteral("error 10060"));
    seams::receiving.arm(0, 0);
}

TEST(TcpSocket, TriesIPv4FirstAndThenTheNextAddress)
{
    Tcp c;
    seams::setName("both.test", {"::1", "127.0.0.1"});
    LogCapture log;
    c.socket->connectToHost(QStringLiteral("both.test"), c.listener.port());
    ASSERT_TRUE(waitFor([&] { return !c.events.isEmpty(); }));
    EXPECT_EQ(c.events.last(), QStringLiteral("connected"));
    EXPECT_FALSE(log.has("trying ::1")) << "IPv4 before IPv6";
    c.socket->close();
    seams::setName("second.test", {"127.0.0.2", "127.0.0.1"}); // nobody listens on the first
    c.socket->connectToHost(QStringLiteral("second.test"), c.listener.port());
    ASSERT_TRUE(waitFor([&] { return c.events.size() == 2; }));
    EXPECT_EQ(c.events.last(), QStringLiteral("connected"));
    EXPECT_TRUE(log.has("NuvikaTcpSocketConnect: connect to 127.0.0.2", QtDebugMsg));
    c.socket->close();
    seams::setName("nowhere.test", {});
    c.socket->connectToHost(QStringLiteral("nowhere.test"), 80);
    ASSERT_TRUE(waitFor([&] { return c.events.size() == 3; }));
    EXPECT_EQ(c.events.last(), QStringLiteral("error 11001"));
    c.socket->close();
    c.socket->connectToHost(QHostAddress(), 80);
    ASSERT_TRUE(waitFor([&] { return c.events.size() == 4; }));
    EXPECT_EQ(c.events.last(), QStringLiteral("error 11001"));
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

TEST(TcpSocket, AllSentFollowsTheLastByte)
{
    Tcp c;
    c.open();
    int allSent = 0;
    QObject::connect(c.socket.get(), &NuvikaTcpSocket::sigAllSent, [&] { ++allSent; });
    EXPECT_FALSE(c.socket->notifyWhenAllSent());
    const QByteArray data = pattern(8 << 20);
    c.socket->sendData(data.constData(), data.size());
    EXPECT_TRUE(c.socket->notifyWhenAllSent());
    settle(20);
    EXPECT_EQ(allSent, 0) << "the peer has read nothing yet";
    ASSERT_TRUE(waitFor([&] { return c.peer.received(200000).size() == data.size() || allSent > 0; }));
    ASSERT_TRUE(waitFor([&] { return allSent == 1; }));
}

TEST(TcpSocket, AQueuedConnectionToDataReceivedFails)
{
    NuvikaTcpSocket socket;
    NuvikaTcpSocket receiver;
    LogCapture log;
    EXPECT_FALSE(QObject::connect(&socket,
        SIGNAL(dataReceived(const char*, int, NuvikaTcpSocket::QueuedConnNotAllowed)), &receiver,
        SIGNAL(dataReceived(const char*, int, NuvikaTcpSocket::QueuedConnNotAllowed)), Qt::QueuedConnection));
    EXPECT_TRUE(log.has("Cannot queue arguments of type"));
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
    c.socket->close();
    RawSocket other = RawSocket::connectTo(c.listener.port());
    RawSocket accepted;
    ASSERT_TRUE(waitFor([&] { return (accepted = c.listener.accept()).isOpen(); }));
    c.socket->setSocketDescriptor(accepted.release());
    settle(20);
    EXPECT_FALSE(other.atEnd()) << "the request does not outlive its connection";
    c.socket->finishSending();
    EXPECT_TRUE(waitFor([&] { return other.atEnd(); }));
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
        c.socket->close();
        c.peer = RawSocket();
        c.open();
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
static_assert(std::is_constructible_v<NuvikaTcpSocketQueued>);
static_assert(std::is_constructible_v<NuvikaTcpSocketQueued, bool, NuvikaTcpSocket*>);
static_assert(std::is_constructible_v<NuvikaTcpSocketQueued, bool, QObject*>);
static_assert(std::is_constructible_v<NuvikaTcpSocketQueued, int, bool>);
static_assert(std::is_constructible_v<NuvikaTcpSocketQueued, int, bool, QObject*>);
static_assert(std::is_constructible_v<NuvikaTcpSocket, P, P>);
static_assert(std::is_constructible_v<NuvikaTcpSocket, P, P, bool, NuvikaTcpSocket*>);
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
