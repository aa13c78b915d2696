#include "net/ProxyTunnel_p.h"
#include "net/SslTalkers.h"
#include "support/Seams.h"

#include <KepNuvikaUtil/NuvikaTcpSocketQueued.h>

#include <gtest/gtest.h>

using namespace Nuvika;

namespace
{
// A socket, and the proxy that it goes through, which speaks byte by byte.
struct Way : TalkerOf<NuvikaTcpSocketQueued> {
    RawListener listener;
    RawSocket proxy;

    explicit Way(const char* user = "")
    {
        ProxyTunnel::set(*socket,
            {QStringLiteral("127.0.0.1"), listener.port(), QLatin1String(user), QStringLiteral("p:w")});
    }
    // Until the proxy has been asked.
    QByteArray connect(const char* host, quint16 port = 80)
    {
        socket->connectToHost(QString::fromUtf8(host), port);
        EXPECT_TRUE(waitFor([&] {
            if (!proxy.isOpen())
                proxy = listener.accept();
            return proxy.isOpen() && proxy.received().endsWith("\r\n\r\n");
        })) << problem();
        return proxy.take();
    }
};
} // namespace

TEST(ProxyTunnel, AsksForTheHostAndOpensInWhateverPiecesTheAnswerComes)
{
    const QByteArray answers[] = {"HTTP/1.1 200 Connection established\r\n\r\n", "HTTP/1.0 200\n\n",
        "HTTP/1.1 100 Go on\r\n\r\nHTTP/1.1 204 Fine\r\nContent-Length: 7\r\nA: b\r\n\r\n"};
    for (const QByteArray& answer : answers) {
        const QByteArray all = answer + "\nof the host";
        for (int cut = 0; cut <= all.size(); ++cut) {
            Way way;
            EXPECT_EQ(way.connect("cam.test", 8080),
                QByteArray("CONNECT cam.test:8080 HTTP/1.1\r\nHost: cam.test:8080\r\n\r\n"));
            way.proxy.write(all.left(cut));
            settle(1);
            if (cut < answer.size()) {
                EXPECT_EQ(way.connections, 0) << cut;
                EXPECT_EQ(way.socket->getState(), NuvikaTcpSocket::eConnecting);
                EXPECT_FALSE(way.socket->sendData("x", 1) || way.socket->canSend());
            }
            way.proxy.write(all.mid(cut));
            ASSERT_TRUE(waitFor([&] { return way.got == "\nof the host"; })) << cut << way.problem();
            EXPECT_EQ(way.connections, 1);
            EXPECT_EQ(way.socket->getState(), NuvikaTcpSocket::eConnected);
            EXPECT_TRUE(way.socket->sendData("for the host", 12));
            ASSERT_TRUE(waitFor([&] { return way.proxy.received() == "for the host"; }));
            way.proxy.close();
            ASSERT_TRUE(waitFor([&] { return way.ends.size() == 1; })) << "as any connection's end";
            way.socket->close();
            way.connect("cam.test");
        }
    }
}

TEST(ProxyTunnel, NamesHostsAndUsersAsTheyAreWrittenThere)
{
    const struct {
        const char* user;
        const char* host;
        const char* request;
    } rows[] = {
        {"", "192.168.1.7", "CONNECT 192.168.1.7:80 HTTP/1.1\r\nHost: 192.168.1.7:80\r\n\r\n"},
        {"", "fe80::1%lo", "CONNECT [fe80::1]:80 HTTP/1.1\r\nHost: [fe80::1]:80\r\n\r\n"},
        {"", "b\u00fcro.test", "CONNECT xn--bro-hoa.test:80 HTTP/1.1\r\nHost: xn--bro-hoa.test:80\r\n\r\n"},
        {"us\u00e9r", "cam_7",
            "CONNECT cam_7:80 HTTP/1.1\r\nHost: cam_7:80\r\nProxy-Authorization: Basic "
            "dXPDg8KpcjpwOnc=\r\n\r\n"},
    };
    for (const auto& row : rows) {
        Way way(row.user);
        EXPECT_EQ(way.connect(row.host), QByteArray(row.request));
    }
    for (const char* host : {"", "a b", "a\r\nX: y", "a/b"}) {
        Way way;
        way.socket->connectToHost(QString::fromUtf8(host), 80);
        EXPECT_TRUE(way.errors.empty()) << "never inside the call";
        ASSERT_TRUE(waitFor([&] { return way.isSettled(); })) << host;
        EXPECT_EQ(way.errors, std::vector<int>{11001}) << host;
        EXPECT_FALSE(way.listener.accept().isOpen()) << host;
    }
}

TEST(ProxyTunnel, EndsInASentenceWhereTheProxyDoesNotHelp)
{
    enum How { eAnswers, eCloses, eResets, eIsSilent, eIsSlow, eIsAway };
    const QByteArray endless = "HTTP/1.1 200 Yes\r\n" + QByteArray(70000, 'x');
    const QByteArray interim("HTTP/1.1 100 \r\n\r\n");
    const struct {
        QByteArray answer;
        int code;
        const char* words;
        How how = eAnswers;
        const char* user = "";
    } rows[] = {
        {"HTTP/1.1 407 Who are you\r\nProxy-Authenticate: Basic realm=\"x\"\r\nContent-Length: 4\r\n\r\nbody",
            10061, "refuses a way to cam.test:80: 407 Who are you (it asks for user and password)"},
        {"HTTP/1.1 407 No\r\n\r\n", 10061, "407 No (user or password are not accepted)", eAnswers, "user"},
        {"HTTP/1.1 403 \x1b[2J\xff\r\n\r\n", 10061, "refuses a way to cam.test:80: 403 ?[2J?"},
        {"HTTP/1.0 502\n\n", 10061, "refuses a way to cam.test:80: 502"},
        {"HTTP/1.1 302 Found\r\nLocation: http://x/\r\n\r\n", 10061, ": 302 Found"},
        {"SSH-2.0-x", 10053, "sends what is no answer to CONNECT"},
        {"HTTP/1.1 2000 x\r\n\r\n", 10053, "no answer"},
        {"HTTP/1.1 -20 x\r\n\r\n", 10053, "no answer"},
        {"HTTP/1.1\r\n\r\n", 10053, "no answer"},
        {"\r\n\r\n", 10053, "no answer"},
        {interim + "no HTTP", 10053, "no answer"},
        {endless, 10053, "no answer"},
        {endless + "\r\n\r\n", 10053, "no answer"},
        {interim.repeated(5000), 10053, "no answer"},
        {"", 10053, "ended the connection without an answer", eCloses},
        {"HTTP/1.1 200 Yes\r\nA: b\r\n", 10053, "ended the connection without an answer", eCloses},
        {"HTTP", 10054, "Connection reset by peer", eResets},
        {"HTTP/1.1 200 Yes\r\n", 10060, "did not answer within 10 seconds", eIsSilent},
        {"HTTP/1.1 200 Yes\r\n", 10060, "did not open a way to cam.test:80 within 150 ms", eIsSlow},
        {"", 10061, ": Connection refused", eIsAway},
    };
    for (const auto& row : rows) {
        Way way(row.user);
        const std::string proxy = "the proxy 127.0.0.1:" + std::to_string(way.listener.port());
        way.socket->setConnectTimeLimit(row.how == eIsSlow ? 150 : 0);
        if (row.how == eIsAway) {
            way.listener.close();
            way.socket->connectToHost(QStringLiteral("cam.test"), 80);
        } else {
            way.connect("cam.test");
        }
        way.proxy.write(row.answer);
        settle(5);
        if (row.how == eCloses)
            way.proxy.close();
        else if (row.how == eResets)
            way.proxy.reset();
        else if (row.how == eIsSilent)
            seams::clockOffsetMs += 10500;
        ASSERT_TRUE(waitFor([&] { return way.isSettled(); })) << row.words;
        settle(row.how == eIsSilent ? 600 : 1);
        EXPECT_EQ(way.errors, std::vector<int>{row.code}) << row.words << ": " << way.problem();
        EXPECT_EQ(way.problem().find(proxy), 0U) << way.problem();
        EXPECT_NE(way.problem().find(row.words), std::string::npos) << way.problem();
        EXPECT_EQ(way.connections + way.ends.size(), 0U);
        EXPECT_EQ(way.socket->getState(), NuvikaTcpSocket::eError);
        EXPECT_TRUE(waitFor([&] { return !way.proxy.isOpen() || way.proxy.atEnd(); })) << "it is let go";
        way.socket->close();
        EXPECT_EQ(way.socket->getState(), NuvikaTcpSocket::eUnconnected);
    }
}

TEST(ProxyTunnel, AHandlerMayEndItsSocket)
{
    for (const char* answer : {"HTTP/1.1 200 \r\n\r\nrest", "HTTP/1.1 502 \r\n\r\nrest"}) {
        for (const bool bDeletes : {true, false}) {
            Way way;
            way.onConnected = way.onError = [&] { bDeletes ? way.socket.reset() : way.socket->close(); };
            way.connect("cam.test");
            way.proxy.write(answer);
            ASSERT_TRUE(waitFor([&] { return way.isSettled() && way.proxy.atEnd(); }));
            settle(5);
            EXPECT_EQ(way.connections + way.errors.size() + way.got.size(), 1U) << "told more than once";
        }
    }
}
