// What servers really do: a row for each situation.
#include "rtsp/ScriptedCamera.h"

namespace
{
struct Row {
    const char* name;
    Script script;
    std::vector<const char*> sent
        = {}; // what requests hold, in this order; H for the server; ! what none does
    const char* until = "unit 0"; // the event that shows it was borne with; | others before it; |! none of it
    RtspOptions options = Viewer::tcp();
};

void run(const std::vector<Row>& rows)
{
    for (const Row& row : rows) {
        QList<QByteArray> told = QByteArray(row.until).split('|');
        const QByteArray until = told.takeFirst();
        Viewer viewer(row.script, row.options);
        viewer.start({}, "user", "secret");
        EXPECT_TRUE(viewer.waitUntil([&] { return viewer.has(until) || viewer.has("error"); }));
        EXPECT_TRUE(viewer.has(until)) << row.name << ": " << viewer.log();
        for (const QByteArray& each : told)
            EXPECT_NE(viewer.has(each.mid(each.startsWith('!') ? 1 : 0)), each.startsWith('!'))
                << row.name << ": " << each.constData() << " in " << viewer.log();
        EXPECT_LE(viewer.events.filter(QStringLiteral("error")).size(), 1) << row.name;
        QByteArray sent = viewer.camera.requests.join();
        sent.replace("127.0.0.1:" + QByteArray::number(viewer.camera.listener.port()), "H");
        int at = 0;
        for (const char* part : row.sent) { // each behind the one before it
            EXPECT_FALSE(*part == '!' && sent.contains(part + 1)) << row.name << ": " << part;
            if (*part == '!')
                continue;
            at = sent.indexOf(part, at) + static_cast<int>(qstrlen(part));
            EXPECT_GE(at, static_cast<int>(qstrlen(part))) << row.name << ": " << part << " in\n"
                                                           << sent.constData();
        }
    }
}

Script sends(const QByteArray& media) { return Script().sends(media); }
QByteArray packets(int from, int to)
{
    QByteArray all;
    for (int sequence = from; sequence <= to; ++sequence)
        all += framed(0, rtp(0, sequence));
    return all;
}
Script describing(const QByteArray& sdp) { return Script().describes(sdp); }

RtspOptions automatic() { return over(RtspOptions::eAutomatic); }
template <class Quirk>
RtspOptions with(Quirk RtspQuirks::*quirk, Quirk value)
{
    RtspOptions options = Viewer::tcp();
    options.quirks.*quirk = value;
    return options;
}
const QByteArray kSps5 = "QgEBAWAAAAMAkAAAAwAAAwB4oAPAgBDllmkk7njQQAAAAwBAAAAGQg==";
const QByteArray kTwoTracks
    = "v=0\ns=-\nm=audio 0 RTP/AVP 0\na=control:track1\nm=audio 0 RTP/AVP 8\na=control:track2\n";
} // namespace

TEST(RtspServers, RequestsAndSessions)
{
    seams::setName("elsewhere", {"127.0.0.1"});
    const Script redirects = on("DESCRIBE",
        {asksBasic(), answer("Location: rtsp://elsewhere:{port}/", "302 Found"), asksBasic(), describes()});
    RtspOptions trusting = Viewer::tcp();
    trusting.bCredentialsToOtherHosts = true;
    run({
        {"credentials are not for another host", redirects, {}, "error 401"},
        {"where they are", redirects, {}, "unit 0", trusting},
        {"an ordinary server", {},
            {"OPTIONS rtsp://H/live RTSP/1.0\r\nCSeq: 1\r\n", "DESCRIBE", "Accept: application/sdp",
                "SETUP rtsp://H/live/track1 ", "Transport: RTP/AVP/TCP;unicast;interleaved=0-1\r\n",
                "PLAY rtsp://H/live ", "Session: 42\r\n", "Range: npt=0.000-\r\n"}},
        {"OPTIONS refused", on("OPTIONS", {refuses("405 Method Not Allowed")}), {"DESCRIBE"}},
        {"basic", on("DESCRIBE", {asksBasic(), describes()}),
            {"DESCRIBE", "DESCRIBE", "Authorization: Basic dXNlcjpzZWNyZXQ=\r\n", "PLAY",
                "Authorization: Basic"}},
        {"digest", on("OPTIONS", {asksDigest("n1"), answer()}),
            {"OPTIONS", "OPTIONS",
                "Authorization: Digest username=\"user\", realm=\"x\", nonce=\"n1\", uri=\"rtsp://H/live\"",
                "SETUP", "uri=\"rtsp://H/live/track1\"", "!algorithm"}},
        {"an unknown challenge, too",
            on("DESCRIBE",
                {asksDigest("n1").replace("WWW", "WWW-Authenticate: Negotiate\r\nWWW"), describes()}),
            {"Authorization: Digest", "nonce=\"n1\""}},
        {"wrong credentials", on("DESCRIBE", {asksBasic()}), {"DESCRIBE", "DESCRIBE"},
            "user or password are not accepted"},
        {"a redirect to the same host",
            on("DESCRIBE", {answer("Location: rtsp://127.0.0.1:{port}/other", "302 Found"), describes()}),
            {"DESCRIBE", "OPTIONS rtsp://H/other", "DESCRIBE rtsp://H/other", "PLAY rtsp://H/other"}},
        {"a relative redirect", on("DESCRIBE", {answer("Location: /b", "301 Moved"), describes()}),
            {"DESCRIBE rtsp://H/b"}},
        {"redirects without end", on("DESCRIBE", {answer("Location: /b", "303 See Other")}), {}, "error 303"},
        {"a redirect to nowhere", on("DESCRIBE", {answer("Location: http://there/", "305 Use Proxy")}), {},
            "error 305"},
        {"blanks around the session", on("SETUP", {setUp("{transport}", "  7 ; timeout = 30 ")}),
            {"Session: 7\r\nRange"}},
        {"a session at DESCRIBE already", on("DESCRIBE", {describes("Session: 5")}),
            {"SETUP", "Session: 5\r\n", "PLAY", "Session: 42\r\n"}},
        {"another session for each SETUP",
            on("SETUP", {setUp("{transport}", "first"), setUp("{transport}", "second")})
                .describes(kTwoTracks),
            {"PLAY", "Session: first\r\n"}},
        {"the last session holds, if the user says so",
            on("SETUP", {setUp("{transport}", "first"), setUp("{transport}", "second")})
                .describes(kTwoTracks),
            {"PLAY", "Session: second\r\n"}, "unit 0",
            with(&RtspQuirks::sessionId, RtspQuirks::eLastSession)},
        {"the whole is what was described",
            on("PLAY", {refuses("460 Only Aggregate Operation Allowed"), answer()})
                .describes("a=control:all\n" + kTwoTracks),
            {"PLAY rtsp://H/live/all ", "PLAY rtsp://H/live "}, "playing"},
        {"neither the whole nor a track",
            on("PLAY", {refuses("459 No"), answer(), refuses("460 No")}).describes(kTwoTracks),
            {"TEARDOWN rtsp://H/live/track1 "}, "error 460"},
        {"no numbers", on("SETUP", {"RTSP/1.0 200 OK\r\nSession: 42\r\n\r\n"})},
        {"a number that was never sent",
            on("SETUP", {"RTSP/1.0 200 OK\r\nCSeq: 999\r\nSession: 42\r\n\r\n"})},
        {"an answer twice", on("OPTIONS", {answer() + answer()})},
        {"packets before the answer to PLAY", on("PLAY", {packets(1, 2) + answer()}).sends({}), {},
            "playing|unit 0 2"},
        {"a hundred and a try", on("PLAY", {refuses("100 Trying") + answer()}), {}, "playing"},
        {"a length too short for the description", on("DESCRIBE", {answer("Content-Length: 20") + "{sdp}"})},
        {"the server asks",
            on("OPTIONS",
                {"OPTIONS rtsp://c/ RTSP/1.0\r\nCSeq: 77\r\n\r\nFLY rtsp://c/ RTSP/1.0\r\nCSeq: 78\r\n\r\n"
                 "ANNOUNCE * RTSP/1.0\r\nCSeq: 79\r\nContent-Length: 3\r\n\r\nv=0GET_PARAMETER * "
                 "RTSP/1.0\r\n\r\n"
                    + answer()}),
            {"RTSP/1.0 200 OK\r\nCSeq: 77\r\nPublic: ", "RTSP/1.0 501 Not Implemented\r\nCSeq: 78\r\n",
                "RTSP/1.0 200 OK\r\nCSeq: 79\r\n", "RTSP/1.0 200 OK\r\n"}},
        {"the server sends us elsewhere",
            on("OPTIONS",
                {answer() + "REDIRECT rtsp://c/ RTSP/1.0\r\nCSeq: 3\r\nLocation: /there\r\n\r\n", answer()}),
            {"RTSP/1.0 200 OK\r\nCSeq: 3", "DESCRIBE rtsp://H/there"}},
        {"a refused track beside a good one",
            on("SETUP", {refuses("404 Not Found"), setUp()}).describes(kTwoTracks), {}, "playing"},
        {"no description", on("DESCRIBE", {answer()}), {}, "error 415"},
        {"what is refused is told", on("DESCRIBE", {refuses("404 Not Found")}), {},
            "DESCRIBE (CSeq 2) was refused with 404 Not Found"},
        {"a session that is gone", on("PLAY", {refuses("454 Session Not Found")}), {"TEARDOWN"}, "error 454"},
        {"a head without end", on("DESCRIBE", {"RTSP/1.0 200 OK\r\n" + QByteArray(70000, 'x')}), {},
            "the server sends a head of more than 65536 bytes (byte "},
    });
}

TEST(RtspServers, Urls)
{
    const auto based = [](const char* field, const char* session = "") {
        return on("DESCRIBE", {describes(field)})
            .describes(QByteArray(session) + "m=audio 0 RTP/AVP 0\na=control:t1\n");
    };
    run({
        {"a base with a slash", based("Content-Base: rtsp://127.0.0.1:{port}/live/"),
            {"SETUP rtsp://H/live/t1 ", "PLAY rtsp://H/live/ "}},
        {"a base without one", based("Content-Base: rtsp://127.0.0.1:{port}/x", "a=control:*\n"),
            {"SETUP rtsp://H/x/t1 ", "PLAY rtsp://H/x "}},
        {"a location of the content", based("Content-Location: rtsp://127.0.0.1:{port}/y/"),
            {"SETUP rtsp://H/y/t1 "}},
        {"a base that is a path", based("Content-Base: /z/"), {"SETUP rtsp://H/z/t1 "}},
        {"a base without scheme", based("Content-Base: 127.0.0.1:{port}/w/"), {"SETUP rtsp://H/w/t1 "}},
        {"a base with another host's name", based("Content-Base: rtsp://viewer.camera.local/live/"),
            {"SETUP rtsp://viewer.camera.local/live/t1 ", "PLAY rtsp://viewer.camera.local/live/ "}},
    });
}

TEST(RtspServers, TransportsAndData)
{
    const auto channel = [](const char* transport, int number) {
        return on("SETUP", {setUp(transport)}).sends(framed(number, rtp(0, 1)));
    };
    const auto announcing = [&](const char* info) { return on("PLAY", {answer(info)}); };
    const QByteArray one = framed(0, rtp(0, 1));
    const QByteArray two = framed(0, rtp(0, 2));
    const QByteArray stranger = framed(0, rtp(0, 7, 0x99));
    const QByteArray inTcp = setUp("RTP/AVP/TCP;unicast;interleaved=0-1");
    run({
        {"other channels than asked for", channel("RTP/AVP/TCP;unicast;interleaved=6-7", 6)},
        {"no channels", channel("RTP/AVP/TCP;unicast", 0)},
        {"no transport", on("SETUP", {answer("Session: 42")})},
        {"a channel beyond all", channel("RTP/AVP/TCP;interleaved=300-301", 0)},
        {"a source id that is wrong", channel("RTP/AVP/TCP;interleaved=0-1;ssrc=DEADBEEF", 0)},
        {"two tracks on one channel",
            on("SETUP", {setUp("RTP/AVP/TCP;interleaved=0-1")})
                .describes(kTwoTracks)
                .sends(one + framed(0, rtp(8, 1))),
            {}, "unit 1 1"},
        {"data on channels that nobody set up", sends(framed(9, rtp(0, 7)) + framed(0, rtp(0, 8))), {},
            "unit 0 8"},
        {"the same, told apart by type", sends(framed(9, rtp(0, 7))), {}, "unit 0 7",
            with(&RtspQuirks::unassignedChannel, RtspQuirks::eByPayloadType)},
        {"packets before the announced number", announcing("RTP-Info: url=track1;seq=2"), {},
            "unit 0 2|!unit 0 1", with(&RtspQuirks::initialSequence, RtspQuirks::eFirstAsAnnounced)},
        {"packets before the announced time", announcing("RTP-Info: url=x;rtptime=320"), {},
            "unit 0 2|!unit 0 1", with(&RtspQuirks::initialTimestamp, RtspQuirks::eFirstAsAnnounced)},
        {"the announced number never comes", announcing("RTP-Info: seq=2500").sends(packets(1, 1002)), {},
            "unit 0 1002|unit 0 1001|!unit 0 1000",
            with(&RtspQuirks::initialSequence, RtspQuirks::eFirstAsAnnounced)},
        {"another source than the announced one",
            channel("RTP/AVP/TCP;interleaved=0-1;ssrc=11223344", 0).sends(stranger + one), {},
            "unit 0 1|!unit 0 7", with(&RtspQuirks::unknownSource, RtspQuirks::eDropUnknown)},
        {"another source among the first one's", sends(one + stranger), {}, "unit 0 7",
            with(&RtspQuirks::unknownSource, RtspQuirks::eTakeUnknown)},
        {"another source that the answer announced",
            channel("RTP/AVP/TCP;interleaved=0-1;ssrc=99", 0).sends(one + stranger), {}, "unit 0 7"},
        {"types that were not described use up no numbers", sends(one + framed(0, rtp(50, 2)) + two), {},
            "unit 0 2"},
        {"reports on the channel of packets",
            sends(framed(0, QByteArray::fromHex("80c8000611223344e000000000000000000000000000000000000000"))),
            {}, "rtcp 0"},
        {"packets of H.264 with packetization-mode 0 take TCP",
            describing("v=0\nm=video 0 RTP/AVP 96\na=rtpmap:96 H264/90000\na=fmtp:96 packetization-mode=0\n"),
            {"SETUP", "Transport: RTP/AVP/TCP"}, "playing", automatic()},
        {"UDP refused", on("SETUP", {refuses("461 Unsupported Transport"), setUp()}),
            {"SETUP", "RTP/AVP;unicast;client_port", "SETUP", "RTP/AVP/TCP"}, "unit 0", automatic()},
        {"TCP refused where it came first",
            on("SETUP", {refuses("461 Unsupported Transport"), setUp()})
                .describes("m=video 0 RTP/AVP 96\na=rtpmap:96 H264/90000\na=fmtp:96 packetization-mode=0\n"),
            {"RTP/AVP/TCP", "SETUP", "client_port"}, "playing", automatic()},
        {"everything refused", on("SETUP", {refuses("461 Unsupported Transport")}),
            {"client_port", "RTP/AVP/TCP", "RTP/AVP;multicast"}, "error 461", automatic()},
        {"TCP in the place of UDP", on("SETUP", {inTcp}),
            {"SETUP", "client_port", "TEARDOWN", "DESCRIBE", "SETUP", "RTP/AVP/TCP"}, "unit 0", automatic()},
        {"a second DESCRIBE that is refused",
            on("SETUP", {inTcp}).on("DESCRIBE", {describes(), refuses("403 Forbidden")}),
            {"DESCRIBE", "DESCRIBE", "SETUP"}, "unit 0", automatic()},
    });
}

TEST(RtspServers, Descriptions)
{
    const QByteArray audio = "m=audio 0 RTP/AVP 0\na=control:t\n";
    RtspOptions small = Viewer::tcp();
    small.unitFormat.nMaxUnitBytes = 1000;
    run({
        {"a track that is no RTP",
            describing("v=0\nm=application/TP-LINK 0 RTP/AVP smart/1/90000\na=control:x\n" + audio),
            {"SETUP rtsp://H/live/t "}, "playing"},
        {"a back channel", describing("v=0\n" + audio + "m=audio 0 RTP/AVP 0\na=sendonly\na=control:back\n"),
            {"SETUP rtsp://H/live/t ", "!/back "}},
        {"one type in two tracks",
            describing("m=audio 0 RTP/AVP 0\na=control:a\nm=audio 0 RTP/AVP 0\na=control:b\n")
                .sends(framed(0, rtp(0, 1)) + framed(2, rtp(0, 3))),
            {}, "unit 1 3|unit 0 1"},
        {"several types in one track: units of the first",
            describing("m=audio 0 RTP/AVP 0 8\n").sends(packets(1, 1) + framed(0, rtp(8, 2)) + packets(3, 3)),
            {}, "unit 0 3|packet 0 2|!unit 0 2"},
        {"a picture larger than the user takes",
            describing("m=video 0 RTP/AVP 96\na=rtpmap:96 H264/90000\n")
                .sends(framed(0, rtp(96, 1, 1, "\x65\x88" + QByteArray(2000, 'x')))
                    + framed(0, rtp(96, 2, 1, "\x65\x88x")) + framed(0, rtp(96, 3, 1, "\x65\x88x"))),
            {}, "unit 0 2|!unit 0 1", small},
        {"H.265",
            describing("m=video 0 RTP/AVP 96\na=rtpmap:96 H265/90000\na=fmtp:96 sprop-sps=" + kSps5 + '\n')
                .sends(framed(0, rtp(96, 1, 1, QByteArray::fromHex("2601a001")))
                    + framed(0, rtp(96, 2, 1, QByteArray::fromHex("0201d002")))),
            {}, "unit 0 1|described 1 hvc1.1.6.L120.90"},
        {"nothing that we can read", describing("v=0\nm=video 0 RTP/AVP 96\na=rtpmap:96 H266/90000\n"), {},
            "offers nothing that we can play: video: we cannot read H266/90000"},
    });
}
