#include "http/HttpExchange.h"
#include "net/SslTalkers.h"
#include "support/LogCapture.h"

#include <KepNuvikaUtil/HttpsClient.h>

#include <QtCore/QBuffer>
#include <QtNetwork/QSslCertificate>

#include <sys/socket.h>

namespace
{
using PlainExchange = ExchangeOf<HttpsClient>;

// A server behind TLS: each connection answers each request head by what it is told.
struct TlsServer : Server {
    QStringList requests;
    int nDescriptor = -1; // of the last connection
    std::function<void(Talker&)> onRequest;

    explicit TlsServer(const QString& certificate) : Server({Ssl::eSslAny12, certificate, {}, false})
    {
        QObject::connect(&listener, &NuvikaTcpServer::newConnectionDesc, [this](int descriptor) {
            nDescriptor = descriptor;
            last().onData = [this, &talker = last()] {
                for (int end = 0; (end = talker.got.indexOf("\r\n\r\n")) >= 0;) {
                    requests << QString::fromLatin1(talker.got.left(end + 4));
                    talker.got.remove(0, end + 4);
                    onRequest(talker);
                }
            };
        });
    }
    void answersAll(const QByteArray& bytes)
    {
        onRequest = [bytes](Talker& talker) { talker.send(bytes); };
    }
};

struct TlsExchange : Told {
    TlsServer server;
    HttpsClient client;

    explicit TlsExchange(const QString& certificate = certificates().forLocalhost())
        : server(certificate),
          client(QStringLiteral("127.0.0.1"), server.listener.serverPort(), true, NuvikaSslSocket::eSslAny12,
              QString(), certificates().authority(), QString())
    {
        watch(client);
    }
    int get(const char* path = "/") { return client.get(QLatin1String(path), QString(), QString(), true); }
};
} // namespace

TEST(HttpsClient, SendsJsonAndFieldsOfTheCallers)
{
    PlainExchange x;
    const QByteArray host = "Host: 127.0.0.1:" + QByteArray::number(x.listener.port()) + "\r\n";
    x.client->getJSON(QStringLiteral("/j"), QString(), QString(), true);
    EXPECT_EQ(x.request(),
        "GET /j HTTP/1.1\r\n" + host
            + "Connection: keep-alive\r\nKeep-Alive: 300\r\nAccept: application/json\r\n\r\n");
    x.server.write(sized("{}"));
    ASSERT_TRUE(x.expect({"head1 200", "done1 200 {}"}));
    for (const bool bPut : {false, true}) {
        if (bPut)
            x.client->putJSON(QStringLiteral("/j"), "[1]", QString(), QString(), true);
        else
            x.client->postJSON(QStringLiteral("/j"), "[1]", QString(), QString(), true);
        EXPECT_EQ(x.request("[1]"),
            QByteArray(bPut ? "PUT" : "POST") + " /j HTTP/1.1\r\n" + host
                + "Accept: application/json\r\nCache-Control: no-cache\r\ncontent-type: application/json\r\n"
                  "content-length: 3\r\n\r\n[1]");
        x.server.write(sized(""));
        ASSERT_TRUE(x.sees(bPut ? "done3 200 " : "done2 200 "));
    }
    x.client->getWithHeaderFields(QStringLiteral("/f"),
        {{QStringLiteral("X-Camera"), QStringLiteral("7")},
            {QStringLiteral("connection"), QStringLiteral("close")}},
        QString(), QString(), true);
    EXPECT_EQ(x.request(),
        "GET /f HTTP/1.1\r\n" + host + "Connection: close\r\nKeep-Alive: 300\r\nX-Camera: 7\r\n\r\n");
}

TEST(HttpsClient, UploadsFormsWhoseHeadEndsEarly)
{
    PlainExchange x;
    std::srand(1);
    const int first = std::rand() % 100000;
    std::srand(1);
    const auto upload = [&x](const QString& user, const QString& password) {
        return x.client->postMultipartFormData(QStringLiteral("/up"), "BYTES%1",
            QStringLiteral("name=\"f\"; filename=\"a.bin\""), QStringLiteral("image/jpeg"), user, password);
    };
    upload(QString(), QString());
    const QByteArray boundary = "----------------nuvika" + QByteArray::number(first);
    const QByteArray body = "--" + boundary
        + "\r\nContent-Disposition: form-data; name=\"f\"; filename=\"a.bin\"\r\nContent-Type: "
          "image/jpeg\r\n\r\n"
          "BYTES%1\r\n--"
        + boundary + "--\r\n";
    EXPECT_EQ(x.request("--\r\n"),
        "POST /up HTTP/1.1\r\nCache-Control: no-cache\r\nHost: 127.0.0.1:"
            + QByteArray::number(x.listener.port()) + "\r\nContent-Type: multipart/form-data; boundary="
            + boundary + "\r\nAccept: */*\r\ncontent-length: " + QByteArray::number(body.size())
            + "\r\nConnection: Keep-Alive\r\n\r\n\r\n" + body);
    x.server.write(sized(""));
    ASSERT_TRUE(x.sees("done1 200 "));

    // Credentials stand before the value that ends the head: at once, and in answer to a challenge.
    const auto headOf = [](const QByteArray& request) { return request.left(request.indexOf("\r\n\r\n")); };
    upload(kUser, kPassword);
    const QByteArray basic = x.request("--\r\n");
    EXPECT_TRUE(headOf(basic).contains("\r\nAuthorization: Basic dXNlcjpzZWNyZXQ=\r\n")) << basic.constData();
    EXPECT_TRUE(headOf(basic).endsWith("Connection: Keep-Alive"));
    EXPECT_FALSE(basic.contains("boundary=" + boundary + "\r\n")) << "each has a boundary of its own";
    x.server.write(denied("Digest realm=\"r\", nonce=\"n\", qop=\"auth\""));
    const QByteArray digest = x.request("--\r\n");
    EXPECT_TRUE(headOf(digest).contains("\r\nAuthorization: Digest username=\"user\"")) << digest.constData();
    EXPECT_TRUE(headOf(digest).endsWith("Connection: Keep-Alive"));
    x.server.write(sized(""));
    ASSERT_TRUE(x.sees("done2 200 "));
}

TEST(HttpsClient, TracesUnderItsOwnNameButOnce)
{
    PlainExchange x;
    LogCapture log;
    x.client->get(QStringLiteral("/"), kUser, kPassword, true);
    const int second = x.client->get(QStringLiteral("/2"), QString(), QString(), true);
    const int third = x.client->get(QStringLiteral("/3"), QString(), QString(), true);
    x.client->discardNonePendingRequest(third);
    x.request();
    EXPECT_TRUE(log.has("HttpsClient::triggerNextRequest(): connect to host "));
    EXPECT_TRUE(log.has("HttpClient::triggerNextRequest(): id=1;preset \"Authorization\":Basic"));
    EXPECT_TRUE(log.has("HttpsClient::discardNonePendingRequest: remove request; id:3"));
    x.client->shutdown();
    EXPECT_TRUE(log.has("HttpsClient::shutdown: remove pending request; id:2")) << second;
    EXPECT_FALSE(log.has("HttpsClient::shutdownSsl")) << "a plain client touches no TLS";
    settle();
    EXPECT_TRUE(x.events.isEmpty()) << "and shutdown() says nothing";
}

TEST(HttpsClient, FetchesOverOneTlsConnection)
{
    TlsExchange x;
    const QByteArray large(3000000, 'L');
    x.server.onRequest = [&](Talker& talker) {
        const QString& head = x.server.requests.last();
        const bool bIn
            = head.startsWith(QLatin1String("GET /large")) || head.contains(QLatin1String(": Digest"));
        talker.send(bIn ? sized(large) : denied("Digest realm=\"r\", nonce=\"n\", qop=\"auth\""));
    };
    LogCapture log;
    const QString done = QStringLiteral("done1 200 ") + QString::fromLatin1(large);
    x.get("/large");
    ASSERT_TRUE(waitFor([&] { return x.events.contains(done); }));
    EXPECT_TRUE(log.has("HttpsClient::initSsl(): protocol=0"));
    x.client.get(QStringLiteral("/login"), kUser, kPassword, true);
    ASSERT_TRUE(x.sees("head2 200"));
    EXPECT_EQ(x.server.talkers.size(), 1U);
    EXPECT_EQ(x.client.peerCertificate().subject, QLatin1String("CN=cam-7"));
    EXPECT_EQ(x.client.lastPeerAddress(), QHostAddress(QHostAddress::LocalHost));
    x.client.shutdown();
    EXPECT_TRUE(log.has("HttpsClient::shutdownSsl():"));
    x.get("/large");
    ASSERT_TRUE(x.sees("head3 200"));
    EXPECT_EQ(x.server.talkers.size(), 2U);
    EXPECT_TRUE(x.server.last().socket->isSessionResumed());
}

TEST(HttpsClient, GivesUpOnWhomItCannotTrustUntilToldBetter)
{
    Certificates others(QStringLiteral("Somebody else"));
    TlsExchange x(others.forLocalhost());
    x.server.answersAll(sized("ok"));
    x.client.get(QStringLiteral("/"), kUser, kPassword, true);
    ASSERT_TRUE(x.expect({"error 10013", "error 10013", "error 10013", "failed1"})) << "three losses";
    EXPECT_EQ(x.client.errorString().toStdString(),
        "the certificate of 127.0.0.1 was issued by CN=Somebody else, which is not trusted");
    EXPECT_TRUE(x.server.requests.isEmpty()) << "no password has left";

    x.client.setCertificateFilePath(others.authority());
    x.get();
    ASSERT_TRUE(x.expect({"head2 200", "done2 200 ok"}));
    x.client.shutdown();
    x.client.setCertificateFilePath(QString());
    x.client.setCertificateVerificationMode(NuvikaSslSocket::eVerifyNone);
    x.get();
    ASSERT_TRUE(x.expect({"head3 200", "done3 200 ok"}));
    x.client.shutdown();

    LogCapture log;
    x.client.setCertificateFileName(QStringLiteral("missing.pem"));
    x.get();
    ASSERT_TRUE(x.expect({"error 10053", "error 10053", "error 10053", "failed4"}));
    EXPECT_EQ(log.count("HttpsClient::connectToHost(): initSsl() failed"), 3);
    EXPECT_TRUE(x.client.errorString().contains(QLatin1String("missing.pem")));

    x.client.setRetryPolicy({HttpRetryPolicy::eIdempotent, 0}); // another attempt cannot help
    x.get();
    ASSERT_TRUE(x.expect({"error 10053", "failed5"}));
    EXPECT_EQ(x.client.failureOf(5).reason, HttpFailure::eTls);
    x.client.setCertificateFileName(QString());
    x.client.setCertificateVerificationMode(NuvikaSslSocket::eVerifyChainAndHost);
    x.get();
    ASSERT_TRUE(x.expect({"error 10013", "failed6"}));
    EXPECT_EQ(x.client.failureOf(6).reason, HttpFailure::eCertificate);
}

TEST(HttpsClient, BodiesMayEndWithTheConnection)
{
    const struct {
        QByteArray answer;
        bool bGoodbye; // of TLS: whoever sits on the path can end a connection without it
        const char* told;
        bool bMayBeCut;
    } cases[] = {{ok("", "until the end"), true, "done1 200 until the end", false},
        {ok("", "until "), false, "done2 200 until ", true},
        {ok("content-length: 100\r\n", "not all of it"), true, "failed3", false}};
    TlsExchange x;
    for (const auto& c : cases) {
        x.server.onRequest = [&](Talker& talker) {
            talker.send(c.answer);
            if (c.bGoodbye)
                talker.socket->close();
            else
                ::shutdown(x.server.nDescriptor, SHUT_WR);
        };
        x.get();
        ASSERT_TRUE(x.sees(c.told));
        EXPECT_EQ(x.client.lastAnswerMayBeCut(), c.bMayBeCut) << c.told;
    }
    EXPECT_EQ(x.server.requests.size(), 5) << "three times too short";
}

TEST(HttpsClient, AnUploadLeavesAsATlsServerTakesItAndEndsWithItsLastByte)
{
    constexpr int kSize = 16 << 20;
    for (const bool bDevice : {true, false}) {
        TlsExchange x;
        x.server.onRequest = [](Talker& talker) { talker.socket->stallRecv(); };
        QBuffer source;
        source.setData(QByteArray(kSize, 'u'));
        source.open(QIODevice::ReadOnly);
        HttpRequestHeader header(QStringLiteral("PUT"), QStringLiteral("/up"));
        header.setContentLength(kSize);
        const int id = bDevice ? x.client.upload(header, &source)
                               : x.client.request(header, false, nullptr, QString(), QString(), 0);
        ASSERT_TRUE(waitFor([&] { return !x.server.requests.isEmpty(); }));
        Talker& talker = x.server.last();
        qint64 nReceived = talker.got.size();
        talker.onData = [&] { nReceived += std::exchange(talker.got, QByteArray()).size(); };
        if (!bDevice) {
            EXPECT_TRUE(x.client.sendUploadContentChunk(id, source.data().constData(), kSize, true));
            x.client.sendEndOfUploadContent();
        }
        settle(bDevice ? 100 : 5300); // the time limit is 5 s, from when everything has left
        EXPECT_TRUE(x.events.isEmpty());
        EXPECT_LT(source.pos(), kSize / 2) << "nobody reads, so it is not read";
        EXPECT_GT(x.client.bytesToUpload(), 0);
        talker.socket->resumeRecv();
        if (bDevice) {
            ASSERT_TRUE(waitFor([&] { return source.atEnd() && x.client.bytesToUpload() == 0; }));
            talker.send(sized("ok"));
        }
        ASSERT_TRUE(x.sees(bDevice ? "done1 200 ok" : "upload ended"));
        EXPECT_EQ(nReceived, kSize);
    }
}

TEST(HttpsClient, TrustsWhatIsPinnedAndWhomItsOwnerAccepts)
{
    Certificates others(QStringLiteral("Somebody else"));
    TlsExchange x(others.forLocalhost());
    x.server.answersAll(sized("ok"));
    const QByteArray shown
        = QSslCertificate::fromPath(others.forLocalhost()).value(0).digest(QCryptographicHash::Sha256);
    x.client.setPins({TlsPin::certificate(shown)});
    x.get();
    ASSERT_TRUE(x.expect({"head1 200", "done1 200 ok"}));
    x.client.shutdown();
    x.client.setPins({});
    bool bGoOn = false;
    x.client.setVerdictHandler([&](const NuvikaSslSocket::PeerChain&) { return std::exchange(bGoOn, true); });
    x.client.get(QStringLiteral("/"), kUser, kPassword, true);
    ASSERT_TRUE(x.expect({"error 10013", "head2 200", "done2 200 ok"})) << "each try is asked about";
    x.client.shutdown();
    x.client.setVerdictHandler([&](const NuvikaSslSocket::PeerChain&) { return x.client.shutdown(), true; });
    x.get();
    settle(100);
    EXPECT_TRUE(x.events.isEmpty()) << "shut down by the handler";
    EXPECT_EQ(x.server.requests.size(), 2);
}

TEST(HttpsClient, GoesThroughAProxyAndKnowsTheServerBehindIt)
{
    const QString cam = QStringLiteral("cam.test"); // which only the proxy can resolve
    const QString certificate = certificates().issue({cam, QStringLiteral("DNS:cam.test")});
    const struct {
        QString host;
        bool bTls;
        QStringList told;
    } rows[] = {{cam, true, list({"head1 200", "done1 200 ok"})},
        {cam, false, list({"head1 200", "done1 200 ok"})},
        {QStringLiteral("other.test"), true, list({"error 10013", "error 10013", "error 10013", "failed1"})}};
    for (const auto& row : rows) {
        Exchange x; // whose server is the proxy, and then what lies behind it
        HttpClient clear(row.host, 443, true);
        HttpsClient secure(row.host, 443, true, NuvikaSslSocket::eSslAny12, QString(),
            certificates().authority(), QString());
        HttpClientBase& client = row.bTls ? static_cast<HttpClientBase&>(secure) : clear;
        x.watch(client);
        client.setProxy(QStringLiteral("[127.0.0.1]"), x.listener.port(), kUser, kPassword);
        const auto meetProxy = [&](const QByteArray& answer) {
            const QByteArray asked = x.request();
            EXPECT_TRUE(asked.startsWith("CONNECT " + row.host.toLatin1() + ":443 ")) << asked.constData();
            EXPECT_TRUE(asked.contains("\r\nProxy-Authorization: Basic dXNlcjpzZWNyZXQ=\r\n"));
            x.server.write("HTTP/1.1 " + answer + "\r\n\r\n");
        };
        client.get(QStringLiteral("/"), QString(), QString(), true);
        for (int nMet = 0; nMet == 0 || (nMet < 3 && row.told.size() > 2); ++nMet) {
            meetProxy("200 Here you are");
            PlainTls tls(true, TLS1_3_VERSION, certificate);
            EXPECT_TRUE(waitFor([&] {
                const QByteArray got = x.server.take();
                const QByteArray plain = row.bTls ? tls.feed(got) : got;
                if (!plain.isEmpty() && row.bTls)
                    SSL_write(tls.ssl, sized("ok").constData(), sized("ok").size());
                x.server.write(row.bTls ? tls.output() : plain.isEmpty() ? plain : sized("ok"));
                return x.events.size() > nMet;
            }));
        }
        x.expect(row.told);
        client.shutdown();
        client.get(QStringLiteral("/"), QString(), QString(), true);
        for (int i = 0; i < 3; ++i)
            meetProxy("403 Not you");
        x.expect({"error 10061", "error 10061", "error 10061", "failed2"});
        EXPECT_TRUE(client.errorString().endsWith(QLatin1String(": 403 Not you")));
        EXPECT_EQ(client.failureOf(2).reason, HttpFailure::eProxy);
    }
}
