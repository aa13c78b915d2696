#include "net/SslTalkers.h"
#include "rtsp/RtspKeepAlive_p.h"
#include "rtsp/ScriptedCamera.h"
#include "support/OwnNetwork.h"
#include "support/Seams.h"
#include "support/Table.h"

#include <QtNetwork/QSslCertificate>

#include <malloc.h>

namespace
{
Script silent() { return Script().sends({}); }
RtspOptions udp() { return over(RtspOptions::eUdp); }
} // namespace

TEST(RtspClient, PlaysPausesResumesAndStops)
{
    Viewer viewer;
    ASSERT_TRUE(viewer.starts("unit 0 2")) << viewer.log();
    EXPECT_FALSE(viewer.client->start(QStringLiteral("rtsp://x/"))) << "while it plays";
    EXPECT_EQ(viewer.client->sessionId(), QStringLiteral("42"));
    EXPECT_EQ(viewer.client->state(), RtspClient::ePlaying);
    EXPECT_TRUE(viewer.client->pause());
    ASSERT_TRUE(viewer.waitUntil("paused"));
    EXPECT_FALSE(viewer.client->pause());
    viewer.events.clear();
    EXPECT_TRUE(viewer.client->resume());
    ASSERT_TRUE(viewer.waitUntil("playing"));
    EXPECT_FALSE(viewer.camera.last("PLAY").contains("Range")) << "it goes on where it was";
    viewer.client->stop();
    EXPECT_FALSE(viewer.has("stopped")) << "not inside the call";
    ASSERT_TRUE(viewer.waitUntil("stopped"));
    EXPECT_TRUE(viewer.camera.last("TEARDOWN").startsWith("TEARDOWN rtsp://127.0.0.1"));
    EXPECT_TRUE(viewer.waitUntil([&] { return viewer.camera.connection().atEnd(); }));
    viewer.events.clear();
    EXPECT_TRUE(viewer.starts("playing")) << "it may be used again";
}

TEST(RtspClient, ControlsEachTrackForItselfWhereTheServerWantsItAndAnswersNewNonces)
{
    Viewer viewer(on("PLAY", {refuses("459 Aggregate Operation Not Allowed"), answer()})
                      .on("SETUP", {setUp("{transport}", "42;timeout=1")})
                      .on("GET_PARAMETER", {asksDigest("n1"), answer()}) // nonces expire
                      .on("PAUSE", {asksDigest("n2"), answer()})
                      .on("TEARDOWN", {asksDigest("n3"), answer()})
                      .describes(kAudioTrack + "m=audio 0 RTP/AVP 8\r\na=control:track2\r\n"));
    ASSERT_TRUE(viewer.starts("playing", "user", "secret")) << viewer.log();
    EXPECT_TRUE(viewer.camera.last("PLAY").contains("Range: npt=0")) << "each from its beginning";
    EXPECT_TRUE(viewer.waitUntil([&] { return viewer.camera.count("GET_PARAMETER") == 2; }));
    EXPECT_TRUE(viewer.camera.last("GET_PARAMETER").contains("nonce=\"n1\""));
    EXPECT_TRUE(viewer.client->pause());
    ASSERT_TRUE(viewer.waitUntil("paused")) << viewer.log();
    viewer.events.clear();
    EXPECT_TRUE(viewer.client->resume());
    ASSERT_TRUE(viewer.waitUntil("playing")) << viewer.log();
    viewer.client->stop();
    ASSERT_TRUE(viewer.waitUntil("stopped")) << viewer.log();
    for (const auto& row :
        {std::make_pair("PLAY", 5), std::make_pair("PAUSE", 3), std::make_pair("TEARDOWN", 3)}) {
        EXPECT_EQ(viewer.camera.count(row.first), row.second) << row.first;
        EXPECT_TRUE(viewer.camera.last(row.first).contains("/track2 ")) << row.first;
    }
}

TEST(RtspClient, TakesDatagramsInOrderFromTheServerOnly)
{
    RtspOptions options = udp();
    options.nReorderMs = 50;
    Viewer viewer(silent(), options);
    ASSERT_TRUE(viewer.starts("playing")) << viewer.log();
    EXPECT_EQ(viewer.camera.clientPort % 2, 0) << "RTCP on the odd one";
    EXPECT_EQ(viewer.camera.rtpPort.receiveDatagram().data().size(), 12) << "a first packet opens the way";
    EXPECT_GE(viewer.camera.rtcpPort.receiveDatagram().data().size(), 8);
    RawUdp stranger;
    stranger.sendTo(viewer.camera.clientPort, rtp(0, 99));
    for (const int sequence : {1, 3, 2, 4, 6})
        viewer.camera.rtpPort.sendTo(viewer.camera.clientPort, rtp(0, sequence));
    viewer.camera.rtcpPort.sendTo(viewer.camera.clientPort + 1, QByteArray::fromHex("80c9000111223344"));
    ASSERT_TRUE(viewer.waitUntil("unit 0 6")) << viewer.log();
    QStringList units = viewer.events.filter(QStringLiteral("unit"));
    EXPECT_EQ(units.join(QLatin1Char(' ')), QStringLiteral("unit 0 1 unit 0 2 unit 0 3 unit 0 4 unit 0 6"));
    EXPECT_FALSE(viewer.has("packet 0 99")) << "another port than the server named";
    EXPECT_TRUE(viewer.waitUntil("rtcp 0"));
    EXPECT_EQ(viewer.client->trackStatistics().first().nLost, 1U);
    EXPECT_EQ(viewer.client->droppedPackets(), 1U);
}

TEST(RtspClient, TakesDatagramsFromWhereTheAnswerSays)
{
    // Situation; transport; packets taken: 5 of the server, 6 of another; whose ports count; the other's
    // host.
    for (const auto& row : rowsOf(R"(
no port | RTP/AVP;unicast | 5 6
IPv6 | RTP/AVP;unicast;server_port={rtp}-{rtcp};source=::1 | 5 | named | ::1
another port, and the first that sends counts | RTP/AVP;unicast;server_port=9-10 | 5 | first
another port, and none counts | RTP/AVP;unicast;server_port=9-10 | 5 6 | any
ports 0 and 1 | RTP/AVP;unicast;server_port=0-1 | 5 6
another port | RTP/AVP;unicast;server_port=9-10 |
a name as source | RTP/AVP;unicast;source=viewer.camera.local | 5 6
an empty source | RTP/AVP;unicast;source= | 5 6
another machine | RTP/AVP;unicast | 5 | named | 127.0.0.9
another machine as source | RTP/AVP;unicast;source=127.0.0.9 | 5 6 | named | 127.0.0.9
one port for a pair | RTP/AVP;server_port={rtp} | 5
another machine as source: reports go there | RTP/AVP;server_port=9-{other};source=127.0.0.9 | | named | 127.0.0.9)",
             '|')) {
        RtspOptions options = udp();
        options.quirks.serverPort = row.value(3) == "first" ? RtspQuirks::eFirstSeenPort
            : row.value(3) == "any"                         ? RtspQuirks::eAnyPort
                                                            : RtspQuirks::eNamedPort;
        RawUdp other(row.value(4, "127.0.0.1"));
        QByteArray transport = row[1];
        const bool bReports = transport.contains("{other}");
        transport.replace("{other}", QByteArray::number(other.localPort()));
        Script script = silent().on("SETUP", {setUp(transport)});
        script.bIPv6 = row.value(4) == "::1";
        Viewer viewer(script, options);
        const char* name = row[0].constData();
        ASSERT_TRUE(viewer.starts("playing")) << name << viewer.log();
        const char* host = script.bIPv6 ? "::1" : "127.0.0.1";
        EXPECT_TRUE(viewer.waitUntil([&] { return !bReports || other.hasPendingDatagrams(); })) << name;
        const auto taken = [&] { return viewer.events.filter(QStringLiteral("packet")); };
        const auto nSeen = [&] { return taken().size() + static_cast<int>(viewer.client->droppedPackets()); };
        viewer.camera.rtpPort.sendTo(viewer.camera.clientPort, rtp(0, 5), host);
        EXPECT_TRUE(viewer.waitUntil([&] { return nSeen() == 1; })) << name;
        other.sendTo(viewer.camera.clientPort, rtp(0, 6), host);
        EXPECT_TRUE(viewer.waitUntil([&] { return nSeen() == 2; })) << name;
        const QString numbers = taken().join(QLatin1Char(' ')).remove(QStringLiteral("packet 0 "));
        EXPECT_EQ(numbers.toStdString(), row[2].toStdString()) << name;
    }
}

TEST(RtspClient, JoinsTheGroupOfTheAnswer)
{
    const auto group = [](const char* transport) { return silent().on("SETUP", {setUp(transport)}); };
    const bool bMade = inOwnNetwork({"route add 239.0.0.0/8 dev lo"}, [&] {
        const char* inAnswer = "RTP/AVP;multicast;destination=239.9.9.9;port=17000-17001";
        const QByteArray inText = "v=0\nc=IN IP4 239.9.9.9/1\nm=audio 17000 RTP/AVP 0\n";
        const Script onlyGroups
            = silent().on("SETUP", {refuses("461 No"), refuses("461 No"), setUp("RTP/AVP;multicast")});
        for (const auto& [script, transport] : {std::make_pair(group(inAnswer), RtspOptions::eMulticast),
                 std::make_pair(group("RTP/AVP;multicast").describes(inText), RtspOptions::eMulticast),
                 std::make_pair(Script(onlyGroups).describes(inText), RtspOptions::eAutomatic)}) {
            Viewer viewer(script, over(transport));
            ASSERT_TRUE(viewer.starts("playing")) << viewer.log();
            EXPECT_TRUE(viewer.camera.last("SETUP").contains("Transport: RTP/AVP;multicast\r\n"));
            EXPECT_EQ(viewer.client->transport(), RtspOptions::eMulticast);
            viewer.camera.rtpPort.sendTo(17000, rtp(0, 5), "239.9.9.9");
            EXPECT_TRUE(viewer.waitUntil("unit 0 5")) << script.sdp.constData();
        }
        const Script noGroup = group("RTP/AVP;multicast;destination=127.0.0.1;port=17000-17001");
        Viewer viewer(noGroup, over(RtspOptions::eMulticast));
        EXPECT_TRUE(viewer.starts("error 461")) << "what is no group is not joined";
        for (const bool bShared : {false, true}) { // with a server on the same machine
            QUdpSocket held;
            held.bind(QHostAddress(QHostAddress::AnyIPv4), 17001,
                bShared ? QAbstractSocket::ShareAddress | QAbstractSocket::ReuseAddressHint
                        : QAbstractSocket::DontShareAddress);
            Viewer beside(group(inAnswer), over(RtspOptions::eMulticast));
            EXPECT_TRUE(beside.starts(bShared ? "playing" : "error 10048")) << beside.log();
            EXPECT_NE(bShared, beside.has("group 239.9.9.9 cannot be joined on port 17001: "))
                << beside.log();
        }
    });
    if (!bMade)
        GTEST_SKIP() << kNoOwnNetwork;
}

TEST(RtspClient, PlaysOverTlsAndNeverLeavesIt)
{
    const QString authority = certificates().authority();
    const QByteArray pin = QSslCertificate::fromPath(certificates().forLocalhost())
                               .value(0)
                               .digest(QCryptographicHash::Sha256)
                               .toHex();
    const QByteArray usual
        = "RTSP/1.0 200 OK\r\nContent-Length: " + QByteArray::number(kSdp.size()) + "\r\n\r\n" + kSdp;
    const struct {
        const char* name;
        QString trusted;
        const char* until = "unit 0 1";
        const char* pin = nullptr;
        bool bHandler = false; // which lets everybody in
        RtspOptions::Transport transport = RtspOptions::eAutomatic;
    } rows[] = {{"trusted", authority}, {"a certificate of nobody", {}, "error 10013"},
        {"a redirect to the clear", authority, "error 302"}, {"pinned", {}, "unit 0 1", pin.constData()},
        {"another is pinned", authority, "error 10013",
            "sha256//AAECAwQFBgcICQoLDA0ODxAREhMUFRYXGBkaGxwdHh8="},
        {"let in by a handler", {}, "unit 0 1", nullptr, true},
        {"datagrams", authority, "error 10022", nullptr, false, RtspOptions::eUdp}};
    QByteArray described;
    Server server;
    QObject::connect(&server.listener, &NuvikaTcpServer::newConnectionDesc, [&] {
        server.last().onData = [&described, &talker = server.last()] {
            const QByteArray request = std::exchange(talker.got, QByteArray());
            const QByteArray media = request.startsWith("PLAY") ? framed(0, rtp(0, 1)) : QByteArray();
            talker.send(request.startsWith("DESCRIBE") ? described
                                                       : "RTSP/1.0 200 OK\r\nSession: 42\r\n\r\n" + media);
        };
    });
    for (const auto& row : rows) {
        described = QByteArray(row.until) == "error 302"
            ? "RTSP/1.0 302 Found\r\nLocation: rtsp://127.0.0.1/\r\n\r\n"
            : usual;
        RtspOptions options;
        options.transport = row.transport;
        options.tlsTrusted = row.trusted;
        if (row.pin != nullptr)
            options.tlsPins = {TlsPin::fromText(QLatin1String(row.pin))};
        if (row.bHandler)
            options.tlsVerdict
                = [](const NuvikaSslSocket::PeerChain& chain) { return !chain.reasons.isEmpty(); };
        Viewer viewer(Script(), options);
        viewer.start("rtsps://127.0.0.1:" + QByteArray::number(server.listener.serverPort()));
        EXPECT_TRUE(viewer.waitUntil(row.until)) << row.name << viewer.log();
    }
}

TEST(RtspClient, GoesFromUdpToTcpWhenNothingComesAndRemembersIt)
{
    Viewer viewer(Script(), over(RtspOptions::eAutomatic));
    ASSERT_TRUE(viewer.starts("unit 0")) << viewer.log();
    EXPECT_TRUE(viewer.has("transport 1"));
    EXPECT_EQ(viewer.camera.count("TEARDOWN"), 1);
    EXPECT_EQ(viewer.camera.count("OPTIONS"), 1);
    EXPECT_EQ(viewer.camera.count("DESCRIBE"), 2) << "each connection begins with it";
    EXPECT_EQ(viewer.camera.sockets.size(), 2U);
    EXPECT_EQ(viewer.events.filter(QStringLiteral("described")).size(), 1);
    viewer.client->stop();
    ASSERT_TRUE(viewer.waitUntil("stopped"));
    viewer.events.clear();
    ASSERT_TRUE(viewer.starts("unit 0"));
    EXPECT_FALSE(viewer.has("transport")) << "what worked is tried first";
}

TEST(RtspClient, KeepsTheSessionAsTheServerUnderstandsIt)
{
    Viewer viewer(on("SETUP", {setUp("{transport}", "42;timeout=20")})
                      .on("PLAY", {answer("Session: 42;timeout=1")})
                      .on("GET_PARAMETER", {refuses("405 Method Not Allowed")})
                      .on("SET_PARAMETER", {QByteArray()})); // never answered
    ASSERT_TRUE(viewer.starts("unit 0"));
    EXPECT_EQ(viewer.client->sessionTimeout(), 1) << "the last holds";
    EXPECT_TRUE(viewer.waitUntil([&] { return viewer.camera.count("SET_PARAMETER") == 2; }))
        << "an answer that is missing is no error";
    EXPECT_EQ(viewer.camera.count("GET_PARAMETER"), 1) << "the next one after an error";
    const QByteArray base = viewer.camera.url() + ' ';
    EXPECT_TRUE(viewer.camera.last("GET_PARAMETER").startsWith("GET_PARAMETER " + base));
    EXPECT_TRUE(viewer.camera.last("SET_PARAMETER").contains("Session: 42"));
    EXPECT_FALSE(viewer.has("error")) << viewer.log();
}

TEST(RtspClient, ASessionIsKeptAtHalfOfItsTimeAtMostThirtySecondsApart)
{
    for (const auto& [session, interval] :
        std::initializer_list<std::pair<const char*, int>>{{"1", 30000}, {"1;timeout=60", 30000},
            {"1;timeout=0", 30000}, {"1;timeout=20", 10000}, {"1; timeout = 20 ", 10000},
            {"1;timeout=3600", 30000}, {"1;timeout=", 30000}, {"1;timeout=-4", 30000}}) {
        const auto field = Nuvika::RtspSessionField::parse(QString::fromLatin1(session));
        EXPECT_EQ(Nuvika::RtspKeepAlive::intervalMs(field.nTimeout), interval) << session;
    }
    for (const auto& [named, used] : {std::make_pair("", "OPTIONS OPTIONS"),
             std::make_pair("PLAY, get_parameter", "GET_PARAMETER OPTIONS OPTIONS"),
             std::make_pair("SET_PARAMETER,GET_PARAMETER", "GET_PARAMETER SET_PARAMETER OPTIONS")}) {
        Nuvika::RtspKeepAlive keepAlive;
        keepAlive.setMethods(Nuvika::parseMethods(QString::fromLatin1(named)));
        for (const QByteArray& each : QByteArray(used).split(' ')) {
            EXPECT_EQ(keepAlive.method().toStdString(), each.toStdString()) << named;
            keepAlive.refused();
        }
    }
}

TEST(RtspClient, NoKeepAliveAndNoReportWaitsBehindAStalledConnection)
{
    RtspOptions options = Viewer::tcp();
    options.timeouts.nSilence = 0;
    options.nReportMs = 100;
    Viewer viewer(on("SETUP", {setUp("{transport}", "42;timeout=1")}), options);
    ASSERT_TRUE(viewer.starts("unit 0 2")) << viewer.log();
    int nSent = 0;
    QObject::connect(viewer.client.get(), &RtspClient::messageSent, [&] { ++nSent; });
    ASSERT_TRUE(viewer.waitUntil([&] { return nSent == 1 && viewer.camera.reports > 0; }));
    seams::sending.arm(1000000, EAGAIN);
    const int nReports = viewer.camera.reports;
    QElapsedTimer time;
    time.start();
    EXPECT_TRUE(viewer.waitUntil([&] { return time.elapsed() > 1800; }));
    EXPECT_LE(nSent, 2) << "one for each half of a second";
    seams::sending.arm(0, 0);
    viewer.camera.connection().write(framed(0, rtp(0, 3))); // the system looks at it again
    EXPECT_TRUE(viewer.waitUntil([&] { return nSent >= 3 && viewer.camera.reports > nReports + 1; }));
    EXPECT_FALSE(viewer.has("error")) << viewer.log();
}

TEST(RtspClient, EachTimeLimitHasItsSentence)
{
    const auto never = [](const char* method) { return silent().on(method, {QByteArray()}); };
    const struct {
        Script script;
        bool bUdp;
        int RtspTimeouts::*limit;
        const char* text;
        int nTeardowns;
    } rows[] = {
        {never("OPTIONS"), false, &RtspTimeouts::nAnswer, "no answer to OPTIONS (CSeq 1) within 0.1 s", 0},
        {never("SETUP"), false, &RtspTimeouts::nAnswer, "no answer to SETUP (CSeq 3) within 0.1 s", 0},
        {silent(), false, &RtspTimeouts::nFirstPacket, "no packet came within 0.1 s", 1},
        {silent(), true, &RtspTimeouts::nFirstPacket, "no packet came within 0.1 s", 1},
        {Script(), false, &RtspTimeouts::nSilence, "nothing more came within 0.1 s", 1},
        {Script(), false, &RtspTimeouts::nConnect, "no connection within 0.1 s", 0},
    };
    for (const auto& row : rows) {
        RtspOptions options = row.bUdp ? udp() : Viewer::tcp();
        options.timeouts.*row.limit = 100;
        const bool bLookup = row.limit == &RtspTimeouts::nConnect;
        seams::holdLookups(bLookup);
        Viewer viewer(row.script, options);
        viewer.start(bLookup ? "rtsp://slow.name/" : QByteArray());
        EXPECT_TRUE(viewer.waitUntil("error 10060")) << viewer.log();
        EXPECT_TRUE(viewer.has(row.text)) << viewer.log();
        EXPECT_EQ(viewer.camera.count("TEARDOWN"), row.nTeardowns) << row.text;
    }
    seams::holdLookups(false);
}

TEST(RtspClient, KnowsWhatIsASignOfLife)
{
    const auto lives = [](const Script& script, const char* until, const QByteArray& bytes) {
        RtspOptions options = Viewer::tcp();
        options.timeouts.nFirstPacket = options.timeouts.nSilence = 500;
        Viewer viewer(script, options);
        ASSERT_TRUE(viewer.starts(until)) << viewer.log();
        QElapsedTimer time;
        time.start();
        EXPECT_TRUE(viewer.waitUntil([&] {
            viewer.camera.connection().write(bytes);
            return time.elapsed() > 1100;
        }));
        EXPECT_FALSE(viewer.has("error")) << viewer.log();
    };
    lives(Script(), "packet", framed(9, "x")); // any bytes over TCP
    const char* data = "m=application 0 RTP/AVP 107\na=rtpmap:107 vnd.onvif.metadata/90000\n";
    lives(silent().describes(data), "playing", ""); // data may be silent for hours
}

TEST(RtspClient, WarnsOnceOfStrayBytes)
{
    Viewer viewer(silent());
    ASSERT_TRUE(viewer.starts("playing"));
    for (const int sequence : {1, 2, 3}) {
        viewer.camera.connection().write("\x01stray" + framed(0, rtp(0, sequence)));
        EXPECT_TRUE(
            viewer.waitUntil([&] { return viewer.events.last().endsWith(QString::number(sequence)); }));
    }
    EXPECT_EQ(viewer.client->strayBytes(), 18U);
    EXPECT_EQ(viewer.records.count("sends bytes that are neither RTSP nor packets"), 1);
}

TEST(RtspClient, WaitsForATeardownAndTriesOnceMoreOverUdp)
{
    const struct {
        RtspOptions options;
        QByteArray first; // its answer
        std::size_t connections;
    } rows[] = {{Viewer::tcp(), "", 1}, {Viewer::tcp(), framed(0, rtp(0, 9)) + answer(), 1}, {udp(), "", 2},
        {udp(), refuses("454 Session Not Found"), 1}, {udp(), refuses("500 Oh"), 1}};
    for (const auto& row : rows) {
        RtspOptions options = row.options;
        options.timeouts.nTeardown = 100;
        Viewer viewer(silent().on("TEARDOWN", {row.first, answer()}), options);
        ASSERT_TRUE(viewer.starts("playing"));
        viewer.client->stop();
        EXPECT_TRUE(viewer.waitUntil("stopped"));
        EXPECT_FALSE(viewer.has("packet")) << "behind TEARDOWN";
        EXPECT_EQ(viewer.camera.sockets.size(), row.connections);
        EXPECT_EQ(viewer.camera.count("TEARDOWN"), static_cast<int>(row.connections));
    }
}

TEST(RtspClient, TellsTheEndOfAConnectionAndFreesTheServer)
{
    for (const bool bUdp : {false, true}) {
        Script script = silent();
        script.bCloseAfterPlay = true;
        Viewer viewer(script, bUdp ? udp() : Viewer::tcp());
        ASSERT_TRUE(viewer.starts("error 10054")) << viewer.log();
        EXPECT_TRUE(viewer.has("the server ended the connection, behind ")) << viewer.log();
        EXPECT_EQ(viewer.camera.count("TEARDOWN"), bUdp ? 1 : 0) << "on a connection of its own";
    }
}

TEST(RtspClient, ReportsWhatItReceives)
{
    RtspOptions options = Viewer::tcp();
    options.nReportMs = 50;
    Viewer viewer(Script(), options);
    QVector<RtspTrackStatistics> told;
    QObject::connect(viewer.client.get(), &RtspClient::statistics, viewer.client.get(),
        [&](const QVector<RtspTrackStatistics>& all) { told = all; });
    ASSERT_TRUE(viewer.starts("unit 0 2"));
    EXPECT_TRUE(viewer.waitUntil([&] { return told.size() == 1; }));
    EXPECT_EQ(told.value(0).nPackets, 2U);
    EXPECT_EQ(told.value(0).nUnits, 2U);
    EXPECT_GT(told.value(0).nBitsPerSecond, 0U);
    EXPECT_TRUE(viewer.waitUntil([&] { return viewer.camera.reports >= 2; }));
}

TEST(RtspClient, APacketWithoutPayloadIsNoLossAndNoUnit)
{
    const QByteArray padded = QByteArray("\xA0") + rtp(0, 3, 0x11223344, QByteArray("\0\0\0\x04", 4)).mid(1);
    Viewer viewer(Script().sends(framed(0, rtp(0, 1)) + framed(0, rtp(0, 2, 0x11223344, ""))
        + framed(0, padded) + framed(0, rtp(0, 4)) + framed(0, "\x80\0\0\x05") + framed(0, rtp(0, 6))));
    ASSERT_TRUE(viewer.starts("unit 0 6")) << viewer.log();
    EXPECT_EQ(viewer.events.filter(QStringLiteral("unit")).size(), 3) << viewer.log();
    const RtspTrackStatistics counts = viewer.client->trackStatistics().first();
    EXPECT_EQ(counts.nLost, 1U) << "what is too short to be one";
    EXPECT_EQ(counts.nPackets, 5U);
}

TEST(RtspClient, FollowsANewSourceOnceTheOldOneIsSilent)
{
    RtspOptions options = Viewer::tcp();
    options.timeouts.nSilence = 0;
    Viewer viewer(Script(), options);
    ASSERT_TRUE(viewer.starts("unit 0 2"));
    viewer.camera.connection().write(framed(0, rtp(0, 50, 0x99)));
    for (int sequence = 3; sequence < 60; ++sequence) { // which has a pace
        seams::clockOffsetMs += 40;
        viewer.camera.connection().write(framed(0, rtp(0, sequence)));
        ASSERT_TRUE(viewer.waitUntil(qPrintable(QStringLiteral("unit 0 %1").arg(sequence))));
    }
    seams::clockOffsetMs += 1500;
    viewer.camera.connection().write(framed(0, rtp(0, 200, 0x99)) + framed(0, rtp(0, 201, 0x99)));
    ASSERT_TRUE(viewer.waitUntil("unit 0 201")) << viewer.log();
    EXPECT_TRUE(viewer.has("unit 0 200")) << "from its first packet on";
    const RtspTrackStatistics counts = viewer.client->trackStatistics().first();
    EXPECT_EQ(counts.nStrangers, 1U) << "while the first one flows";
    EXPECT_EQ(counts.nLost, 0U);
    seams::clockOffsetMs = 0;
}

TEST(RtspClient, MayBeStoppedAndDeletedInEveryHandler)
{
    for (const char* text :
        {"described", "playing", "packet", "unit", "rtcp", "paused", "transport", "stopped", "error"}) {
        const QLatin1String moment(text);
        for (const bool bDelete : {false, true}) {
            Script script;
            script.media += framed(1, QByteArray::fromHex("80c9000111223344")) + framed(0, rtp(0, 3));
            if (moment == QLatin1String("error"))
                script.answers["PLAY"] = {refuses("500 Oh")};
            const bool bTransport = moment == QLatin1String("transport");
            if (bTransport)
                script.answers["SETUP"] = {refuses("461 No"), setUp()};
            Viewer viewer(script, bTransport ? over(RtspOptions::eAutomatic) : Viewer::tcp());
            bool bActed = false;
            viewer.onEvent = [&](const QString& event) {
                if (moment == QLatin1String("paused") && event == QLatin1String("unit 0 1"))
                    viewer.client->pause();
                if (moment == QLatin1String("stopped") && event == QLatin1String("unit 0 1"))
                    viewer.client->stop();
                if (bActed || !event.startsWith(moment))
                    return;
                bActed = true;
                if (bDelete)
                    viewer.client.reset();
                else
                    viewer.client->stop();
            };
            viewer.start();
            EXPECT_TRUE(viewer.waitUntil([&] { return bActed; })) << text << ' ' << viewer.log();
            EXPECT_TRUE(viewer.waitUntil([&] {
                return bDelete || viewer.client->state() == RtspClient::eIdle;
            })) << text;
            settle(5);
        }
    }
}

TEST(RtspClient, TellsNoSecondUnitOfAPacketWhenTheFirstEndedTheSession)
{
    const QByteArray twoUnits = QByteArray::fromHex("002000100010aabbccdd");
    for (const bool bStops : {false, true}) {
        Script script;
        script.sdp = "m=audio 0 RTP/AVP 97\na=rtpmap:97 mpeg4-generic/48000/2\na=fmtp:97 mode=AAC-hbr;"
                     "sizelength=13;indexlength=3;indexdeltalength=3;config=1190\n";
        script.media = framed(0, rtp(97 | 0x80, 1, 1, twoUnits));
        Viewer viewer(script);
        int units = 0;
        viewer.onEvent = [&](const QString& event) {
            if (event.startsWith(QLatin1String("unit")) && ++units == 1 && bStops)
                viewer.client->stop();
        };
        viewer.start();
        EXPECT_TRUE(viewer.waitUntil([&] { return units > 0; })) << viewer.log();
        settle(5);
        EXPECT_EQ(units, bStops ? 1 : 2) << viewer.log();
    }
}

TEST(RtspClient, APacketHoldsUntilTheHandlerThatDeletesTheClientReturns)
{
    Viewer viewer(silent());
    ASSERT_TRUE(viewer.starts("playing"));
    QByteArray seen;
    const auto take = [&](int, const RTPPacket& packet, const RtpArrival&) {
        viewer.client.reset();
        seen = QByteArray(
            reinterpret_cast<const char*>(packet.getPayload()), static_cast<int>(packet.getPayloadSize()));
    };
    QObject::connect(viewer.client.get(), &RtspClient::packetReceived, take);
    const QByteArray bytes = framed(0, rtp(0, 1, 1, QByteArray(1000, 'p')));
    viewer.camera.connection().write(bytes.left(500)); // joined from its pieces
    settle(10);
    viewer.camera.connection().write(bytes.mid(500));
    EXPECT_TRUE(viewer.waitUntil([&] { return viewer.client == nullptr; }));
    EXPECT_EQ(seen, QByteArray(1000, 'p'));
}

TEST(RtspClient, SurvivesAnEventLoopInAHandler)
{
    Viewer viewer(silent(), udp());
    const auto send = [&](int sequence) {
        viewer.camera.rtpPort.sendTo(
            viewer.camera.clientPort, rtp(0, sequence, 1, QByteArray(5, static_cast<char>(sequence))));
    };
    ASSERT_TRUE(viewer.starts("playing")) << viewer.log();
    int units = 0;
    int depth = 0;
    const auto take = [&](int, const RtspUnit& unit) {
        EXPECT_EQ(++depth, 1) << "signals do not overtake each other";
        if (++units == 1)
            send(2);
        settle(20);
        const QByteArray bytes(reinterpret_cast<const char*>(unit.pData), static_cast<int>(unit.nSize));
        EXPECT_EQ(bytes, QByteArray(5, static_cast<char>(units))) << "overwritten";
        --depth;
    };
    QObject::connect(viewer.client.get(), &RtspClient::unitReceived, take);
    send(1);
    EXPECT_TRUE(viewer.waitUntil([&] { return units == 2; })) << viewer.log();
}

TEST(RtspClient, HostileServersCostLittle)
{
    const QByteArray asks = "OPTIONS * RTSP/1.0\r\nCSeq: 1\r\n\r\n";
    const struct {
        const char* name;
        Script script;
    } rows[] = {{"a flood before PLAY", on("OPTIONS", {framed(0, rtp(0, 1)).repeated(50000) + answer()})},
        {"requests without end", on("OPTIONS", {asks.repeated(20000) + answer()})},
        {"a length that never comes", Script().sends(framed(0, rtp(0, 1)) + QByteArray("$\0\xFF\xFFzz", 6))}};
    for (const auto& row : rows) {
        Viewer viewer(row.script);
        EXPECT_TRUE(viewer.starts("unit 0")) << row.name << viewer.log();
        viewer.client->stop();
        EXPECT_TRUE(viewer.waitUntil("stopped")) << row.name;
    }
}

TEST(RtspClient, AThousandSessionsOfAThreadTakeLittle)
{
    ScriptedCamera camera(Script().describes(
        "m=video 0 RTP/AVP 96\na=rtpmap:96 H264/90000\na=control:track2\na=fmtp:96 sprop-parameter-sets="
        "Z0LAFdkBQfsBagwMDUoAAAMAAgAAAwBlHixckA==,aMuMsg==\n"
        + kAudioTrack));
    std::vector<std::unique_ptr<RtspClient>> clients;
    std::size_t nPlaying = 0;
    const auto play = [&](std::size_t count) {
        while (clients.size() < count) {
            clients.push_back(std::make_unique<RtspClient>());
            RtspClient* client = clients.back().get();
            client->setOptions(Viewer::tcp());
            QObject::connect(client, &RtspClient::playing, client, [&] { ++nPlaying; });
            client->start(QString::fromLatin1(camera.url()));
        }
        EXPECT_TRUE(waitFor([&] { return (camera.serve(), nPlaying == count); })) << nPlaying;
        return mallinfo2().uordblks;
    };
    const std::size_t before = play(10); // with what the thread has once
    EXPECT_LT(play(1010) - before, 1000U * (32 << 10));
}
