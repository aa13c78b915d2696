// What a server connection reads, in which order it answers, and when it ends.
#include "http/Served.h"
#include "support/LogCapture.h"
#include "support/Seams.h"

#include <malloc.h>
#include <thread>

namespace
{
// All of it holds over TLS as it does in the clear.
class HttpServerExchange : public testing::TestWithParam<bool>
{
protected:
    void SetUp() override
    {
        Served::s_usual = ServedWish{GetParam() ? certificates().forLocalhost() : QString()};
    }
    void TearDown() override { Served::s_usual = ServedWish(); }
};

const QByteArray kChunked = "PUT / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n";
const char* kFinal = "HTTP/1.1 200 X\r\n";

QByteArray get(const char* path) { return QByteArray("GET ") + path + " HTTP/1.1\r\n\r\n"; }

// The status codes and bodies that came, interim answers included.
QByteArray answersIn(QByteArray bytes)
{
    bytes.replace("HTTP/1.1 ", "|");
    QByteArray shortened;
    for (const QByteArray& part : bytes.split('|')) {
        if (!part.isEmpty())
            shortened += part.left(3) + ':' + part.mid(part.indexOf("\r\n\r\n") + 4) + ' ';
    }
    return shortened.trimmed();
}
} // namespace

INSTANTIATE_TEST_SUITE_P(
    Over, HttpServerExchange, testing::Bool(), [](const auto& over) { return over.param ? "Tls" : "Tcp"; });

TEST_P(HttpServerExchange, ReadsRequestsToTheLetter)
{
    const QByteArray refused[] = {"GET / HTTP/1.1\r\nTransfer-Encoding : chunked\r\n\r\n",
        "GET / HTTP/1.1\r\nTransfer-Encoding\xa0: chunked\r\n\r\n",
        "GET / HTTP/1.1\r\nTransfer-Encoding:\vchunked\r\n\r\n", "GET / HTTP/1.1\r\n: nameless\r\n\r\n",
        "GET / HTTP/1.1\r\nHost: a\r\nhost: b\r\n\r\n", "GET / HTTP/1.1\r\nA: b\nInjected: c\r\n\r\n",
        "GET / HTTP/1.1\r\nA: b\rInjected: c\r\n\r\n", "GET\xa0/ HTTP/1.1\r\n\r\n",
        "GET / HTTP/1.1\r\nTransfer-Encoding: chunked\r\nTransfer-Encoding: gzip\r\n\r\n",
        "GET / HTTP/1.1\r\nTransfer-Encoding: chunked, chunked\r\n\r\n",
        "PUT / HTTP/1.1\r\nTransfer-Encoding: Chunked\r\nContent-Length: 1\r\n\r\nx",
        "GET / HTTP/1.1\r\nTransfer-Encoding:\r\n\r\n", "GET / HTTP/1\r\n\r\n", "nonsense\r\n\r\n",
        "GET / HTTP/1.1\r\nContent-Length: -1\r\n\r\n",
        "GET / HTTP/1.1\r\nContent-Length: 3\r\nTransfer-Encoding: chunked\r\n\r\n",
        "GET / HTTP/1.1\r\nTransfer-Encoding: gzip\r\n\r\n",
        "GET / HTTP/1.1\r\nContent-Length: 3\r\nContent-Length: 4\r\n\r\n", kChunked + "3zz\r\nabc\r\n",
        kChunked + "3;\nabc\r\n", kChunked + "3\nabc\r\n", kChunked + "0x3\r\nabc\r\n",
        kChunked + " 3\r\nabc\r\n", kChunked + "3;\r\nabc\r\n", kChunked + "3;a=\"b\r\nabc\r\n",
        kChunked + "0\r\nA : b\r\n\r\n", kChunked + "0\r\nA: b\n\r\n",
        kChunked + "3;a;b=c ; d = \"e;\\\"f\" \r\nabc\r\n"};
    const std::pair<QByteArray, const char*> told[] = {
        {"PUT / HTTP/1.1\r\nTransfer-Encoding: Chunked\r\n\r\n2\r\nab\r\n0\r\n\r\n", "chunk ab"},
        {"PUT / HTTP/1.1\r\nTransfer-Encoding: identity, chunked\r\n\r\n2\r\nab\r\n0\r\n\r\n", "chunk ab"},
        {"GET /caf\xc3\xa0 HTTP/1.1\r\n\r\n", "GET /caf\u00c3\u00a0 "},
        {"GET /folded HTTP/1.1\r\nA: b\r\n c\r\n\td\r\n\r\n", "GET /folded "},
        {"GET /bare HTTP/1.1\nA: b\nHost: c\n\n", "GET /bare "},
        {kChunked + "3;a;b=c ; d = \"e;\\\"f\"\r\nabc\r\n", "chunk abc"},
        {kChunked + "0\r\nA: b\r\n\r\n", "chunk "}};
    for (const QByteArray& bytes : refused) {
        LogCapture log;
        Served s;
        s.client.write(bytes + get("/smuggled"));
        EXPECT_TRUE(waitFor([&] { return s.client.atEnd(); })) << bytes.constData();
        EXPECT_EQ(answersIn(s.client.received()), QByteArray("400:")) << bytes.constData();
        EXPECT_EQ(s.events.value(0), QStringLiteral("error")) << bytes.constData();
        EXPECT_TRUE(s.events.filter(QStringLiteral("GET")).isEmpty()) << bytes.constData();
    }
    for (const auto& [bytes, event] : told) {
        Served s;
        s.client.write(bytes + get("/behind"));
        EXPECT_TRUE(waitFor([&] { return !s.events.isEmpty(); })) << bytes.constData();
        EXPECT_EQ(s.events.value(0).toStdString(), event) << bytes.constData();
    }
    // Behind the data stands one CR LF; what came before it was told.
    for (const char* end : {"\r\r\n0\r\n\r\n", "\n0\r\n\r\n"}) {
        Served s;
        s.client.write(kChunked + "3\r\nabc" + end);
        EXPECT_TRUE(s.expect({"chunk abc", "error", "finished"})) << end;
    }
}

TEST_P(HttpServerExchange, AnInterimAnswerWaitsForTheAnswersBefore)
{
    Served s;
    s.client.write(get("/1") + get("/2"));
    ASSERT_TRUE(s.expect({"GET /1 ", "GET /2 "}));
    s.client.write("PUT /3 HTTP/1.1\r\nExpect: 100-Continue\r\nContent-Length: 2\r\n\r\n");
    settle(10);
    s.respond(200, "", "Transfer-Encoding", "chunked", true);
    s.respond(200, "two");
    s.server->sendContent("one", 3);
    settle(10);
    EXPECT_TRUE(s.client.received().endsWith("\r\n\r\n3\r\none\r\n")) << s.client.received().constData();
    s.server->endContent();
    ASSERT_TRUE(waitFor([&] { return s.client.received().endsWith("HTTP/1.1 100 Continue\r\n\r\n"); }));
    EXPECT_EQ(answersIn(s.client.take().replace("3\r\none\r\n0\r\n\r\n", "one")), "200:one 200:two 100:");
    s.client.write("ok");
    EXPECT_TRUE(s.expect({"finished", "finished", "PUT /3 ok"}));
}

TEST_P(HttpServerExchange, AContentOfNoLengthEndsWithThePeer)
{
    Served s;
    LogCapture log;
    s.client.write(kChunked + "3\r\nabc\r\n0\r\n\r\nPOST /all HTTP/1.1\r\n\r\nuntil");
    ASSERT_TRUE(s.expect({"chunk abc", "chunk "}));
    EXPECT_TRUE(log.has("HttpResponseClient::slotSockDataReceived#3: chunk response finished", QtDebugMsg));
    s.client.write(" the end");
    s.client.shutdownWrite();
    ASSERT_TRUE(s.expect({"POST /all until the end"}));
}

TEST_P(HttpServerExchange, FinishedFollowsTheLastByteAndCloseLosesNothing)
{
    Served s;
    s.client.write("GET / HTTP/1.1\r\nConnection: close\r\n\r\n");
    ASSERT_TRUE(s.expect({"GET / "}));
    const QByteArray big(12 << 20, 'b');
    s.respond(200, big);
    s.client.write(get("/unread")); // would turn a plain close into a reset
    settle(30);
    EXPECT_TRUE(s.events.isEmpty()) << "the peer has not read yet";
    ASSERT_TRUE(waitFor([&] { return s.client.atEnd(); }));
    EXPECT_TRUE(!s.client.wasReset() && s.client.received().endsWith(big));
    EXPECT_TRUE(s.expect({"finished"}));
}

TEST_P(HttpServerExchange, RequestsBeyondTheBoundWaitForAnswers)
{
    constexpr int kRequests = 20000;
    Served s;
    int received = 0;
    int answered = 0;
    s.onEvent = [&](const QString& event) { received += event.startsWith(QLatin1String("GET")) ? 1 : 0; };
    std::thread writer([&] { s.client.write(get("/").repeated(kRequests)); });
    EXPECT_TRUE(waitFor([&] { return received >= 4000; }));
    settle(20);
    EXPECT_LT(received, 5000) << "nobody has answered one";
    EXPECT_TRUE(waitFor([&] {
        for (; answered < received; ++answered)
            s.respond(200, "x");
        s.client.received();
        return answered == kRequests;
    }));
    writer.join();
    EXPECT_TRUE(waitFor([&] { return s.client.received().count("\r\n\r\nx") == kRequests; }));
}

TEST_P(HttpServerExchange, ABadRequestIsAnsweredBehindThoseBeforeIt)
{
    const struct {
        bool bFirst, bOwn, bLater;
        const char* answers;
    } cases[] = {{true, false, false, "200:x 400:"}, {true, true, false, "200:x 418:x"},
        {false, false, true, "201:later 400:"}, {false, true, true, "201:later 418:x"},
        {false, false, false, "400:"}};
    for (const auto& c : cases) {
        LogCapture log;
        Served s;
        s.onEvent = [&](const QString& event) {
            const bool bError = event == QLatin1String("error");
            if (bError ? c.bOwn : c.bFirst && event.startsWith(QLatin1String("GET")))
                s.respond(bError ? 418 : 200, "x");
        };
        s.client.write(get("/1") + "bad\r\n\r\n" + get("/smuggled"));
        EXPECT_TRUE(s.sees("error"));
        if (c.bLater)
            s.respond(201, "later");
        else if (!c.bFirst)
            seams::clockOffsetMs += 5000; // a silent owner does not keep the connection
        EXPECT_TRUE(waitFor([&] { return s.client.atEnd(); }));
        s.client.close();
        EXPECT_TRUE(s.sees("disconnected"));
        EXPECT_TRUE(s.events.filter(QStringLiteral("smuggled")).isEmpty());
        EXPECT_EQ(answersIn(s.client.received()), c.answers);
    }
}

TEST_P(HttpServerExchange, NoErrorComesFromInsideAnErrorHandler)
{
    Served s;
    s.onEvent = [&](const QString& event) {
        if (event == QLatin1String("error"))
            s.respond(400, "an answer, as the header allows");
    };
    s.server->shutdown();
    ASSERT_TRUE(s.expect({"disconnected"}));
    for (int i = 0; i < 2; ++i) { // the next call tells it again
        s.respond(200, "nobody is there");
        EXPECT_TRUE(s.expect({"error"}));
    }
}

TEST_P(HttpServerExchange, APeerThatHalfClosesGetsItsWholeAnswer)
{
    const QByteArray big(8 << 20, 'b');
    Served s;
    s.client.write(get("/1") + get("/2"));
    s.client.shutdownWrite();
    ASSERT_TRUE(s.expect({"GET /1 ", "GET /2 "}));
    s.respond(200, big);
    s.respond(200, "", "Transfer-Encoding", "chunked", true);
    for (int i = 0; i < 4; ++i) { // each piece is progress
        seams::clockOffsetMs += 4000;
        s.server->sendContent("piece", 5);
        settle(300);
        ASSERT_TRUE(s.events.isEmpty()) << "the peer has read nothing yet";
    }
    s.server->endContent();
    ASSERT_TRUE(waitFor([&] { return s.client.atEnd(); }));
    EXPECT_FALSE(s.client.wasReset());
    EXPECT_TRUE(s.client.received().contains(big + kFinal));
    EXPECT_EQ(s.client.received().count("5\r\npiece\r\n"), 4);
    EXPECT_TRUE(s.client.received().endsWith("0\r\n\r\n"));
    EXPECT_TRUE(s.expect({"finished", "finished", "disconnected"}));

    for (const bool bAnswer : {false, true}) { // neither a silent owner nor a silent peer keeps it for ever
        Served silent;
        silent.client.write(get("/") + get("/"));
        silent.client.shutdownWrite();
        ASSERT_TRUE(silent.expect({"GET / ", "GET / "}));
        if (bAnswer)
            silent.respond(200, big);
        settle(300);
        EXPECT_TRUE(silent.events.isEmpty());
        seams::clockOffsetMs += 5000;
        EXPECT_TRUE(silent.expect({"disconnected"})) << bAnswer;
    }
}

TEST_P(HttpServerExchange, ConnectionIsAListOfTokens)
{
    const std::pair<const char*, bool> fields[] = {
        {"Connection: close, x-other", true},
        {"Connection: x-other\r\nconnection: \tCLOSE", true},
        {"Connection: x-close, closed", false},
        {"Connection: keep-alive", false},
    };
    for (const auto& [field, bClose] : fields) {
        Served s;
        s.onEvent = [&](const QString& event) {
            if (event.startsWith(QLatin1String("GET")))
                s.respond(200, "x");
        };
        s.client.write(QByteArray("GET / HTTP/1.1\r\n") + field + "\r\n\r\n");
        ASSERT_TRUE(waitFor([&] { return s.client.received().endsWith("x"); })) << field;
        settle(10);
        EXPECT_EQ(s.client.atEnd(), bClose) << field;
    }
}

// Under a sanitizer the allocator tells nothing, and this shows nothing.
TEST_P(HttpServerExchange, MemoryOfLargeContentIsGivenBack)
{
    const auto inUse = [] {
        const struct mallinfo2 info = mallinfo2();
        return static_cast<long long>(info.uordblks + info.hblkhd);
    };
    const QByteArray content(40 << 20, 'c');
    const QByteArray length = QByteArray::number(content.size());
    const QByteArray part = "--b\r\nContent-Length: " + length + "\r\n\r\n";
    const QByteArray requests[] = {
        "PUT / HTTP/1.1\r\nContent-Length: " + length + "\r\n\r\n" + content,
        "PUT / HTTP/1.1\r\nContent-Type: multipart/x-mixed-replace; boundary=b\r\nContent-Length: "
            + QByteArray::number(part.size() + content.size()) + "\r\n\r\n" + part + content,
        "PUT / HTTP/1.1\r\nContent-Length: 50000000\r\n\r\n" + content,
    };
    for (const QByteArray& request : requests) {
        Served s;
        QObject::disconnect(s.server.get(), nullptr, nullptr, nullptr);
        bool bTold = false;
        QObject::connect(s.server.get(), &HttpResponseClient::requestReceived, [&] { bTold = true; });
        QObject::connect(s.server.get(), &HttpResponseClient::disconnected, [&] { bTold = true; });
        const long long before = inUse();
        std::thread writer([&] {
            s.client.write(request);
            s.client.shutdownWrite();
        });
        EXPECT_TRUE(waitFor([&] { return bTold; })) << request.left(80).constData();
        writer.join();
        settle(5);
        EXPECT_LT(inUse() - before, 4 << 20) << request.left(80).constData();
    }
}

TEST_P(HttpServerExchange, APeerThatDoesNotReadIsNotReadEither)
{
    Served s;
    s.onEvent = [&](const QString& event) {
        if (event.startsWith(QLatin1String("GET")))
            s.respond(200, QByteArray(1 << 20, 'x'));
    };
    constexpr int kRequests = 50;
    s.client.write(get("/").repeated(kRequests));
    const auto told = [&] { return s.events.filter(QStringLiteral("GET")).size(); };
    settle(10);
    EXPECT_LE(told(), 2);
    EXPECT_FALSE(s.server->canSendContent());
    const auto tells = [&](int requests) {
        return waitFor([&] {
            (void)s.client.take();
            return told() == requests && s.server->canSendContent();
        });
    };
    EXPECT_TRUE(tells(kRequests));
    for (int more = 1; more <= 5; ++more) { // receives that were posted before come anyway
        s.client.write(get("/"));
        ASSERT_TRUE(tells(kRequests + more));
    }
}

TEST_P(HttpServerExchange, HandlersMayCloseDeleteAnswerOrRunALoopInEachSignal)
{
    const QByteArray requests = get("/") + kChunked + "1\r\na\r\n0\r\n\r\n"
        + "PUT / HTTP/1.1\r\nContent-Type: multipart/x-mixed-replace; boundary=b\r\n"
          "Transfer-Encoding: chunked\r\n\r\n1c\r\n--b\r\nContent-Length: 2\r\n\r\nhi\r\n0\r\n\r\n"
        + "POST / HTTP/1.1\r\nContent-Length: 3\r\n\r\nabcbad\r\n\r\n";
    const std::function<void(Served&)> actions[]
        = {[](Served& s) { s.server->shutdown(); }, [](Served& s) { s.server.reset(); },
            [](Served& s) {
                QTimer::singleShot(0, s.server.get(), [&s] { s.server->shutdown(); });
                settle(10);
            },
            [](Served& s) {
                s.respond(200, "x");
                s.respond(200, "y");
            }};
    for (const char* when :
        {"GET", "chunk a", "chunk ", "part", "POST", "error", "finished", "disconnected"}) {
        for (const auto& action : actions) {
            LogCapture log;
            Served s;
            bool bDone = false;
            bool bInside = false;
            s.onEvent = [&](const QString& event) {
                const bool bRequest = event.startsWith(QLatin1String("GET"))
                    || event == QLatin1String("chunk ") || event.startsWith(QLatin1String("POST"));
                EXPECT_FALSE(bInside && bRequest) << "requests do not nest";
                bInside = true;
                if (event.startsWith(QLatin1String(when)) && !std::exchange(bDone, true))
                    action(s);
                if (s.server && s.server->isConnected() && bRequest)
                    s.respond(200, "x");
                bInside = false;
            };
            s.client.write(requests);
            EXPECT_TRUE(waitFor([&] { return s.client.atEnd(); })) << when;
            s.client.close();
            const QString disconnected = QStringLiteral("disconnected");
            EXPECT_TRUE(waitFor([&] { return bDone && (!s.server || s.events.contains(disconnected)); }))
                << when;
            EXPECT_LE(s.events.count(disconnected), 1) << when;
        }
    }
}
