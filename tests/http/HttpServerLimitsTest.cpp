// Peers that a server's connection does not wait for for ever, and the reasons that it tells.
#include "http/Served.h"
#include "support/LogCapture.h"
#include "support/Seams.h"

#include <cstring>

namespace
{
constexpr int kMs = 20000; // of a limit
constexpr int kShort = 40; // of one that is not concerned: a look at all of them comes every quarter of it
void letLook() { settle(30); }

const QByteArray kBody = "PUT / HTTP/1.1\r\nContent-Length: 100000\r\n\r\n";
const QByteArray kGet = "GET / HTTP/1.1\r\n\r\n";
} // namespace

TEST(HttpServerLimits, EndWhatLastsTooLongAndTellWhy)
{
    const struct {
        const char* name;
        QByteArray sent;
        int status; // of our answer; 0: none
        HttpServerTimeLimits limits;
        std::vector<const char*> told;
        const char* reason;
    } rows[] = {
        {"silence", "", 0, {kMs, 0, 0, kShort}, {"disconnected"}, "no request came within 20000 ms"},
        {"line ends", "\r\n\r\n", 0, {kMs, 0, 0, kShort}, {"disconnected"},
            "no request came within 20000 ms"},
        {"half a head", "GET / HT", 408, {0, kMs, 0, kShort}, {"error", "finished", "disconnected"},
            "a request's head did not come within 20000 ms"},
        {"half a body", kBody + "x", 408, {0, 0, kMs, kShort}, {"error", "finished", "disconnected"},
            "a request's body did not go on within 20000 ms"},
        {"half a chunk", "PUT / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nab", 408,
            {0, 0, kMs, kShort}, {"chunk ab", "error", "finished", "disconnected"},
            "a request's body did not go on within 20000 ms"},
    };
    for (const QString& certificate : {QString(), certificates().forLocalhost()}) {
        for (const auto& row : rows) {
            Served s(ServedWish{certificate});
            s.server->setTimeLimits(row.limits);
            s.client.write(row.sent);
            letLook();
            seams::clockOffsetMs += kMs / 2;
            letLook();
            EXPECT_EQ(s.events.contains(QLatin1String("error")) || s.client.atEnd(), false)
                << row.name << ": too early";
            seams::clockOffsetMs += kMs;
            ASSERT_TRUE(waitFor([&] { return s.client.atEnd(); })) << row.name;
            EXPECT_FALSE(s.client.wasReset()) << row.name;
            EXPECT_EQ(s.client.received().mid(9, 3).toInt(), row.status) << row.name;
            s.client.close();
            QStringList told;
            for (const char* event : row.told)
                told << QLatin1String(event);
            EXPECT_TRUE(s.expect(told)) << row.name;
            EXPECT_EQ(s.reason(), std::string("8 10060 ") + row.reason) << row.name;
        }
    }
}

TEST(HttpServerLimits, AnAnswerThatIsNotReadEndsInAnError)
{
    for (const QString& certificate : {QString(), certificates().forLocalhost()}) {
        Served s(ServedWish{certificate});
        s.client.write(kGet);
        ASSERT_TRUE(s.expect({"GET / "}));
        s.server->setTimeLimits({kShort, kShort, kShort, kMs});
        s.respond(200, QByteArray(20 << 20, 'x'));
        for (int i = 0; i < 4; ++i) { // slow, but each time something
            letLook();
            seams::clockOffsetMs += kMs / 2;
            const int before = s.client.raw().received(1 << 20).size();
            ASSERT_TRUE(waitFor([&] { return s.client.raw().received(1 << 20).size() > before; }));
        }
        letLook();
        EXPECT_TRUE(s.events.isEmpty());
        for (int i = 0; i < 100 && s.events.isEmpty();
             ++i) { // the system itself takes a little more for a while
            seams::clockOffsetMs += kMs;
            letLook();
        }
        EXPECT_TRUE(s.expect({"error", "disconnected"}));
        EXPECT_EQ(s.reason(), "8 10060 the peer did not read on within 20000 ms");
    }
}

TEST(HttpServerLimits, DoNotHurtWhoGoesOn)
{
    Served s;
    s.server->setTimeLimits({kMs, kShort, kMs, kMs});
    s.client.write(kBody);
    for (int i = 0; i < 5; ++i) { // each time a little more than a KiB
        letLook();
        seams::clockOffsetMs += kMs / 2;
        s.client.write(QByteArray(1100, 'b'));
    }
    s.client.write(QByteArray(100000 - 5500, 'b'));
    ASSERT_TRUE(waitFor([&] { return !s.events.isEmpty(); }));
    EXPECT_EQ(s.events.first().left(5).toStdString(), "PUT /") << "a body that came slowly";
    s.events.clear();
    seams::clockOffsetMs += 10 * kMs;
    letLook();
    EXPECT_TRUE(s.events.isEmpty()) << "the owner takes its time";
    s.respond(200, "", "Transfer-Encoding", "chunked", true);
    for (int i = 0; i < 3; ++i) {
        seams::clockOffsetMs += kMs;
        letLook();
        s.server->sendContent("picture", 7);
    }
    EXPECT_TRUE(s.events.isEmpty()) << "a viewer that keeps up";
    s.server->endContent();
    ASSERT_TRUE(s.expect({"finished"}));
    for (int i = 0; i < 4; ++i) { // each request begins the time anew
        letLook();
        seams::clockOffsetMs += kMs / 2;
        s.client.write(kGet);
        ASSERT_TRUE(s.expect({"GET / "})) << i;
        s.respond(200, "x");
        ASSERT_TRUE(s.expect({"finished"}));
    }
    s.server->setTimeLimits({});
    seams::clockOffsetMs += 10 * kMs;
    letLook();
    EXPECT_TRUE(s.events.isEmpty()) << "none any more";
}

TEST(HttpServerLimits, AFailureHasItsReason)
{
    HttpReadLimits small;
    small.nContent = 10;
    const struct {
        const char* name;
        QByteArray sent;
        std::function<void(Served&)> then;
        const char* reason;
    } rows[] = {
        {"nothing", "", [](Served& s) { s.client.shutdownWrite(); }, "0 0 "},
        {"no HTTP", "nonsense\r\n\r\n", {}, "9 10053 a request has no valid head"},
        {"unclear", "GET / HTTP/1.1\r\nContent-Length: -1\r\n\r\n", {},
            "9 10053 it is unclear where a request's body ends"},
        {"chunk", "PUT / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\nxyz\r\n", {},
            "9 10053 what came is no HTTP, or exceeds a limit"},
        {"large", kBody + QByteArray(20, 'x'), {}, "10 10053 a request's body exceeds the limit"},
        {"half a head", "GET / HT", [](Served& s) { s.client.shutdownWrite(); },
            "7 0 the peer ended the connection within a request"},
        {"half a body", kBody + "half", [](Served& s) { s.client.shutdownWrite(); },
            "7 0 the peer ended the connection within a request"},
        {"reset", kGet, [](Served& s) { s.client.raw().reset(); }, "7 10054 "},
        {"no connection", "",
            [](Served& s) {
                s.server->shutdown();
                s.respond(200, "");
            },
            "2 10057 there is no connection for this response"},
    };
    for (const auto& row : rows) {
        LogCapture log;
        Served s;
        s.server->setReadLimits(small);
        s.client.write(row.sent);
        settle(20);
        if (row.then)
            row.then(s);
        else
            EXPECT_TRUE(waitFor([&] { return s.client.atEnd(); })) << row.name;
        s.client.close();
        EXPECT_TRUE(s.sees("disconnected")) << row.name;
        EXPECT_EQ(s.reason().substr(0, std::strlen(row.reason)), row.reason) << row.name;
    }
}
