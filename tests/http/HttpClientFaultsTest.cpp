// What servers, paths and handlers do wrong, and what becomes of the client then.
#include "http/HttpExchange.h"
#include "support/LogCapture.h"
#include "support/Seams.h"

#include <QtCore/QCryptographicHash>

#include <cstring>
#include <thread>

namespace
{
const QByteArray kForeign = "HTTP/1.1 200 OK\r\ncontent-length: 7\r\n\r\nforeign";

HttpRequestHeader upload(const char* announcement, const char* value)
{
    HttpRequestHeader header(QStringLiteral("PUT"), QStringLiteral("/up"));
    header.addValue(QLatin1String(announcement), QLatin1String(value));
    return header;
}

QByteArray text(const QString& string) { return string.toUtf8(); }
} // namespace

TEST(HttpClientFaults, AConnectionIsUsedAgainOnlyWhereNothingIsOwedOrUnasked)
{
    const QByteArray one = sized("one");
    using Step = std::function<void(Exchange&)>;
    const auto get = [](Exchange& x) { x.get(); };
    const auto startUpload = [](const char* field, const char* value, const char* piece, bool bLast) {
        return [=](Exchange& x) {
            const int id = x.send(upload(field, value));
            x.request();
            x.client->sendUploadContentChunk(id, piece, int(strlen(piece)), bLast);
        };
    };
    const auto whenDone = [](const Step& step) {
        return [step](Exchange& x) {
            x.onEvent = [&x, step](const QString& event) {
                if (event.startsWith(QLatin1String("done1")))
                    step(x);
            };
            x.get();
        };
    };
    const Step idle;
    const struct {
        const char* what;
        Step ask;
        QByteArray answer;
        Step then;
        bool bKept;
    } cases[] = {
        {"a complete answer", get, one, idle, true},
        {"line ends behind the answer", get, one + "\r\n", idle, true},
        {"an invalid head, and nothing behind it", get, "nonsense\r\n\r\n", idle, true},
        {"an invalid head, and something behind it", get, "nonsense\r\n\r\n<html>", idle, false},
        {"another answer behind the answer", get, one + kForeign, idle, false},
        {"an end that the loop has not seen", get, one,
            [](Exchange& x) {
                x.server.write("HTTP/1.1 408 Timeout\r\n\r\n");
                x.server.close();
                ::usleep(2000);
            },
            false},
        {"our own Connection: close, which the server does not repeat",
            [](Exchange& x) { x.client->get(QStringLiteral("/"), QString(), QString(), false); }, one, idle,
            false},
        {"another answer while the handler runs a loop", whenDone([](Exchange& x) {
             x.server.write(kForeign);
             settle();
         }),
            one, idle, false},
        {"another answer before the handler asks again", whenDone([](Exchange& x) {
             x.server.write(kForeign);
             x.get("/second");
         }),
            one, idle, false},
        {"a refusal before the upload was complete", startUpload("content-length", "8", "1234", false), one,
            idle, false},
        {"a refusal before the chunks were complete",
            startUpload("transfer-encoding", "chunked", "1234", false), one, idle, false},
        {"an answer to a complete upload", startUpload("content-length", "4", "1234", true), one, idle, true},
        {"an answer to complete chunks", startUpload("transfer-encoding", "chunked", "1234", true), one, idle,
            true},
    };
    for (const auto& c : cases) {
        Exchange x;
        c.ask(x);
        if (x.nConnections == 0)
            x.request();
        x.server.write(c.answer);
        ASSERT_TRUE(waitFor([&] {
            return !x.events.filter(QStringLiteral("done1")).isEmpty()
                || x.events.contains(QStringLiteral("failed1"));
        })) << c.what;
        if (c.then)
            c.then(x);
        else
            x.server.take(); // of an upload
        if (x.client->numOfPendingRequests() == 0)
            x.get("/second");
        EXPECT_TRUE(x.request().contains("GET /second")) << c.what;
        EXPECT_EQ(x.nConnections, c.bKept ? 1 : 2) << c.what;
        x.server.write(sized("two"));
        ASSERT_TRUE(x.sees("done2 200 two")) << c.what;
    }
}

TEST(HttpClientFaults, ARequestMadeByAHandlerOfAFailureIsLeftAlone)
{
    for (const bool bLosses : {true, false}) {
        Exchange x;
        x.onEvent = [&](const QString& event) {
            if (event != QLatin1String("failed1"))
                return;
            x.ask();
            x.server.write(ok("content-length: 4\r\n", "ab"));
            EXPECT_TRUE(x.sees("head2 200"));
        };
        x.get();
        for (int i = 0; i < (bLosses ? 3 : 1); ++i) {
            x.request();
            if (bLosses)
                x.server.close();
            else
                x.server.write(ok("content-length: x\r\n"));
        }
        ASSERT_TRUE(x.sees("head2 200"));
        settle(5);
        x.server.write("cd");
        ASSERT_TRUE(x.sees("done2 200 abcd")) << "in the middle of its body, losses: " << bLosses;
    }
}

TEST(HttpClientFaults, EveryFailureHasItsReason)
{
    const char* const here = "127.0.0.1";
    const char* const silent = "the server ended the connection without an answer";
    const char* const inside = "the server ended the connection in its answer";
    const struct {
        const char* host;
        QByteArray answer;
        HttpFailure::Reason reason;
        int code;
        const char* text;
    } cases[] = {
        {"no.such.host.invalid", "", HttpFailure::eLookup, 11001, "as the system says it"},
        {"127.0.0.2", "", HttpFailure::eConnect, 10061, "Connection refused"},
        {here, "", HttpFailure::eLost, 0, silent},
        {here, "HTTP/1.1 200 O", HttpFailure::eLost, 0, silent},
        {here, "garbage", HttpFailure::eLost, 0, silent},
        {here, ok("content-length: 100\r\n", "short"), HttpFailure::eLost, 0, inside},
        {here, ok("transfer-encoding: chunked\r\n", "5\r\nab"), HttpFailure::eLost, 0, inside},
        {here, "garbage\r\n\r\n", HttpFailure::eBadMessage, 10053, "the answer is no HTTP"},
        {here, ok("content-length: x\r\n"), HttpFailure::eBadMessage, 10053,
            "the answer's length cannot be read"},
        {here, ok("content-type: multipart/x-mixed-replace\r\n", "--"), HttpFailure::eBadMessage, 10053,
            "the multipart answer has no boundary, or one of more than 70 characters"},
        {here, ok("content-length: 999\r\n", QByteArray(600, 'x')), HttpFailure::eTooLarge, 10053,
            "the answer is too large"},
    };
    for (const auto& c : cases) {
        QString inHandler;
        Exchange x;
        x.client = std::make_unique<HttpClient>(QLatin1String(c.host), x.listener.port(), true);
        x.watch(*x.client);
        x.client->setRetryPolicy({HttpRetryPolicy::eNever, 0});
        HttpReadLimits bounds;
        bounds.nContent = 500;
        x.client->setReadLimits(bounds);
        x.onEvent = [&](const QString&) { inHandler = x.client->errorString(); };
        x.get();
        if (c.reason >= HttpFailure::eLost) {
            x.request();
            x.server.write(c.answer);
            x.server.shutdownWrite();
        }
        ASSERT_TRUE(x.sees("failed1")) << c.text;
        const HttpFailure failure = x.client->failureOf(1);
        EXPECT_EQ(failure.reason, c.reason) << c.text;
        EXPECT_EQ(failure.code, c.code) << c.text;
        EXPECT_EQ(
            failure.text.toStdString(), c.reason == HttpFailure::eLookup ? inHandler.toStdString() : c.text);
        EXPECT_FALSE(failure.text.isEmpty()) << c.host;
        EXPECT_EQ(failure.text, inHandler) << c.text;
        x.get();
        EXPECT_TRUE(x.client->errorString().isEmpty()) << "reset when a request begins";
    }
}

TEST(HttpClientFaults, TheStrongestDigestIsAnsweredAndItsNonceRenewed)
{
    const auto sha256
        = [](const QByteArray& t) { return QCryptographicHash::hash(t, QCryptographicHash::Sha256).toHex(); };
    const auto refusal = [](const QByteArray& nonce) {
        return denied("Digest realm=\"r\", algorithm=MD5, nonce=\"weak\"\r\n"
                      "WWW-Authenticate: Unknown x=\"y\",\r\n\tDigest\r\n  realm=\"r\", algorithm=SHA-256, "
                      "stale=TRUE, nonce=\""
            + nonce + "\"\r\nWWW-Authenticate: Basic realm=\"r\"");
    };
    Exchange x;
    const auto expectAnswer = [&](const QByteArray& path, const QByteArray& nonce) {
        const QByteArray request = x.request();
        const QByteArray response
            = sha256(sha256("user:r:secret") + ':' + nonce + ':' + sha256("GET:" + path));
        EXPECT_TRUE(
            request.contains("uri=\"" + path + "\", response=\"" + response + "\", algorithm=SHA-256\r\n"))
            << nonce.constData() << ": " << request.constData();
    };
    x.login("/1");
    x.request();
    x.server.write(refusal("n"));
    expectAnswer("/1", "n");
    x.server.write(sized("in"));
    x.login("/2?a=b");
    expectAnswer("/2?a=b", "n"); // kept
    x.server.write(refusal("m"));
    expectAnswer("/2?a=b", "m"); // once with the new nonce
    x.server.write(refusal("k"));
    ASSERT_TRUE(x.sees("done2 401 "));
}

TEST(HttpClientFaults, AChallengeIsForgottenWhereItsAnswerWasNotAcceptedOrCannotBeMade)
{
    for (const bool bAccepted : {false, true}) {
        Exchange x;
        x.login();
        x.request();
        x.server.write(denied("Digest realm=\"r\", nonce=\"n\""));
        EXPECT_TRUE(x.request().contains("Authorization: Digest"));
        x.server.write(bAccepted ? sized("") : sized("").replace("200 OK", "400 No"));
        ASSERT_TRUE(x.sees(bAccepted ? "done1 200 " : "done1 400 "));
        if (bAccepted)
            seams::crypto("EVP_DigestInit_ex").arm(1, 0);
        x.client->get(QStringLiteral("/"), kUser, bAccepted ? QString() : kPassword, true);
        const QByteArray request = x.request();
        EXPECT_EQ(request.contains("Authorization: Basic"), !bAccepted) << request.constData();
        EXPECT_EQ(request.contains("uthorization"), !bAccepted) << request.constData();
    }
}

TEST(HttpClientFaults, RefusesWhatWouldNotArriveAsItWasMeant)
{
    const QString root = QStringLiteral("/");
    const QString path = QStringLiteral("/ HTTP/1.1\r\nX: y\r\n\r\nGET /");
    const QString euro(QChar(0x20AC));
    const auto get = [](const QString& where, const QString& user, const QString& password) {
        return [=](HttpClient& c) { return c.get(where, user, password, true); };
    };
    const auto withField = [](const QString& name, const QString& value) {
        HttpRequestHeader header(QStringLiteral("GET"), QStringLiteral("/"));
        header.addValue(name, value);
        return [=](HttpClient& c) { return c.request(header, false, nullptr, QString(), QString(), 0); };
    };
    const auto form = [](const char* disposition, const char* type) {
        return [=](HttpClient& c) {
            return c.postMultipartFormData(QStringLiteral("/"), "x", QLatin1String(disposition),
                QLatin1String(type), QString(), QString());
        };
    };
    const struct {
        std::function<int(HttpClient&)> ask;
        const char* reason;
    } cases[] = {{get(path, QString(), QString()), "the path holds a line end or a NUL"},
        {get(root, QStringLiteral("a\nb"), kPassword), "the user name holds a line end or a NUL"},
        {get(root, euro, kPassword), "the user name holds characters beyond Latin-1"},
        {get(root, kUser, euro), "the password holds characters beyond Latin-1"},
        {withField(QStringLiteral("X-A"), QStringLiteral("a\r\nX-B: b")),
            "a field's value holds a line end or a NUL"},
        {withField(QStringLiteral("X-A: b\nX-B"), QStringLiteral("c")),
            "a field's name holds a line end or a NUL"},
        {withField(QStringLiteral("X-A"), euro), "a field's value holds characters beyond Latin-1"},
        {form("name=\"f\"\n", "image/jpeg"), "the disposition holds a line end or a NUL"},
        {form("name=\"f\"", "image/jpeg\r\nX: y"), "the part's content type holds a line end or a NUL"}};
    Exchange x;
    for (const auto& c : cases) {
        LogCapture log;
        const int id = c.ask(*x.client);
        EXPECT_TRUE(log.has(c.reason, QtWarningMsg)) << c.reason;
        EXPECT_TRUE(x.events.isEmpty()) << "from the event loop: " << c.reason;
        ASSERT_TRUE(x.expect({QStringLiteral("failed%1").arg(id)})) << c.reason;
        EXPECT_EQ(text(x.client->errorString()), c.reason);
    }
    EXPECT_FALSE(x.listener.accept().isOpen()) << "nothing was sent";
}

TEST(HttpClientFaults, PathsAreSentAsTheyCanStandInARequestLine)
{
    const struct {
        QString path;
        QByteArray sent;
    } cases[] = {{QStringLiteral("/a b?c=d e"), "/a%20b?c=d%20e"},
        {QString::fromUtf8("/caf\xC3\xA9/\xE2\x82\xAC"), "/caf%C3%A9/%E2%82%AC"},
        {QStringLiteral("/done%20it?%1&a=[1]&b='*'~"), "/done%20it?%1&a=[1]&b='*'~"},
        {QStringLiteral("/\"<>\\^`{|}#\t"), "/%22%3C%3E%5C%5E%60%7B%7C%7D%23%09"}};
    for (const auto& c : cases) {
        Exchange x;
        x.client->get(c.path, kUser, kPassword, true);
        EXPECT_TRUE(x.request().startsWith("GET " + c.sent + " HTTP/1.1\r\n")) << c.sent.constData();
        x.server.write(denied("Digest realm=\"r\", nonce=\"n\""));
        EXPECT_TRUE(x.request().contains("uri=\"" + c.sent + "\"")) << c.sent.constData();
    }
}

TEST(HttpClientFaults, AnIPv6AddressStandsInBracketsInHostAndNowhereElse)
{
    RawListener listener(1, true);
    const QByteArray host = "Host: [::1]:" + QByteArray::number(listener.port()) + "\r\n";
    for (const char* name : {"::1", "[::1]"}) {
        HttpClient client(QLatin1String(name), listener.port(), true);
        client.get(QStringLiteral("/"), QString(), QString(), true);
        RawSocket server;
        ASSERT_TRUE(waitFor([&] { return (server = listener.accept()).isOpen(); })) << name;
        EXPECT_TRUE(waitFor([&] { return server.received().contains(host); })) << server.take().constData();
    }
}

TEST(HttpClientFaults, TheLastStreamedPieceFollowsTheCloseOfItsConnection)
{
    Exchange x;
    x.onEvent = [&](const QString& event) {
        if (event != QLatin1String("chunk cd"))
            return;
        for (int i = 0; i < 1000 && !x.server.atEnd(); ++i)
            ::usleep(1000); // no event loop runs meanwhile
        EXPECT_TRUE(x.server.atEnd());
    };
    x.send(HttpRequestHeader(QStringLiteral("GET"), QStringLiteral("/")), true);
    x.request();
    x.server.write(ok("content-length: 4\r\nconnection: close\r\n", "ab"));
    waitFor([&] { return x.events.size() == 2; });
    x.server.write("cd");
    ASSERT_TRUE(x.expect({"head1 200", "chunk ab", "chunk cd"}));
}

TEST(HttpClientFaults, ContentStaysWhileItsHandlerRunsWhateverThatDoes)
{
    for (const bool bDelete : {false, true}) {
        Exchange x;
        const QByteArray mine(3 << 20, 'm');
        bool bDone = false;
        QObject::connect(x.client.get(), &HttpClient::requestFinished,
            [&](int, const HttpResponseHeader& header, const char* content, int size, Marker) {
                if (bDelete) {
                    x.client.reset();
                } else {
                    x.client->shutdown();
                    x.ask();
                    x.server.write(
                        "HTTP/1.1 404 No\r\ncontent-length: 3145728\r\n\r\n" + QByteArray(100000, 'o'));
                    waitFor([&] { return x.events.contains(QStringLiteral("head2 404")); });
                    settle();
                }
                EXPECT_EQ(header.statusCode(), 200);
                EXPECT_TRUE(QByteArray::fromRawData(content, size) == mine);
                bDone = true;
            });
        x.ask();
        std::thread sender([&] { x.server.write(sized(mine)); });
        EXPECT_TRUE(waitFor([&] { return bDone; })) << bDelete;
        sender.join();
    }
}

TEST(HttpClientFaults, NoMoreOfAnUploadIsSentThanWasAnnounced)
{
    Exchange x;
    const int id = x.send(upload("content-length", "6"));
    EXPECT_FALSE(x.client->sendUploadContentChunk(id, "1", 1, false)) << "not sent yet";
    x.request();
    EXPECT_TRUE(x.client->sendUploadContentChunk(id, "1234", 4, false));
    EXPECT_FALSE(x.client->sendUploadContentChunk(id, "567", 3, true)) << "too many";
    EXPECT_TRUE(x.client->sendUploadContentChunk(id, "56", 2, true));
    EXPECT_FALSE(x.client->sendUploadContentChunk(id, "7", 1, false)) << "behind the last";
    ASSERT_TRUE(waitFor([&] { return x.server.received() == "123456"; }));
    x.server.take();
    x.server.write(sized("ok"));
    ASSERT_TRUE(x.expect({"head1 200", "done1 200 ok"}));
    const int chunked = x.send(upload("transfer-encoding", "chunked"));
    x.request();
    EXPECT_TRUE(x.client->sendUploadContentChunk(chunked, "a", 1, true));
    EXPECT_FALSE(x.client->sendUploadContentChunk(chunked, "b", 1, true));
}

TEST(HttpClientFaults, TheEndOfAnUploadTellsOfACut)
{
    Exchange x;
    const QByteArray much(16 << 20, 'u');
    const int id = x.send(upload("content-length", "16777216"));
    x.request();
    EXPECT_TRUE(x.client->sendUploadContentChunk(id, much.constData(), much.size(), true));
    x.client->sendEndOfUploadContent();
    x.server.shutdownWrite();
    ASSERT_TRUE(x.expect({"error 10053", "upload ended"}));
    EXPECT_EQ(text(x.client->errorString()), "the server ended the connection before the upload had left");
}
