// Keep-alive, delay of small pieces, and the time limit of connecting.
#include "net/SslTalkers.h"
#include "support/LogCapture.h"
#include "support/Seams.h"

#include <KepNuvikaUtil/BufferSocketQueued.h>
#include <KepNuvikaUtil/NuvikaTcpSocketQueued.h>

#include <netinet/tcp.h>

namespace
{
QByteArray option(int fd, int level, int name)
{
    int value = -1;
    socklen_t size = sizeof value;
    getsockopt(fd, level, name, &value, &size);
    return QByteArray::number(value);
}

template <class Socket>
void expectSettings(Socket& socket)
{
    // What the system has, of an accepted connection: "idle interval probes, no delay"
    const auto behind = [&](const std::function<void()>& change) {
        RawListener listener;
        const RawSocket peer = RawSocket::connectTo(listener.port());
        const int fd = listener.accept().release();
        socket.close();
        socket.setSocketDescriptor(fd);
        change();
        QByteArray text = option(fd, SOL_SOCKET, SO_KEEPALIVE) == "0" ? "off" : "";
        for (const int name : {TCP_KEEPIDLE, TCP_KEEPINTVL, TCP_KEEPCNT})
            text += text == "off" ? "" : option(fd, IPPROTO_TCP, name) + ' ';
        return text + ',' + option(fd, IPPROTO_TCP, TCP_NODELAY);
    };
    EXPECT_EQ(behind([] {}), "off,1") << "by default";
    EXPECT_EQ(behind([&] { socket.setKeepAlive(true, 7, 3, 2), socket.setNoDelay(false); }), "7 3 2 ,0");
    EXPECT_EQ(behind([] {}), "7 3 2 ,0") << "of the next connection";
    EXPECT_EQ(behind([&] { socket.setKeepAlive(false), socket.setNoDelay(true); }), "off,1");
    LogCapture log;
    socket.setKeepAlive(true, 0);
    EXPECT_EQ(behind([&] { socket.setKeepAlive(true); }), "60 10 6 ,1");
    EXPECT_EQ(log.count("NuvikaTcpSocket::setKeepAlive() failed: Invalid argument", QtWarningMsg), 2);
    seams::settingOptions.arm(1, ENOBUFS);
    socket.setNoDelay(true);
    EXPECT_TRUE(log.has("NuvikaTcpSocket::setNoDelay() failed: ", QtWarningMsg));
    socket.close();
}

// A listener whose queue is full: the next connection is not answered.
struct Silent {
    RawListener listener{0};
    RawSocket first = RawSocket::connectTo(listener.port());
};

template <class Socket>
void expectTimeLimit(Socket& socket)
{
    constexpr int kLimit = 60;
    const Silent silent;
    std::vector<int> errors;
    QObject::connect(&socket, &Socket::error, [&](int code) { errors.push_back(code); });
    static int s_nNames = 0; // none is in the cache
    const QString held = QStringLiteral("held-%1.test").arg(++s_nNames);
    const QString late = QStringLiteral("late-%1.test").arg(s_nNames);
    seams::setName(held.toStdString(), {"127.0.0.1"});
    seams::setName(late.toStdString(), {"127.0.0.1", "127.0.0.1"});
    socket.setConnectTimeLimit(kLimit);
    for (const QString& host : {QStringLiteral("127.0.0.1"), held, late}) {
        errors.clear();
        seams::holdLookups(true);
        QElapsedTimer time;
        time.start();
        socket.connectToHost(host, silent.listener.port());
        if (host == late)
            QTimer::singleShot(kLimit / 2, [] { seams::holdLookups(false); });
        EXPECT_TRUE(waitFor([&] { return !errors.empty(); })) << host.toStdString();
        EXPECT_TRUE(time.elapsed() >= kLimit && time.elapsed() < 30 * kLimit) << time.elapsed();
        seams::holdLookups(false);
        settle(kLimit / 2);
        EXPECT_EQ(errors, std::vector<int>{10060}) << host.toStdString();
        EXPECT_EQ(socket.errorString(),
            QStringLiteral("no connection to %1:%2 was made within 60 ms")
                .arg(host, QString::number(silent.listener.port())));
        socket.close();
    }
}

template <class Check>
void ofEachSocket(Check check)
{
    NuvikaTcpSocket tcp;
    NuvikaTcpSocketQueued queued;
    Client tls;
    BufferSocketQueued messages(false);
    check(tcp), check(queued), check(*tls.socket), check(messages);
}
} // namespace

TEST(SocketSettings, AreOfTheConnectionThatLivesAndOfThoseToCome)
{
    ofEachSocket([](auto& socket) { expectSettings(socket); });
}

TEST(ConnectTimeLimit, CoversTheLookupAndAllAddresses)
{
    const int descriptors = openDescriptors();
    ofEachSocket([](auto& socket) { expectTimeLimit(socket); });
    EXPECT_EQ(openDescriptors(), descriptors) << "an attempt that was given up is left over";
}

TEST(ConnectTimeLimit, EndsNoConnectionThatWasMade)
{
    constexpr int kLimit = 500;
    for (const bool bLate : {false, true}) {
        Silent silent;
        RawSocket peer;
        NuvikaTcpSocket socket;
        if (!bLate)
            peer = silent.listener.accept();
        socket.setConnectTimeLimit(kLimit);
        socket.connectToHost(QHostAddress(QHostAddress::LocalHost), silent.listener.port());
        settle(20);
        RawSocket first = silent.listener.accept();
        // The system asks again after a second: when the loop runs, connection and limit are both due.
        QElapsedTimer time;
        for (time.start(); bLate && time.elapsed() < 5000 && !peer.isOpen();)
            peer = silent.listener.accept();
        ASSERT_TRUE(waitFor([&] { return socket.getState() != NuvikaTcpSocket::eConnecting; }));
        settle(bLate ? 0 : kLimit);
        EXPECT_EQ(socket.getState(), NuvikaTcpSocket::eConnected) << socket.errorString().toStdString();
    }
}
