// Keep-alive, delay of small pieces, and the time limit of connecting.
#include "net/SslTalkers.h"
#include "support/LogCapture.h"
#include "support/Seams.h"

#include <KepNuvikaUtil/BufferSocketQueued.h>
#include <KepNuvikaUtil/NuvikaTcpSocketQueued.h>

#include <netinet/tcp.h>

namespace
{
const QHostAddress kLocal(QHostAddress::LocalHost);

// Accepted connections are told by their descriptor, so that the system can be asked.
struct Accepted {
    RawListener listener;
    RawSocket peer = RawSocket::connectTo(listener.port());
    int fd = listener.accept().release();
    int option(int level, int name) const
    {
        int value = -1;
        socklen_t size = sizeof value;
        getsockopt(fd, level, name, &value, &size);
        return value;
    }
    // "on idle interval probes, no delay"
    QByteArray settings() const
    {
        QByteArray text = QByteArray::number(option(SOL_SOCKET, SO_KEEPALIVE));
        if (text == "1") {
            for (const int name : {TCP_KEEPIDLE, TCP_KEEPINTVL, TCP_KEEPCNT})
                text += ' ' + QByteArray::number(option(IPPROTO_TCP, name));
        }
        return text + ", " + QByteArray::number(option(IPPROTO_TCP, TCP_NODELAY));
    }
};

template <class Socket>
void expectSettings(Socket& socket)
{
    const auto isAfter = [&](const QByteArray& expected, const char* situation) {
        socket.close();
        Accepted accepted;
        socket.setSocketDescriptor(accepted.fd);
        EXPECT_EQ(accepted.settings(), expected) << situation;
    };
    isAfter("0, 1", "by default");
    {
        socket.close();
        Accepted accepted;
        socket.setSocketDescriptor(accepted.fd);
        socket.setKeepAlive(true, 7, 3, 2);
        socket.setNoDelay(false);
        EXPECT_EQ(accepted.settings(), "1 7 3 2, 0") << "of the connection that lives";
        socket.setKeepAlive(false);
        socket.setNoDelay(true);
        EXPECT_EQ(accepted.settings(), "0, 1") << "off again";
    }
    socket.setKeepAlive(true);
    socket.setNoDelay(false);
    isAfter("1 60 10 6, 0", "of the next connection");
    isAfter("1 60 10 6, 0", "of one more");
    LogCapture log;
    socket.setKeepAlive(true, 0);
    isAfter("0, 0", "with values that the system refuses");
    EXPECT_EQ(log.count("NuvikaTcpSocket::setKeepAlive() failed: Invalid argument", QtWarningMsg), 2);
    seams::settingOptions.arm(1, ENOBUFS);
    socket.setNoDelay(true);
    EXPECT_TRUE(log.has("NuvikaTcpSocket::setNoDelay() failed: ", QtWarningMsg));
    socket.close();
}

// A listener whose queue is full: the next connection is never answered.
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
    for (const QString& name : {held, late})
        seams::setName(name.toStdString(), {"127.0.0.1", "127.0.0.1"});
    socket.setConnectTimeLimit(kLimit);
    const QString hosts[] = {QStringLiteral("127.0.0.1"), held, late};
    for (const QString& host : hosts) {
        errors.clear();
        seams::holdLookups(true);
        QElapsedTimer time;
        time.start();
        socket.connectToHost(host, silent.listener.port());
        if (host == late)
            QTimer::singleShot(kLimit / 2, [] { seams::holdLookups(false); });
        ASSERT_TRUE(waitFor([&] { return !errors.empty(); })) << host.toStdString();
        EXPECT_GE(time.elapsed(), kLimit) << host.toStdString();
        EXPECT_LT(time.elapsed(), 30 * kLimit) << host.toStdString();
        seams::holdLookups(false);
        settle(kLimit);
        EXPECT_EQ(errors, std::vector<int>{10060}) << host.toStdString();
        EXPECT_EQ(socket.errorString(),
            QStringLiteral("no connection to %1:%2 was made within 60 ms")
                .arg(host, QString::number(silent.listener.port())));
        socket.close();
    }
}
} // namespace

TEST(SocketSettings, AreTheConnectionsThatLivesAndOfThoseToCome)
{
    NuvikaTcpSocket tcp;
    NuvikaTcpSocketQueued queued;
    NuvikaSslSocket tls;
    BufferSocketQueued messages(false);
    tls.initSsl(true, Ssl::eSslAny12, certificates().forLocalhost(), QString(), QString());
    expectSettings(tcp);
    expectSettings(queued);
    expectSettings(tls);
    expectSettings(messages);
}

TEST(ConnectTimeLimit, CoversTheLookupAndAllAddresses)
{
    const int descriptors = openDescriptors();
    {
        NuvikaTcpSocket tcp;
        NuvikaTcpSocketQueued queued;
        Client tls;
        BufferSocketQueued messages(false);
        expectTimeLimit(tcp);
        expectTimeLimit(queued);
        expectTimeLimit(*tls.socket);
        expectTimeLimit(messages);
    }
    EXPECT_EQ(openDescriptors(), descriptors) << "an attempt that was given up is left over";
}

TEST(ConnectTimeLimit, EndsNoConnectionThatWasMade)
{
    RawListener listener;
    NuvikaTcpSocket socket;
    socket.setConnectTimeLimit(40);
    for (const bool bBusy : {false, true}) {
        socket.connectToHost(kLocal, listener.port());
        if (bBusy)
            ::usleep(60000); // the connection and the limit are both due when the loop runs
        ASSERT_TRUE(waitFor([&] { return socket.getState() != NuvikaTcpSocket::eConnecting; }));
        settle(60);
        EXPECT_EQ(socket.getState(), NuvikaTcpSocket::eConnected) << socket.errorString().toStdString();
        socket.close();
    }
}
