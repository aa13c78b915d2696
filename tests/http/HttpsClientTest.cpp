#include "http/HttpExchange.h"
#include "support/Certificates.h"
#include "support/LogCapture.h"

#include <KepNuvikaUtil/HttpsClient.h>
#include <KepNuvikaUtil/NuvikaTcpServer.h>

#include <sys/socket.h>

namespace
{
// What a client tells.
struct Events : Told {
    void watch(HttpsClient& client)
    {
        QObject::connect(&client, &HttpsClient::requestFinished,
            [this](int id, const HttpResponseHeader& header, const char* data, int size, Marker) {
                note(QStringLiteral("done%1 %2 ").arg(id).arg(header.statusCode()) + latin1(data, size));
            });
        QObject::connect(&client, &HttpsClient::requestFailed,
            [this](int id) { note(QStringLiteral("failed%1").arg(id)); });
        QObject::connect(
            &client, &HttpsClient::error, [this](int code) { note(QStringLiteral("error%1").arg(code)); });
    }
};

// A plain client, and a server that speaks byte by byte.
struct PlainExchange {
    RawListener listener;
    RawSocket server;
    HttpsClient client{QStringLiteral("127.0.0.1"), listener.port(), true};
    Events events;

    PlainExchange() { events.watch(client); }
    QByteArray request(const QByteArray& end = "\r\n\r\n")
    {
        QByteArray bytes;
        waitFor([&] {
            if (!server.isOpen())
                server = listener.accept();
            bytes = server.received();
            return bytes.contains(end);
        });
        server.take();
        return bytes;
    }
    void answer(const QByteArray& head, const QByteArray& body = QByteArray())
    {
        server.write(
            "HTTP/1.1 " + head + "content-length: " + QByteArray::number(body.size()) + "\r\n\r\n" + body);
    }
    QByteArray host() const { return "Host: 127.0.0.1:" + QByteArray::number(listener.port()) + "\r\n"; }
};

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
    x.client.getJSON(QStringLiteral("/j"), QString(), QString(), true);
    EXPECT_EQ(x.request(),
        "GET /j HTTP/1.1\r\n" + x.host()
            + "Connection: keep-alive\r\nKeep-Alive: 300\r\nAccept: application/json\r\n\r\n");
    x.answer("200 OK\r\n", "{}");
    ASSERT_TRUE(x.events.expect({"done1 200 {}"}));
    for (const bool bPut : {false, true}) {
        if (bPut)
            x.client.putJSON(QStringLiteral("/j"), "[1]", QString(), QString(), true);
        else
            x.client.postJSON(QStringLiteral("/j"), "[1]", QString(), QString(), true);
        EXPECT_EQ(x.request("[1]"),
            QByteArray(bPut ? "PUT" : "POST") + " /j HTTP/1.1\r\n" + x.host()
                + "Accept: application/json\r\nCache-Control: no-cache\r\ncontent-type: application/json\r\n"
                  "content-length: 3\r\n\r\n[1]");
        x.answer("200 OK\r\n");
        ASSERT_TRUE(x.events.expect({QStringLiteral("done%1 200 ").arg(bPut ? 3 : 2)}));
    }
    x.client.getWithHeaderFields(QStringLiteral("/f"),
        {{QStringLiteral("X-Camera"), QStringLiteral("7")},
            {QStringLiteral("connection"), QStringLiteral("close")}},
        QString(), QString(), true);
    EXPECT_EQ(x.request(),
        "GET /f HTTP/1.1\r\n" + x.host() + "Connection: close\r\nKeep-Alive: 300\r\nX-Camera: 7\r\n\r\n");
}

TEST(HttpsClient, UploadsFormsWhoseHeadEndsEarly)
{
    PlainExchange x;
    std::srand(1);
    const int first = std::rand() % 100000;
    std::srand(1);
    const auto upload = [&x](const QString& user, const QString& password) {
        return x.client.postMultipartFormData(QStringLiteral("/up"), "BYTES%1",
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
        "POST /up HTTP/1.1\r\nCache-Control: no-cache\r\n" + x.host()
            + "Content-Type: multipart/form-data; boundary=" + boundary
            + "\r\nAccept: */*\r\ncontent-length: " + QByteArray::number(body.size())
            + "\r\nConnection: Keep-Alive\r\n\r\n\r\n" + body);
    x.answer("200 OK\r\n");
    ASSERT_TRUE(x.events.expect({"done1 200 "}));

    // Credentials stand before the value that ends the head: at once, and in answer to a challenge.
    const auto headOf = [](const QByteArray& request) { return request.left(request.indexOf("\r\n\r\n")); };
    upload(kUser, kPassword);
    const QByteArray basic = x.request("--\r\n");
    EXPECT_TRUE(headOf(basic).contains("\r\nAuthorization: Basic dXNlcjpzZWNyZXQ=\r\n")) << basic.constData();
    EXPECT_TRUE(headOf(basic).endsWith("Connection: Keep-Alive"));
    EXPECT_FALSE(basic.contains("boundary=" + boundary + "\r\n")) << "each has a boundary of its own";
    x.answer("401 No\r\nWWW-Authenticate: Digest realm=\"r\", nonce=\"n\", qop=\"auth\"\r\n");
    const QByteArray digest = x.request("--\r\n");
    EXPECT_TRUE(headOf(digest).contains("\r\nAuthorization: Digest username=\"user\"")) << digest.constData();
    EXPECT_TRUE(headOf(digest).endsWith("Connection: Keep-Alive"));
    x.answer("200 OK\r\n");
    ASSERT_TRUE(x.events.expect({"done2 200 "}));
}

TEST(HttpsClient, TracesUnderItsOwnNameButOnce)
{
    PlainExchange x;
    LogCapture log;
    x.client.get(QStringLiteral("/"), kUser, kPassword, true);
    const int second = x.client.get(QStringLiteral("/2"), QString(), QString(), true);
    const int third = x.client.get(QStringLiteral("/3"), QString(), QString(), true);
    x.client.discardNonePendingRequest(third);
    x.request();
    EXPECT_TRUE(log.has("HttpsClient::triggerNextRequest(): connect to host "));
    EXPECT_TRUE(log.has("HttpClient::triggerNextRequest(): id=1;preset \"Authorization\":Basic"));
    EXPECT_TRUE(log.has("HttpsClient::discardNonePendingRequest: remove request; id:3"));
    x.client.shutdown();
    EXPECT_TRUE(log.has("HttpsClient::shutdown: remove pending request; id:2")) << second;
    EXPECT_FALSE(log.has("HttpsClient::shutdownSsl")) << "a plain client touches no TLS";
    settle();
    EXPECT_TRUE(x.events.events.isEmpty()) << "and shutdown() says nothing";
}

TEST(HttpsClient, FetchesOverOneTlsConnection)
{
    TlsServer server;
    const QByteArray large(3000000, 'L');
    server.onRequest = [&](TlsServer::Connection& c, const QByteArray& head) {
        if (head.startsWith("GET /large"))
            TlsServer::answer(c, sized(large));
        else if (!head.contains("Authorization: Digest"))
            TlsServer::answer(c,
                "HTTP/1.1 401 No\r\nWWW-Authenticate: Digest realm=\"r\", nonce=\"n\", qop=\"auth\"\r\n"
                "Content-Length: 0\r\n\r\n");
        else
            TlsServer::answer(
                c, "HTTP/1.1 200 OK\r\ntransfer-encoding: chunked\r\n\r\n3\r\nabc\r\n0\r\n\r\n");
    };
    auto client = server.client();
    Events events;
    events.watch(*client);
    LogCapture log;
    client->get(QStringLiteral("/large"), QString(), QString(), true);
    ASSERT_TRUE(events.expect({QStringLiteral("done1 200 ") + QString::fromLatin1(large)}));
    EXPECT_TRUE(log.has("HttpsClient::initSsl(): protocol=0"));
    client->get(QStringLiteral("/login"), kUser, kPassword, true);
    ASSERT_TRUE(events.expect({"done2 200 abc"}));
    EXPECT_EQ(server.connections.size(), 1U);
    EXPECT_EQ(client->peerCertificate().subject, QLatin1String("CN=cam-7"));
    EXPECT_EQ(client->lastPeerAddress(), QHostAddress(QHostAddress::LocalHost));
    client->shutdown();
    EXPECT_TRUE(log.has("HttpsClient::shutdownSsl():"));
    client->get(QStringLiteral("/large"), QString(), QString(), false);
    ASSERT_TRUE(waitFor([&] { return events.events.size() == 1; }));
    EXPECT_EQ(server.connections.size(), 2U);
    EXPECT_TRUE(server.connections.back()->socket.isSessionResumed());
}

TEST(HttpsClient, GivesUpOnWhomItCannotTrustUntilToldBetter)
{
    Certificates others(QStringLiteral("Somebody else"));
    TlsServer server(others.forLocalhost());
    server.onRequest = [](TlsServer::Connection& c, const QByteArray&) { TlsServer::answer(c, sized("ok")); };
    auto client = server.client();
    Events events;
    events.watch(*client);
    const QStringList refused{QStringLiteral("error10013"), QStringLiteral("error10013"),
        QStringLiteral("error10013"), QStringLiteral("failed1")};
    client->get(QStringLiteral("/"), kUser, kPassword, true);
    ASSERT_TRUE(events.expect(refused)) << "three losses";
    EXPECT_EQ(client->errorString().toStdString(),
        "the certificate of 127.0.0.1 was issued by CN=Somebody else, which is not trusted");
    EXPECT_TRUE(server.requests.isEmpty()) << "no password has left";

    client->setCertificateFilePath(others.authority());
    client->get(QStringLiteral("/"), QString(), QString(), false);
    ASSERT_TRUE(events.expect({"done2 200 ok"}));
    client->shutdown();
    client->setCertificateFilePath(QString());
    client->setCertificateVerificationMode(NuvikaSslSocket::eVerifyNone);
    client->get(QStringLiteral("/"), QString(), QString(), false);
    ASSERT_TRUE(events.expect({"done3 200 ok"}));
    client->shutdown();

    LogCapture log;
    client->setCertificateFileName(QStringLiteral("missing.pem"));
    client->get(QStringLiteral("/"), QString(), QString(), false);
    ASSERT_TRUE(events.expect({"error10053", "error10053", "error10053", "failed4"}));
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
    Events events;
    events.watch(*client);
    client->get(QStringLiteral("/"), QString(), QString(), true);
    ASSERT_TRUE(events.expect({"done1 200 until the end"}));
    EXPECT_FALSE(client->lastAnswerMayBeCut());
    server.onRequest = [](TlsServer::Connection& c, const QByteArray&) {
        TlsServer::answer(c, "HTTP/1.1 200 OK\r\n\r\nuntil ");
        ::shutdown(c.descriptor, SHUT_WR); // without TLS's goodbye, as whoever sits on the path could do it
    };
    client->get(QStringLiteral("/"), QString(), QString(), true);
    ASSERT_TRUE(events.expect({"done2 200 until "}));
    EXPECT_TRUE(client->lastAnswerMayBeCut());
    server.onRequest = [](TlsServer::Connection& c, const QByteArray&) {
        TlsServer::answer(c, "HTTP/1.1 200 OK\r\ncontent-length: 100\r\n\r\nnot all of it");
        c.socket.close();
    };
    client->get(QStringLiteral("/"), QString(), QString(), true);
    ASSERT_TRUE(events.expect({"failed3"})) << "three times too short";
    EXPECT_EQ(server.requests.size(), 5);
    EXPECT_FALSE(client->lastAnswerMayBeCut()) << "a length tells";
}

TEST(HttpsClient, AStallOverTlsEndsWithTheSessionThatCausedIt)
{
    TlsServer server;
    const QByteArray piece(1 << 20, 'x');
    server.onRequest = [&](TlsServer::Connection& c, const QByteArray& head) {
        TlsServer::answer(c,
            head.startsWith("GET /much")
                ? QByteArray("HTTP/1.1 200 OK\r\ncontent-length: 100000000\r\n\r\nbegin")
                : sized("heard"));
    };
    auto client = server.client();
    Events events;
    events.watch(*client);
    bool bFirst = true;
    QObject::connect(client.get(), &HttpsClient::contentChunk,
        [&](int, const HttpResponseHeader&, const char*, int, Marker) {
            if (!std::exchange(bFirst, false))
                return;
            for (int i = 0; i < 6; ++i)
                TlsServer::answer(*server.connections.back(), piece);
            settle(100); // until receiving is stalled
            client->shutdown();
        });
    client->request(HttpRequestHeader(QStringLiteral("GET"), QStringLiteral("/much")), true, nullptr,
        QString(), QString(), 0);
    ASSERT_TRUE(waitFor([&] { return !bFirst && client->numOfPendingRequests() == 0; }));
    client->get(QStringLiteral("/"), QString(), QString(), true);
    ASSERT_TRUE(events.expect({"done2 200 heard"}));
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
    x.client.postMultipartFormData(QStringLiteral("/"), "x", good, bad, QString(), QString());
    ASSERT_TRUE(x.events.expect({"failed1"}));
    x.client.postMultipartFormData(QStringLiteral("/"), "x", bad, good, QString(), QString());
    ASSERT_TRUE(x.events.expect({"failed2"}));
    EXPECT_EQ(x.client.errorString().toStdString(), "the disposition holds a line end or a NUL");
}
