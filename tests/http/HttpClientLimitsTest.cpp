// What the caller may ask beside the defaults: time limits, cancelling, reasons, other retry policies.
#include "http/HttpExchange.h"

namespace
{
HttpTimeLimits limits(int nConnect, int nFirstByte, int nSilence, int nRequest)
{
    HttpTimeLimits limits;
    limits.nConnect = nConnect;
    limits.nFirstByte = nFirstByte;
    limits.nSilence = nSilence;
    limits.nRequest = nRequest;
    return limits;
}

HttpRequestHeader upload(int size)
{
    HttpRequestHeader header(QStringLiteral("PUT"), QStringLiteral("/up"));
    header.setContentLength(size);
    return header;
}

// Behind what is left of an earlier one.
bool comes(Exchange& x, const char* request)
{
    for (int i = 0; i < 3; ++i) {
        if (x.request().contains(request))
            return true;
    }
    return false;
}

std::string failure(const Exchange& x, int id)
{
    const HttpFailure failure = x.client->failureOf(id);
    return std::to_string(failure.reason) + ' ' + std::to_string(failure.code) + ' '
        + failure.text.toStdString();
}
} // namespace

TEST(HttpClientLimits, APassedLimitFailsTheRequestOnceAndTheNextOneIsSent)
{
    const auto get = [](Exchange& x) { x.get(); };
    const struct {
        const char* what;
        HttpTimeLimits limits;
        std::function<void(Exchange&)> ask;
        QByteArray answer;
        const char* text;
    } cases[] = {
        {"no answer", limits(0, 40, 0, 0), get, "", "no answer within 0.04 s"},
        {"half a head", limits(0, 40, 60, 0), get, "HTTP/1.1 200", "the server was silent for 0.06 s"},
        {"half a body", limits(0, 0, 60, 0), get, ok("content-length: 9\r\n", "half"),
            "the server was silent for 0.06 s"},
        {"a stream that never ends", limits(0, 0, 0, 80), get, ok("", "piece"),
            "the request took more than 0.08 s"},
        {"a login that is asked for again", limits(0, 0, 0, 80), [](Exchange& x) { x.login(); },
            denied("Basic realm=\"r\""), "the request took more than 0.08 s"},
        {"an upload that nobody reads", limits(0, 60, 60, 0),
            [](Exchange& x) { x.client->request(upload(64 << 20), QByteArray(64 << 20, 'x')); }, "",
            "the server was silent for 0.06 s"},
    };
    for (const auto& c : cases) {
        Exchange x;
        x.client->setTimeLimits(c.limits);
        std::string text;
        x.onEvent = [&](const QString& event) {
            if (event != QLatin1String("failed1"))
                return;
            text = x.client->failureOf(1).text.toStdString();
            x.client->setTimeLimits(HttpTimeLimits());
        };
        c.ask(x);
        x.get("/next");
        x.request();
        x.server.write(c.answer);
        ASSERT_TRUE(x.sees("failed1")) << c.what;
        EXPECT_EQ(x.events.filter(QStringLiteral("error")), QStringList{QStringLiteral("error 10060")})
            << c.what;
        EXPECT_EQ(text, c.text) << c.what;
        ASSERT_TRUE(comes(x, "GET /next")) << c.what;
        x.server.write(sized("next"));
        ASSERT_TRUE(x.sees("done2 200 next")) << c.what;
        EXPECT_EQ(x.events.count(QStringLiteral("failed1")), 1) << c.what;
    }
}

TEST(HttpClientLimits, AConnectionThatDoesNotComeAboutEndsInTime)
{
    RawListener full(0); // its queue takes one, and nobody accepts
    const RawSocket first = RawSocket::connectTo(full.port());
    HttpClient client(QStringLiteral("127.0.0.1"), full.port(), true);
    Told told;
    told.watch(client);
    client.setTimeLimits(limits(50, 0, 0, 0));
    const int id = client.get(QStringLiteral("/"), QString(), QString(), true);
    ASSERT_TRUE(told.sees("failed1"));
    told.expect({"error 10060", "failed1"});
    EXPECT_EQ(client.failureOf(id).text.toStdString(), "no connection within 0.05 s");
}

// What moves, and what waits for the caller, is not silence.
TEST(HttpClientLimits, ALimitOfSilenceBeginsAnewWithEachByteAndWaitsForTheCaller)
{
    const struct {
        const char* what;
        std::function<void(Exchange&)> talk; // longer than the limits
    } cases[] = {
        {"an answer byte by byte",
            [](Exchange& x) {
                x.ask();
                for (const char byte : ok("content-length: 4\r\n", "done")) {
                    x.server.write(QByteArray(1, byte));
                    settle(10);
                }
            }},
        {"an upload whose pieces come slowly",
            [](Exchange& x) {
                const int id = x.send(upload(4));
                x.request();
                settle(450);
                EXPECT_TRUE(x.client->sendUploadContentChunk(id, "data", 4, true));
                x.server.write(sized("done"));
            }},
        {"a handler that runs a loop",
            [](Exchange& x) {
                x.onEvent = [](const QString& event) {
                    if (event == QLatin1String("head1 200"))
                        settle(450);
                };
                x.ask();
                x.server.write(ok("content-length: 4\r\n", "do"));
                ASSERT_TRUE(x.sees("head1 200"));
                x.server.write("ne");
            }},
    };
    for (const auto& c : cases) {
        Exchange x;
        x.client->setTimeLimits(limits(300, 300, 300, 0));
        c.talk(x);
        ASSERT_TRUE(x.sees("done1 200 done")) << c.what;
        EXPECT_TRUE(x.events.filter(QStringLiteral("error")).isEmpty()) << c.what;
    }
}

TEST(HttpClientLimits, ARequestIsCancelledOnceAndTheNextOneIsSent)
{
    const struct {
        const char* what;
        std::function<void(Exchange&)> reach; // its id is 1
        bool bConnectionLost;
    } cases[] = {
        {"connecting", [](Exchange& x) { x.get(); }, true},
        {"in a body",
            [](Exchange& x) {
                x.ask();
                x.server.write(ok("content-length: 9\r\n", "half"));
                x.sees("head1 200");
            },
            true},
        {"refused, not yet told", [](Exchange& x) { x.get("/a\r\nb"); }, false},
    };
    for (const auto& c : cases) {
        Exchange x;
        c.reach(x);
        x.get("/next");
        const int nConnections = x.nConnections;
        x.events.clear();
        std::string reason;
        x.onEvent = [&](const QString&) { reason = failure(x, 1); };
        EXPECT_TRUE(x.client->cancelRequest(1)) << c.what;
        x.onEvent = nullptr;
        EXPECT_EQ(x.events, list({"cancelled1"})) << c.what;
        EXPECT_EQ(reason.substr(0, 5), "1 995") << c.what;
        EXPECT_FALSE(x.client->cancelRequest(1)) << c.what;
        ASSERT_TRUE(comes(x, "GET /next")) << c.what;
        EXPECT_EQ(x.nConnections > nConnections, c.bConnectionLost || nConnections == 0) << c.what;
        x.server.write(sized("next"));
        ASSERT_TRUE(x.sees("done2 200 next")) << c.what;
        EXPECT_EQ(failure(x, 1), "0 0 ") << c.what << ": kept until the next request has begun";
        EXPECT_EQ(x.events.filter(QStringLiteral("1")).size(), 1) << c.what;
    }
}

TEST(HttpClientLimits, ARequestThatWaitsIsCancelledWithoutHarmToTheOneBeforeIt)
{
    Exchange x;
    x.onEvent = [&](const QString& event) { // also from a handler, where the next has not been written
        if (event == QLatin1String("done1 200 one"))
            x.client->cancelRequest(3);
    };
    x.ask();
    x.get("/second");
    x.get("/third");
    x.get("/fourth");
    x.client->cancelRequest(2);
    x.server.write(sized("one"));
    EXPECT_TRUE(x.request().contains("GET /fourth"));
    EXPECT_EQ(x.nConnections, 1);
    x.expect({"cancelled2", "head1 200", "done1 200 one", "cancelled3"});
}

TEST(HttpClientLimits, AHandlerOfTheCancellationMayDeleteTheClient)
{
    Exchange x;
    x.onEvent = [&](const QString& event) {
        if (event == QLatin1String("cancelled1"))
            x.client.reset();
    };
    x.ask();
    x.client->cancelRequest(1);
    EXPECT_FALSE(x.client);
}

TEST(HttpClientLimits, APolicySaysHowOftenALostRequestIsSent)
{
    HttpRequestHeader post(QStringLiteral("POST"), QStringLiteral("/"));
    post.setContentLength(0);
    const HttpRequestHeader get(QStringLiteral("GET"), QStringLiteral("/"));
    const QByteArray piece = ok("content-length: 9\r\n", "half");
    const struct {
        const char* what;
        HttpRetryPolicy::Kind kind;
        HttpRequestHeader header;
        bool bStream;
        QByteArray answer;
        int nAttempts;
    } cases[] = {
        {"a POST, as always", HttpRetryPolicy::eAlways, post, false, "", 3},
        {"a stream, as always", HttpRetryPolicy::eAlways, get, true, piece, 3},
        {"a GET", HttpRetryPolicy::eIdempotent, get, false, "", 3},
        {"a GET whose answer is collected", HttpRetryPolicy::eIdempotent, get, false, piece, 3},
        {"a GET of which something was handed out", HttpRetryPolicy::eIdempotent, get, true, piece, 1},
        {"a POST", HttpRetryPolicy::eIdempotent, post, false, "", 1},
        {"a GET, never", HttpRetryPolicy::eNever, get, false, "", 1},
    };
    for (const auto& c : cases) {
        Exchange x;
        x.client->setRetryPolicy({c.kind, 0});
        x.send(c.header, c.bStream);
        while (x.connects("failed1")) {
            x.request();
            const int nEvents = x.events.size();
            x.server.write(c.answer);
            if (c.bStream) {
                ASSERT_TRUE(waitFor([&] { return x.events.size() == nEvents + 2; })) << c.what;
            }
            x.server.close();
        }
        EXPECT_EQ(x.nConnections, c.nAttempts) << c.what;
    }
}

TEST(HttpClientLimits, AStreamThatHasDeliveredForAWhileCountsItsLossesAnew)
{
    Exchange x;
    x.client->setRetryPolicy({HttpRetryPolicy::eAlways, 20});
    x.send(HttpRequestHeader(QStringLiteral("GET"), QStringLiteral("/live")), true);
    for (int i = 0; i < 5; ++i) {
        ASSERT_FALSE(x.request().isEmpty()) << i;
        x.events.clear();
        x.server.write(ok("content-length: 9\r\n", "1"));
        ASSERT_TRUE(x.sees("chunk 1"));
        settle(25);
        x.server.write("2");
        ASSERT_TRUE(x.sees("chunk 2"));
        x.server.close();
    }
    EXPECT_FALSE(x.events.contains(QStringLiteral("failed1")));
}

TEST(HttpClientLimits, ALoginThatWasRefusedIsNotTriedAgainByPolicy)
{
    const QByteArray digest = "Digest realm=\"r\", qop=\"auth\", nonce=\"";
    const struct {
        const char* what;
        bool bLogin;
        QByteArray challenge;
        int nRequests;
    } cases[] = {
        {"the same password", true, "Basic realm=\"r\"", 1},
        {"nothing to answer with", false, digest + "n\"", 1},
        {"a nonce", true, digest + "n\"", 2},
    };
    for (const auto& c : cases) {
        Exchange x;
        x.client->setRetryPolicy({HttpRetryPolicy::eIdempotent, 0});
        c.bLogin ? x.login() : x.get();
        for (int i = 0; i < c.nRequests; ++i) {
            ASSERT_FALSE(x.request().isEmpty()) << c.what;
            EXPECT_TRUE(x.events.isEmpty()) << c.what;
            x.server.write(denied(c.challenge));
        }
        ASSERT_TRUE(x.sees("done1 401 ")) << c.what;
    }
}
