// What a server's connection has over TLS beside all that it has in the clear (HttpServerExchangeTest).
#include "http/Served.h"
#include "support/LogCapture.h"
#include "support/Seams.h"

#include <cstring>

namespace
{
const QByteArray kGet = "GET / HTTP/1.1\r\n\r\n";

ServedWish usual() { return {certificates().forLocalhost()}; }
} // namespace

TEST(HttpServerTls, AClientMayHaveToShowItsCertificate)
{
    const QString recorder = certificates().issue({QStringLiteral("recorder"), QString()});
    Served good({certificates().forLocalhost(), certificates().authority(), recorder});
    good.client.write(kGet);
    ASSERT_TRUE(good.expect({"GET / "}));
    EXPECT_EQ(good.server->peerCertificate().subject, QLatin1String("CN=recorder"));
    EXPECT_TRUE(Served().server->peerCertificate().sha256.isEmpty());

    LogCapture log;
    ServedWish without{certificates().forLocalhost(), certificates().authority()};
    without.bHandshake = false;
    Served bad(without);
    bad.client.startTls();
    EXPECT_TRUE(waitFor([&] { return bad.client.atEnd(); }));
    EXPECT_TRUE(bad.expect({"error", "disconnected"}));
    EXPECT_EQ(bad.reason(), "6 10013 the peer has sent no certificate");
}

TEST(HttpServerTls, AHandshakeThatFailsIsToldOnce)
{
    const struct {
        const char* name;
        QString certificate;
        QByteArray sent;
        int nMs; // that pass
        const char* reason;
    } rows[] = {
        {"in the clear", certificates().forLocalhost(), kGet, 0,
            "5 10053 the peer does not speak TLS on this port"},
        {"silence", certificates().forLocalhost(), "", 10001,
            "5 5 the peer did not finish the TLS handshake within 10 seconds"},
        {"our file", QStringLiteral("missing.pem"), "", 0, "5 10053 "},
    };
    for (const auto& row : rows) {
        LogCapture log;
        Served s({row.certificate, QString(), QString(), false});
        EXPECT_TRUE(s.server->isConnected());
        s.client.write(row.sent);
        settle(10);
        seams::clockOffsetMs += row.nMs;
        EXPECT_TRUE(s.expect({"error", "disconnected"})) << row.name;
        EXPECT_EQ(s.reason().substr(0, std::strlen(row.reason)), row.reason) << row.name;
        EXPECT_FALSE(s.server->isConnected());
    }
    Served idle({certificates().forLocalhost(), QString(), QString(), false});
    idle.server->setTimeLimits({1000, 0, 0, 0});
    for (int i = 0; i < 3; ++i) {
        settle(300);
        seams::clockOffsetMs += 1000;
    }
    EXPECT_TRUE(idle.expect({"disconnected"})) << "who never begins is idle, too";
}

TEST(HttpServerTls, AnAnswerGivenDuringTheHandshakeFollowsIt)
{
    ServedWish wish = usual();
    wish.bHandshake = false;
    Served s(wish);
    s.respond(200, "early", "Connection", "close");
    settle(10);
    EXPECT_TRUE(s.events.isEmpty());
    s.client.startTls();
    EXPECT_TRUE(waitFor([&] { return s.client.atEnd(); }));
    EXPECT_TRUE(s.client.received().endsWith("early")) << s.client.received().constData();
    EXPECT_TRUE(s.client.hasGoodbye() && !s.client.wasReset());
    s.client.close();
    EXPECT_TRUE(s.expect({"finished", "disconnected"}));
}

// Somebody on the path can end a connection, but not announce its end.
TEST(HttpServerTls, TheEndCountsWhereItIsAnnounced)
{
    const QByteArray big(8 << 20, 'b');
    for (const bool bGoodbye : {true, false}) {
        for (const bool bUntilEnd : {true, false}) {
            Served s(usual());
            s.client.write(bUntilEnd ? "POST / HTTP/1.1\r\n\r\nabc" : kGet);
            settle(20);
            if (bGoodbye)
                s.client.sayGoodbye(); // TCP's end does not follow
            else
                s.client.raw().shutdownWrite();
            if (bUntilEnd && !bGoodbye) {
                EXPECT_TRUE(s.expect({"disconnected"}));
                EXPECT_EQ(s.reason(), "7 0 the peer ended the connection within a request");
                continue;
            }
            ASSERT_TRUE(s.expect({bUntilEnd ? "POST / abc" : "GET / "}));
            s.respond(200, big);
            EXPECT_TRUE(waitFor([&] { return s.client.atEnd(); }));
            EXPECT_TRUE(s.client.received().endsWith(big) && s.client.hasGoodbye());
            EXPECT_TRUE(s.expect({"finished", "disconnected"}));
        }
    }
}
