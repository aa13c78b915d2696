#include "http/HttpExchange.h"
#include "support/Certificates.h"
#include "support/LogCapture.h"

#include <KepNuvikaUtil/HttpsClient.h>
#include <KepNuvikaUtil/NuvikaTcpServer.h>

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
    static void answer(Connection& c, const QByteArray& bytes)
    {
        EXPECT_TRUE(c.socket.sendData(bytes.constData(), bytes.size()));
    }
    std::unique_ptr<HttpsClient> client(const QString& trusted = certificates().authority())
    {
        return std::make_unique<HttpsClient>(QStringLiteral("127.0.0.1"), listener.serverPort(), true,
            NuvikaSslSocket::eSslAny12, QString(), trusted, QString());
    }
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
    TlsServer server;
    const QByteArray large(3000000, 'L');
    server.onRequest = [&](TlsServer::Connection& c, const QByteArray& head) {
        if (head.startsWith("GET /large"))
            TlsServer::answer(c, sized(large));
        else if (!head.contains("Authorization: Digest"))
            TlsServer::answer(c, denied("Digest realm=\"r\", nonce=\"n\", qop=\"auth\""));
        else
            TlsServer::answer(
                c, "HTTP/1.1 200 OK\r\ntransfer-encoding: chunked\r\n\r\n3\r\nabc\r\n0\r\n\r\n");
    };
    auto client = server.client();
    Told events;
    events.watch(*client);
    LogCapture log;
    client->get(QStringLiteral("/large"), QString(), QString(), true);
    ASSERT_TRUE(waitFor([&] { return events.events.size() == 2; }));
    EXPECT_TRUE(events.events[1] == QStringLiteral("done1 200 ") + QString::fromLatin1(large));
    EXPECT_TRUE(log.has("HttpsClient::initSsl(): protocol=0"));
    client->get(QStringLiteral("/login"), kUser, kPassword, true);
    ASSERT_TRUE(events.sees("done2 200 abc"));
    EXPECT_EQ(server.connections.size(), 1U);
    EXPECT_EQ(client->peerCertificate().subject, QLatin1String("CN=cam-7"));
    EXPECT_EQ(client->lastPeerAddress(), QHostAddress(QHostAddress::LocalHost));
    client->shutdown();
    EXPECT_TRUE(log.has("HttpsClient::shutdownSsl():"));
    client->get(QStringLiteral("/large"), QString(), QString(), false);
    ASSERT_TRUE(waitFor([&] { return events.events.size() == 6; }));
    EXPECT_EQ(server.connections.size(), 2U);
    EXPECT_TRUE(server.connections.back()->socket.isSessionResumed());
}

TEST(HttpsClient, GivesUpOnWhomItCannotTrustUntilToldBetter)
{
    Certificates others(QStringLiteral("Somebody else"));
    TlsServer server(others.forLocalhost());
    server.onRequest = [](TlsServer::Connection& c, const QByteArray&) { TlsServer::answer(c, sized("ok")); };
    auto client = server.client();
    Told events;
    events.watch(*client);
    client->get(QStringLiteral("/"), kUser, kPassword, true);
    ASSERT_TRUE(events.expect({"error 10013", "error 10013", "error 10013", "failed1"})) << "three losses";
    EXPECT_EQ(client->errorString().toStdString(),
        "the certificate of 127.0.0.1 was issued by CN=Somebody else, which is not trusted");
    EXPECT_TRUE(server.requests.isEmpty()) << "no password has left";

    client->setCertificateFilePath(others.authority());
    client->get(QStringLiteral("/"), QString(), QString(), false);
    ASSERT_TRUE(events.sees("done2 200 ok"));
    client->shutdown();
    client->setCertificateFilePath(QString());
    client->setCertificateVerificationMode(NuvikaSslSocket::eVerifyNone);
    client->get(QStringLiteral("/"), QString(), QString(), false);
    ASSERT_TRUE(events.sees("done3 200 ok"));
    client->shutdown();

    events.events.clear();
    LogCapture log;
    client->setCertificateFileName(QStringLiteral("missing.pem"));
    client->get(QStringLiteral("/"), QString(), QString(), false);
    ASSERT_TRUE(events.expect({"error 10053", "error 10053", "error 10053", "failed4"}));
    EXPECT_EQ(log.count("HttpsClient::connectToHost(): initSsl() failed"), 3);
    EXPECT_TRUE(client->errorString().contains(QLatin1String("missing.pem")));
}

TEST(HttpsClient, BodiesMayEndWithTheConnection)
{
    TlsServer server;
    server.onRequest = [](TlsServer::Connection& c, const QByteArray&) {
        TlsServer::answer(c, "HTTP/1.1 200 OK\r\n\r\nuntil the end");
        c.socket.close();
    };
    auto client = server.client();
    Told events;
    events.watch(*client);
    client->get(QStringLiteral("/"), QString(), QString(), true);
    ASSERT_TRUE(events.sees("done1 200 until the end"));
    EXPECT_FALSE(client->lastAnswerMayBeCut());
    server.onRequest = [](TlsServer::Connection& c, const QByteArray&) {
        TlsServer::answer(c, "HTTP/1.1 200 OK\r\n\r\nuntil ");
        ::shutdown(c.descriptor, SHUT_WR); // without TLS's goodbye, as whoever sits on the path could do it
    };
    client->get(QStringLiteral("/"), QString(), QString(), true);
    ASSERT_TRUE(events.sees("done2 200 until "));
    EXPECT_TRUE(client->lastAnswerMayBeCut());
    server.onRequest = [](TlsServer::Connection& c, const QByteArray&) {
        TlsServer::answer(c, "HTTP/1.1 200 OK\r\ncontent-length: 100\r\n\r\nnot all of it");
        c.socket.close();
    };
    client->get(QStringLiteral("/"), QString(), QString(), true);
    ASSERT_TRUE(events.sees("failed3")) << "three times too short";
    EXPECT_EQ(server.requests.size(), 5);
    EXPECT_FALSE(client->lastAnswerMayBeCut()) << "a length tells";
}

TEST(HttpsClient, AnUploadOverTlsEndsWhenAllOfItHasLeft)
{
    TlsServer server;
    qint64 nReceived = 0;
    TlsServer::Connection* pServer = nullptr;
    server.onRequest = [&](TlsServer::Connection& c, const QByteArray&) {
        pServer = &c;
        c.socket.stallRecv();
        QObject::connect(&c.socket, &NuvikaSslSocket::dataReceived, [&](const char*, int size, Marker) {
            nReceived += size;
            pServer->got.clear();
        });
    };
    auto client = server.client();
    bool bEnded = false;
    QObject::connect(client.get(), &HttpsClient::sendEndOfUploadContentFinished, [&] { bEnded = true; });
    HttpRequestHeader header(QStringLiteral("PUT"), QStringLiteral("/up"));
    const QByteArray much(16 << 20, 'u');
    header.setContentLength(much.size());
    const int id = client->request(header, false, nullptr, QString(), QString(), 0);
    ASSERT_TRUE(waitFor([&] { return pServer != nullptr; }));
    EXPECT_TRUE(client->sendUploadContentChunk(id, much.constData(), much.size(), true));
    client->sendEndOfUploadContent();
    settle(5300); // the time limit is 5 s, from when everything has left
    EXPECT_FALSE(bEnded);
    pServer->socket.resumeRecv();
    ASSERT_TRUE(waitFor([&] { return bEnded; }));
    EXPECT_EQ(nReceived, much.size());
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
