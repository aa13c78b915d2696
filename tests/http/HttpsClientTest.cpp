#include "http/HttpExchange.h"
#include "support/Certificates.h"
#include "support/LogCapture.h"

#include <KepNuvikaUtil/HttpsClient.h>
#include <KepNuvikaUtil/NuvikaTcpServer.h>

#include <QtCore/QBuffer>
#include <QtNetwork/QSslCertificate>

#include <sys/socket.h>

namespace
{
using PlainExchange = ExchangeOf<HttpsClient>;

// A server behind TLS: each connection answers each request head by what it is told.
struct TlsServer {
    struct Connection {
        NuvikaSslSocket socket;
        int descriptor;
        QByteArray got;
    };
    NuvikaTcpServer listener;
    std::vector<std::unique_ptr<Connection>> connections;
    QStringList requests;
    std::function<void(Connection&, const QByteArray& head)> onRequest;

    explicit TlsServer(const QString& certificate = certificates().forLocalhost())
    {
        QObject::connect(&listener, &NuvikaTcpServer::newConnectionDesc, [this, certificate](int descriptor) {
            connections.push_back(std::make_unique<Connection>());
            Connection& c = *connections.back();
            c.descriptor = descriptor;
            QObject::connect(
                &c.socket, &NuvikaSslSocket::dataReceived, [this, &c](const char* data, int size, Marker) {
                    c.got.append(data, size);
                    for (int end = 0; (end = c.got.indexOf("\r\n\r\n")) >= 0;) {
                        const QByteArray head = c.got.left(end + 4);
                        c.got.remove(0, end + 4);
                        requests << QString::fromLatin1(head);
                        onRequest(c, head);
                    }
                });
            c.socket.initSsl(true, NuvikaSslSocket::eSslAny12, certificate, QString(), QString());
            c.socket.setSocketDescriptor(descriptor);
        });
        EXPECT_TRUE(listener.listen(QHostAddress(QHostAddress::LocalHost), 0));
    }
    void answersAll(const QByteArray& bytes)
    {
        onRequest = [bytes](Connection& c, const QByteArray&) { answer(c, bytes); };
    }
    static void answer(Connection& c, const QByteArray& bytes)
    {
        EXPECT_TRUE(c.socket.sendData(bytes.constData(), bytes.size()));
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
    x.server.onRequest = [&](TlsServer::Connection& c, const QByteArray& head) {
        const bool bIn = head.startsWith("GET /large") || head.contains("Authorization: Digest");
        TlsServer::answer(c, bIn ? sized(large) : denied("Digest realm=\"r\", nonce=\"n\", qop=\"auth\""));
    };
    LogCapture log;
    const QString done = QStringLiteral("done1 200 ") + QString::fromLatin1(large);
    x.get("/large");
    ASSERT_TRUE(waitFor([&] { return x.events.contains(done); }));
    EXPECT_TRUE(log.has("HttpsClient::initSsl(): protocol=0"));
    x.client.get(QStringLiteral("/login"), kUser, kPassword, true);
    ASSERT_TRUE(x.sees("head2 200"));
    EXPECT_EQ(x.server.connections.size(), 1U);
    EXPECT_EQ(x.client.peerCertificate().subject, QLatin1String("CN=cam-7"));
    EXPECT_EQ(x.client.lastPeerAddress(), QHostAddress(QHostAddress::LocalHost));
    x.client.shutdown();
    EXPECT_TRUE(log.has("HttpsClient::shutdownSsl():"));
    x.get("/large");
    ASSERT_TRUE(x.sees("head3 200"));
    EXPECT_EQ(x.server.connections.size(), 2U);
    EXPECT_TRUE(x.server.connections.back()->socket.isSessionResumed());
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
        x.server.onRequest = [&](TlsServer::Connection& connection, const QByteArray&) {
            TlsServer::answer(connection, c.answer);
            if (c.bGoodbye)
                connection.socket.close();
            else
                ::shutdown(connection.descriptor, SHUT_WR);
        };
        x.get();
        ASSERT_TRUE(x.sees(c.told));
        EXPECT_EQ(x.client.lastAnswerMayBeCut(), c.bMayBeCut) << c.told;
    }
    EXPECT_EQ(x.server.requests.size(), 5) << "three times too short";
}

TEST(HttpsClient, AnUploadOverTlsEndsWhenAllOfItHasLeft)
{
    TlsExchange x;
    qint64 nReceived = 0;
    TlsServer::Connection* pServer = nullptr;
    x.server.onRequest = [&](TlsServer::Connection& c, const QByteArray&) {
        pServer = &c;
        c.socket.stallRecv();
        QObject::connect(&c.socket, &NuvikaSslSocket::dataReceived, [&](const char*, int size, Marker) {
            nReceived += size;
            pServer->got.clear();
        });
    };
    HttpRequestHeader header(QStringLiteral("PUT"), QStringLiteral("/up"));
    const QByteArray much(16 << 20, 'u');
    header.setContentLength(much.size());
    const int id = x.client.request(header, false, nullptr, QString(), QString(), 0);
    ASSERT_TRUE(waitFor([&] { return pServer != nullptr; }));
    EXPECT_TRUE(x.client.sendUploadContentChunk(id, much.constData(), much.size(), true));
    x.client.sendEndOfUploadContent();
    settle(5300); // the time limit is 5 s, from when everything has left
    EXPECT_TRUE(x.events.isEmpty());
    pServer->socket.resumeRecv();
    ASSERT_TRUE(x.sees("upload ended"));
    EXPECT_EQ(nReceived, much.size());
}

TEST(HttpsClient, ADeviceIsReadAsATlsServerTakesIt)
{
    TlsExchange x;
    TlsServer::Connection* pServer = nullptr;
    QByteArray got;
    x.server.onRequest = [&](TlsServer::Connection& c, const QByteArray&) {
        pServer = &c;
        c.socket.stallRecv();
        QObject::connect(&c.socket, &NuvikaSslSocket::dataReceived, [&](const char* data, int size, Marker) {
            pServer->got.clear();
            got.append(data, size);
        });
    };
    QBuffer source;
    source.setData(QByteArray(16 << 20, 'u'));
    source.open(QIODevice::ReadOnly);
    x.client.upload(HttpRequestHeader(QStringLiteral("PUT"), QStringLiteral("/up")), &source);
    ASSERT_TRUE(waitFor([&] { return pServer != nullptr; }));
    settle(100);
    EXPECT_LT(source.pos(), 8 << 20) << "nobody reads, so it is not read";
    EXPECT_GT(x.client.bytesToUpload(), 0);
    pServer->socket.resumeRecv();
    ASSERT_TRUE(waitFor([&] { return source.atEnd() && x.client.bytesToUpload() == 0; }));
    TlsServer::answer(*pServer, sized("ok"));
    ASSERT_TRUE(x.sees("done1 200 ok"));
    EXPECT_TRUE(got.endsWith("uuuu") && got.size() > 8 << 20) << "what came with the head aside";
}

TEST(HttpsClient, FormsWhoseFieldsHoldALineEndAreRefused)
{
    PlainExchange x;
    const QString good = QStringLiteral("name=\"f\"");
    const QString bad = QStringLiteral("image/jpeg\r\nX: y");
    x.client->postMultipartFormData(QStringLiteral("/"), "x", good, bad, QString(), QString());
    ASSERT_TRUE(x.expect({"failed1"}));
    x.client->postMultipartFormData(QStringLiteral("/"), "x", bad, good, QString(), QString());
    ASSERT_TRUE(x.expect({"failed2"}));
    EXPECT_EQ(x.client->errorString().toStdString(), "the disposition holds a line end or a NUL");
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
    x.client.setPins({TlsPin::publicKey(shown)});
    x.client.get(QStringLiteral("/"), kUser, kPassword, true);
    ASSERT_TRUE(x.expect({"error 10013", "error 10013", "error 10013", "failed2"}));
    EXPECT_TRUE(x.client.errorString().contains(TlsPin::certificate(shown).toText()));

    x.client.setPins({});
    bool bGoOn = false;
    x.client.setVerdictHandler([&](const NuvikaSslSocket::PeerChain&) { return std::exchange(bGoOn, true); });
    x.client.get(QStringLiteral("/"), kUser, kPassword, true);
    ASSERT_TRUE(x.expect({"error 10013", "head3 200", "done3 200 ok"})) << "each try is asked about";
    x.client.shutdown();
    x.client.setVerdictHandler([&](const NuvikaSslSocket::PeerChain&) { return x.client.shutdown(), true; });
    x.get();
    settle(100);
    EXPECT_TRUE(x.events.isEmpty()) << "shut down by the handler";
    EXPECT_EQ(x.server.requests.size(), 2);
}

namespace
{
// A proxy that leads to one server, whatever it is asked for.
struct Relay {
    RawListener listener;
    RawSocket client, server;
    QByteArray asked;

    void work(unsigned short serverPort, const QByteArray& answer = "HTTP/1.1 200 Here you are\r\n\r\n")
    {
        RawSocket next = listener.accept();
        if (next.isOpen()) {
            client = std::move(next);
            server.close();
            client.take();
        }
        if (!server.isOpen() && client.isOpen() && client.received().endsWith("\r\n\r\n")) {
            asked = client.take();
            client.write(answer);
            server = RawSocket::connectTo(serverPort);
        }
        if (server.isOpen()) {
            server.write(client.take());
            client.write(server.take());
        }
    }
};
} // namespace

TEST(HttpsClient, GoesThroughAProxyAndKnowsTheServerBehindIt)
{
    const QString name = QStringLiteral("cam.test"); // which only the proxy can resolve
    TlsServer server(certificates().issue({name, QStringLiteral("DNS:cam.test")}));
    server.answersAll(sized("ok"));
    RawListener plain;
    Told told;
    HttpsClient secure(name, server.listener.serverPort(), true, NuvikaSslSocket::eSslAny12, QString(),
        certificates().authority(), QString());
    HttpsClient other(QStringLiteral("other.test"), 443, true, NuvikaSslSocket::eSslAny12, QString(),
        certificates().authority(), QString());
    HttpClient clear(name, 80, true);
    const struct {
        HttpClientBase& client;
        unsigned short port;
        const char* asked;
        QStringList told;
    } rows[] = {
        {secure, server.listener.serverPort(), "CONNECT cam.test:", list({"head1 200", "done1 200 ok"})},
        {other, server.listener.serverPort(), "CONNECT other.test:443 ",
            list({"error 10013", "error 10013", "error 10013", "failed1"})},
        {clear, plain.port(), "CONNECT cam.test:80 ", list({"head1 200", "done1 200 ok"})},
    };
    for (const auto& row : rows) {
        Relay relay;
        told.watch(row.client);
        row.client.setProxy(QStringLiteral("[127.0.0.1]"), relay.listener.port(), kUser, kPassword);
        row.client.get(QStringLiteral("/"), QString(), QString(), true);
        RawSocket peer; // of the plain client
        EXPECT_TRUE(waitFor([&] {
            relay.work(row.port);
            if (!peer.isOpen())
                peer = plain.accept();
            if (peer.isOpen() && !peer.take().isEmpty())
                peer.write(sized("ok"));
            return told.events.size() >= row.told.size();
        })) << row.asked;
        EXPECT_EQ(std::exchange(told.events, {}), row.told) << row.client.errorString().toStdString();
        EXPECT_TRUE(relay.asked.startsWith(row.asked)) << relay.asked.constData();
        EXPECT_TRUE(relay.asked.contains("\r\nProxy-Authorization: Basic dXNlcjpzZWNyZXQ=\r\n"));
        row.client.shutdown();
        row.client.get(QStringLiteral("/"), QString(), QString(), true);
        waitFor([&] {
            relay.work(row.port, "HTTP/1.1 403 Not you\r\n\r\n");
            return told.events.contains(QStringLiteral("failed2"));
        });
        EXPECT_EQ(
            std::exchange(told.events, {}), list({"error 10061", "error 10061", "error 10061", "failed2"}));
        EXPECT_TRUE(row.client.errorString().endsWith(QLatin1String(": 403 Not you")));
        EXPECT_EQ(row.client.failureOf(2).reason, HttpFailure::eProxy);
    }
    EXPECT_EQ(server.requests.size(), 1);
}
