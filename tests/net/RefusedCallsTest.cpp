// What each class does when the system refuses one of its calls: descriptors, registrations, threads,
// options, addresses. Nothing hangs, nothing is silent, nothing is left over, and the next use works.
#include "net/SslTalkers.h"
#include "platform/WorkerPool_p.h"
#include "support/LogCapture.h"
#include "support/OwnThread.h"
#include "support/Seams.h"

#include <KepNuvikaUtil/KepNuvikaUtil.h>

#include <gtest/gtest.h>

namespace
{
struct Outcome {
    bool bWorked;
    bool bTold; // by a result, a signal or the log
};

void endWorkers()
{
    Nuvika::WorkerPool::endSocketCallWorkers(std::chrono::milliseconds(2000));
    Nuvika::WorkerPool::lookups().endWorkers(std::chrono::milliseconds(2000));
}

// Every failure point: the first refusable call of the scenario fails, then its second, until it passes
// without a failure. On a thread of its own, so that the port and the workers are made anew. Waiting in the
// scenario is bounded: what hangs has neither worked nor told.
void eachCall(const std::function<Outcome(const LogCapture& log)>& scenario)
{
    constexpr int kMostCalls = 200;
    int n = 1;
    for (bool bRefused = true; bRefused && n < kMostCalls; ++n) {
        endWorkers();
        const int descriptors = openDescriptors();
        const int threads = runningThreads();
        inOwnThread([&] {
            const auto run = [&scenario] { return scenario(LogCapture()); };
            seams::refuseNth(n);
            const Outcome outcome = run();
            const char* call = seams::refusedCall();
            seams::refuseNth(0);
            bRefused = call != nullptr;
            const std::string where
                = bRefused ? "call " + std::to_string(n) + ", " + call : std::string("without a failure");
            EXPECT_TRUE(outcome.bWorked || (bRefused && outcome.bTold)) << "nothing is told: " << where;
            EXPECT_TRUE(run().bWorked) << "does not work again behind " << where;
        });
        endWorkers();
        EXPECT_TRUE(waitFor([&] { return openDescriptors() <= descriptors && runningThreads() <= threads; }))
            << "left over after call " << n << ": descriptors " << openDescriptors() - descriptors
            << ", threads " << runningThreads() - threads;
    }
    EXPECT_GT(n, 2) << "nothing could be refused";
    EXPECT_LT(n, kMostCalls);
}

const QHostAddress kLocal(QHostAddress::LocalHost);

// Waits for a byte from the peer, or for an error of the socket.
Outcome outcomeOf(
    const TalkerOf<NuvikaTcpSocket>& talker, const std::function<void()>& act = [] {})
{
    waitFor(
        [&] {
            act();
            return !talker.got.isEmpty() || !talker.errors.empty();
        },
        3000);
    return {!talker.got.isEmpty(), !talker.errors.empty()};
}

Outcome connectAndReceive(const QString& host)
{
    RawListener listener;
    RawSocket peer;
    TalkerOf<NuvikaTcpSocket> talker;
    talker.socket->connectToHost(host, listener.port());
    return outcomeOf(talker, [&] {
        if (!peer.isOpen() && (peer = listener.accept()).isOpen())
            peer.write("x");
    });
}

Outcome listenAndAccept(const LogCapture& log, bool (NuvikaTcpServer::*listen)(const QHostAddress&, quint16))
{
    TalkerOf<NuvikaTcpSocket> talker;
    NuvikaTcpServer server;
    QObject::connect(
        &server, &NuvikaTcpServer::newConnectionDesc, [&](int s) { talker.socket->setSocketDescriptor(s); });
    if (!(server.*listen)(QHostAddress(QHostAddress::Any), 0))
        return {false, log.has("NuvikaTcpServerThread::", QtCriticalMsg)};
    RawSocket client = RawSocket::connectTo(server.serverPort());
    client.write("x");
    return outcomeOf(talker);
}
} // namespace

TEST(RefusedCalls, WhileListeningAndAccepting)
{
    for (const auto listen : {&NuvikaTcpServer::listen, &NuvikaTcpServer::listenAnyFamily})
        eachCall([&](const LogCapture& log) { return listenAndAccept(log, listen); });
}

TEST(RefusedCalls, WhileDatagramsAreSentAndReceived)
{
    for (const QHostAddress& local : {kLocal, QHostAddress(QHostAddress::LocalHostIPv6)})
        eachCall([&](const LogCapture& log) -> Outcome {
            NuvikaUdpReceiver receiver;
            NuvikaUdpSender sender(local.protocol());
            bool bReceived = false;
            receiver.registerCallback(
                [](const NuvikaUdpReceiver::Datagram*, void* p) { *static_cast<bool*>(p) = true; },
                &bReceived);
            unsigned short port = 0;
            if (!receiver.createUnicast(port, local))
                return {false,
                    !receiver.errorString().isEmpty() && log.has("NuvikaUdpReceiver::createUnicast()")};
            NuvikaLLSock::ADDR_V4_V6 to;
            NuvikaLLSock::createSockAddr(&to, local, port);
            if (!sender.sendTo("x", 1, to))
                return {false, !sender.errorString().isEmpty()};
            waitFor([&] { return bReceived || log.has("NuvikaUdpReceiverIO::"); }, 3000);
            return {bReceived, log.has("NuvikaUdpReceiverIO::", QtWarningMsg)};
        });
}

TEST(RefusedCalls, WhileTheLibraryStartsConnectsByNameAndEnds)
{
    int names = 0;
    KepNuvikaUtilCleanup();
    eachCall([&](const LogCapture& log) -> Outcome {
        KepNuvikaUtilInit();
        const QString name = QStringLiteral("refused-%1.test").arg(++names); // none is in the cache
        seams::setName(name.toStdString(), {"127.0.0.1"});
        const Outcome outcome = connectAndReceive(name);
        KepNuvikaUtilCleanup();
        EXPECT_FALSE(log.has("ASSERT: "));
        const bool bRefused = log.has("KepNuvikaUtilInit(): no thread can be had", QtCriticalMsg);
        return {outcome.bWorked, outcome.bTold || bRefused};
    });
    KepNuvikaUtilInit();
}
