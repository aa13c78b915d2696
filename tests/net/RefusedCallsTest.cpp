// What each class does when the system refuses one of its calls: descriptors, registrations, threads,
// options, addresses. Nothing hangs, nothing is silent, nothing is left over, and the next use works.
#include "support/RefusedCalls.h"
#include "support/Certificates.h"

#include <KepNuvikaUtil/HostLookup.h>
#include <KepNuvikaUtil/KepNuvikaUtil.h>

#include <memory>

using refused::Outcome;

namespace
{
const QHostAddress kLocal(QHostAddress::LocalHost);

// Whether a byte from the peer arrives within the time; an error of the socket ends the wait.
struct ByteWait {
    NuvikaTcpSocket socket;
    bool bReceived = false;
    bool bError = false;
    ByteWait()
    {
        QObject::connect(&socket, &NuvikaTcpSocket::dataReceived,
            [this](const char*, int, NuvikaTcpSocket::QueuedConnNotAllowed) { bReceived = true; });
        QObject::connect(&socket, &NuvikaTcpSocket::error, [this](int) { bError = true; });
    }
    bool isOver() const { return bReceived || bError; }
};

Outcome connectAndReceive(const QString& host)
{
    RawListener listener;
    RawSocket peer;
    ByteWait wait;
    wait.socket.connectToHost(host, listener.port());
    waitFor(
        [&] {
            if (!peer.isOpen() && (peer = listener.accept()).isOpen())
                peer.write("x");
            return wait.isOver();
        },
        3000);
    return {wait.bReceived, wait.bError};
}
} // namespace

TEST(RefusedCalls, WhileConnectingAndReceiving)
{
    refused::eachCall([](const LogCapture&) { return connectAndReceive(QStringLiteral("127.0.0.1")); });
}

TEST(RefusedCalls, WhileLookingUpAName)
{
    int names = 0;
    refused::eachCall([&](const LogCapture&) {
        const QString name = QStringLiteral("refused-%1.test").arg(++names); // none is in the cache
        seams::setName(name.toStdString(), {"127.0.0.1"});
        return connectAndReceive(name);
    });
}

TEST(RefusedCalls, WhileListeningAndAccepting)
{
    refused::eachCall([](const LogCapture& log) -> Outcome {
        ByteWait wait;
        NuvikaTcpServer server;
        QObject::connect(
            &server, &NuvikaTcpServer::newConnectionDesc, [&](int s) { wait.socket.setSocketDescriptor(s); });
        if (!server.listen(kLocal, 0))
            return {false, log.has("NuvikaTcpServerThread::", QtCriticalMsg)};
        RawSocket client = RawSocket::connectTo(server.serverPort());
        client.write("x");
        waitFor([&] { return wait.isOver(); }, 3000);
        return {wait.bReceived, wait.bError};
    });
}

TEST(RefusedCalls, WhileDatagramsAreSentAndReceived)
{
    refused::eachCall([](const LogCapture& log) -> Outcome {
        NuvikaUdpReceiver receiver;
        NuvikaUdpSender sender;
        bool bReceived = false;
        receiver.registerCallback(
            [](const NuvikaUdpReceiver::Datagram*, void* p) { *static_cast<bool*>(p) = true; }, &bReceived);
        unsigned short port = 0;
        if (!receiver.createUnicast(port, kLocal))
            return {
                false, !receiver.errorString().isEmpty() && log.has("NuvikaUdpReceiver::createUnicast()")};
        NuvikaLLSock::ADDR_V4_V6 to;
        NuvikaLLSock::createSockAddr(&to, kLocal, port);
        if (!sender.sendTo("x", 1, to))
            return {false, !sender.errorString().isEmpty()};
        waitFor([&] { return bReceived || log.has("NuvikaUdpReceiverIO::"); }, 3000);
        return {bReceived, log.has("NuvikaUdpReceiverIO::", QtWarningMsg)};
    });
}

TEST(RefusedCalls, WhileTlsIsSetUp)
{
    const QString certificate = certificates().forLocalhost();
    refused::eachCall([&](const LogCapture& log) -> Outcome {
        NuvikaSslSocket client;
        NuvikaSslSocket accepted;
        int connected = 0;
        bool bError = false;
        for (NuvikaSslSocket* socket : {&client, &accepted}) {
            QObject::connect(socket, &NuvikaSslSocket::connected, [&] { ++connected; });
            QObject::connect(socket, &NuvikaSslSocket::error, [&](int) { bError = true; });
        }
        const auto any = NuvikaSslSocket::eSslAny12;
        if (!accepted.initSsl(true, any, certificate, {}, {})
            || !client.initSsl(false, any, {}, certificates().authority(), {}))
            return {false, !accepted.errorString().isEmpty() || !client.errorString().isEmpty()};
        NuvikaTcpServer server;
        QObject::connect(
            &server, &NuvikaTcpServer::newConnectionDesc, [&](int s) { accepted.setSocketDescriptor(s); });
        if (!server.listen(kLocal, 0))
            return {false, log.has("NuvikaTcpServerThread::", QtCriticalMsg)};
        client.connectToHost(QStringLiteral("127.0.0.1"), server.serverPort());
        waitFor([&] { return connected == 2 || bError; }, 3000);
        return {connected == 2, bError};
    });
}

TEST(RefusedCalls, WhileTheLibraryStartsAndEnds)
{
    int names = 0;
    KepNuvikaUtilCleanup();
    refused::eachCall([&](const LogCapture& log) -> Outcome {
        KepNuvikaUtilInit();
        const QString name = QStringLiteral("started-%1.test").arg(++names);
        seams::setName(name.toStdString(), {"127.0.0.1"});
        const Outcome outcome = connectAndReceive(name);
        KepNuvikaUtilCleanup();
        EXPECT_FALSE(log.has("ASSERT: "));
        const bool bRefused = log.has("KepNuvikaUtilInit(): no thread can be had", QtCriticalMsg);
        return {outcome.bWorked, outcome.bTold || bRefused};
    });
    KepNuvikaUtilInit();
}
