// What servers really do: a row for each situation.
#include "rtsp/ScriptedCamera.h"

namespace
{
struct Row {
    const char* name;
    Script script;
    const char* until; // the event that shows it was borne with
    std::vector<const char*> sent; // what the requests hold then, in this order
    RtspOptions options = Viewer::tcp();
    const char* path = "/live";
};

// Each of the parts stands behind the one before it.
bool holdsInOrder(const QByteArray& text, const std::vector<const char*>& parts)
{
    int at = 0;
    for (const char* part : parts) {
        at = text.indexOf(part, at);
        if (at < 0)
            return false;
        at += static_cast<int>(qstrlen(part));
    }
    return true;
}

void run(const std::vector<Row>& rows)
{
    for (const Row& row : rows) {
        ScriptedCamera camera(row.script);
        Viewer viewer(camera, row.options);
        viewer.start(camera.url(row.path), "user", "secret");
        EXPECT_TRUE(viewer.waitUntil([&] { return viewer.has(row.until) || viewer.has("error"); }))
            << row.name;
        EXPECT_TRUE(viewer.has(row.until)) << row.name << ": " << viewer.log();
        QByteArray sent = camera.all();
        sent.replace(QByteArray::number(camera.listener.port()), "P");
        EXPECT_TRUE(holdsInOrder(sent, row.sent)) << row.name << ":\n" << sent.constData();
        EXPECT_LE(std::count_if(viewer.events.begin(), viewer.events.end(),
                      [](const QString& each) { return each.startsWith(QLatin1String("error")); }),
            1)
            << row.name;
    }
}

Script with(const char* method, const QList<QByteArray>& answers, const QByteArray& sdp = kSdp)
{
    Script script;
    script.answers[method] = answers;
    script.sdp = sdp;
    return script;
}
Script withMedia(const QByteArray& media)
{
    Script script;
    script.media = media;
    return script;
}
Script withSdp(const QByteArray& sdp)
{
    Script script;
    script.sdp = sdp;
    return script;
}
Script withTwo(const char* method, const QList<QByteArray>& answers, const char* other,
    const QList<QByteArray>& otherAnswers)
{
    Script script = with(method, answers);
    script.answers[other] = otherAnswers;
    return script;
}

RtspOptions automatic()
{
    RtspOptions options;
    options.timeouts.nUdpTrial = 100;
    return options;
}
const QByteArray kTwoTracks
    = "v=0\r\ns=-\r\nm=audio 0 RTP/AVP 0\r\na=control:track1\r\nm=audio 0 RTP/AVP 8\r\na=control:track2\r\n";
} // namespace

TEST(RtspServers, RequestsAndSessions)
{
    run({
        {"an ordinary server", {}, "unit 0",
            {"OPTIONS rtsp://127.0.0.1:P/live RTSP/1.0\r\nCSeq: 1\r\n", "DESCRIBE", "Accept: application/sdp",
                "SETUP rtsp://127.0.0.1:P/live/track1 ", "Transport: RTP/AVP/TCP;unicast;interleaved=0-1\r\n",
                "PLAY rtsp://127.0.0.1:P/live ", "Session: 42\r\n", "Range: npt=0.000-\r\n"}},
        {"OPTIONS refused", with("OPTIONS", {answer("", "405 Method Not Allowed")}), "unit 0", {"DESCRIBE"}},
        {"OPTIONS not found", with("OPTIONS", {answer("", "404 Not Found")}), "unit 0", {"DESCRIBE"}},
        {"basic",
            with("DESCRIBE",
                {answer("WWW-Authenticate: Basic realm=\"x\"\r\n", "401 Unauthorized"), describes()}),
            "unit 0",
            {"DESCRIBE", "DESCRIBE", "Authorization: Basic dXNlcjpzZWNyZXQ=\r\n", "PLAY",
                "Authorization: Basic"}},
        {"digest",
            with("OPTIONS",
                {answer("WWW-Authenticate: Digest realm=\"x\", nonce=\"n1\"\r\n", "401 Unauthorized"),
                    answer()}),
            "unit 0",
            {"OPTIONS", "OPTIONS",
                "Authorization: Digest username=\"user\", realm=\"x\", nonce=\"n1\", "
                "uri=\"rtsp://127.0.0.1:P/live\"",
                "SETUP", "uri=\"rtsp://127.0.0.1:P/live/track1\""}},
        {"unknown challenges and algorithms",
            with("DESCRIBE",
                {answer("WWW-Authenticate: Negotiate\r\nWWW-Authenticate: Digest realm=\"y\", nonce=\"n0\", "
                        "algorithm=SHA-1\r\nWWW-Authenticate: Digest realm=\"x\", nonce=\"n1\"\r\n",
                     "401 Unauthorized"),
                    describes()}),
            "unit 0", {"Authorization: Digest", "nonce=\"n1\""}},
        {"a nonce that expires between two requests",
            with("SETUP",
                {answer("WWW-Authenticate: Digest realm=\"x\", nonce=\"n2\", stale=true\r\n",
                     "401 Unauthorized"),
                    setUp()}),
            "unit 0", {"SETUP", "SETUP", "nonce=\"n2\"", "PLAY", "nonce=\"n2\""}},
        {"wrong credentials",
            with("DESCRIBE", {answer("WWW-Authenticate: Basic realm=\"x\"\r\n", "401 Unauthorized")}),
            "error 401", {"DESCRIBE", "DESCRIBE"}},
        {"a redirect to the same host",
            with("DESCRIBE",
                {answer("Location: rtsp://127.0.0.1:{port}/other\r\n", "302 Found"), describes()}),
            "unit 0",
            {"DESCRIBE", "OPTIONS rtsp://127.0.0.1:P/other", "DESCRIBE rtsp://127.0.0.1:P/other",
                "PLAY rtsp://127.0.0.1:P/other"}},
        {"a relative redirect", with("DESCRIBE", {answer("Location: /b\r\n", "301 Moved"), describes()}),
            "unit 0", {"DESCRIBE rtsp://127.0.0.1:P/b"}},
        {"redirects without end", with("DESCRIBE", {answer("Location: /b\r\n", "303 See Other")}),
            "error 303", {}},
        {"a redirect to nowhere", with("DESCRIBE", {answer("Location: http://there/\r\n", "305 Use Proxy")}),
            "error 305", {}},
        {"blanks around the session", with("SETUP", {setUp("{transport}", "  7 ; timeout = 30 ")}), "unit 0",
            {"Session: 7\r\nRange"}},
        {"a session at DESCRIBE already", with("DESCRIBE", {describes("Session: 5\r\n")}), "unit 0",
            {"SETUP", "Session: 5\r\n", "PLAY", "Session: 42\r\n"}},
        {"another session for each SETUP",
            with("SETUP", {setUp("{transport}", "first"), setUp("{transport}", "second")}, kTwoTracks),
            "unit 0", {"PLAY", "Session: first\r\n"}},
        {"numbers in another case with blanks", with("PLAY", {"RTSP/1.0 200 OK\r\nCseq : {cseq}  \r\n\r\n"}),
            "unit 0", {}},
        {"no numbers", with("SETUP", {"RTSP/1.0 200 OK\r\nSession: 42\r\n\r\n"}), "unit 0", {}},
        {"a number that was never sent",
            with("SETUP", {"RTSP/1.0 200 OK\r\nCSeq: 999\r\nSession: 42\r\n\r\n"}), "unit 0", {}},
        {"an answer twice", with("OPTIONS", {answer() + answer()}), "unit 0", {}},
        {"a hundred and a try", with("PLAY", {"RTSP/1.0 100 Trying\r\nCSeq: {cseq}\r\n\r\n" + answer()}),
            "playing", {}},
        {"bare line feeds and no reason",
            with("DESCRIBE", {"RTSP/1.0 200\nCSeq: {cseq}\nContent-Length: {size}\n\n{sdp}"}), "unit 0", {}},
        {"line ends in front of answers and packets",
            withTwo("SETUP", {"\r\n\r\n" + setUp()}, "PLAY", {answer() + "\r\n"}), "unit 0", {}},
        {"no type of the content", with("DESCRIBE", {answer("Content-Length: {size}\r\n") + "{sdp}"}),
            "unit 0", {}},
        {"a type with a charset",
            with("DESCRIBE",
                {answer("Content-Type: application/sdp;charset=utf-8\r\nContent-Length: {size}\r\n")
                    + "{sdp}"}),
            "unit 0", {}},
        {"a length too short for the description",
            with("DESCRIBE", {answer("Content-Length: 20\r\n") + "{sdp}"}), "unit 0", {}},
        {"the server asks",
            with("OPTIONS",
                {"OPTIONS rtsp://c/ RTSP/1.0\r\nCSeq: 77\r\n\r\nFLY rtsp://c/ RTSP/1.0\r\nCSeq: 78\r\n\r\n"
                    + answer()}),
            "unit 0",
            {"RTSP/1.0 200 OK\r\nCSeq: 77\r\nPublic: ", "RTSP/1.0 501 Not Implemented\r\nCSeq: 78\r\n"}},
        {"the server sends us elsewhere",
            with("OPTIONS",
                {answer() + "REDIRECT rtsp://c/ RTSP/1.0\r\nCSeq: 3\r\nLocation: /there\r\n\r\n", answer()}),
            "unit 0", {"RTSP/1.0 200 OK\r\nCSeq: 3", "DESCRIBE rtsp://127.0.0.1:P/there"}},
        {"a refused track beside a good one",
            with("SETUP", {answer("", "404 Not Found"), setUp()}, kTwoTracks), "playing", {}},
        {"no description", with("DESCRIBE", {answer()}), "error 415", {}},
        {"a session that is gone", with("PLAY", {answer("", "454 Session Not Found")}), "error 454",
            {"TEARDOWN"}},
    });
}

TEST(RtspServers, Urls)
{
    const auto sdp = [](const char* session, const char* track) {
        return QByteArray("v=0\r\ns=-\r\n") + session + "m=audio 0 RTP/AVP 0\r\n" + track;
    };
    const auto based = [&](const char* field, const char* session, const char* track) {
        return with("DESCRIBE", {describes(field)}, sdp(session, track));
    };
    run({
        {"a base with a slash",
            based("Content-Base: rtsp://127.0.0.1:{port}/live/\r\n", "", "a=control:t1\r\n"), "unit 0",
            {"SETUP rtsp://127.0.0.1:P/live/t1 ", "PLAY rtsp://127.0.0.1:P/live/ "}},
        {"a base without one",
            based("Content-Base: rtsp://127.0.0.1:{port}/x\r\n", "a=control:*\r\n", "a=control:t1\r\n"),
            "unit 0", {"SETUP rtsp://127.0.0.1:P/x/t1 ", "PLAY rtsp://127.0.0.1:P/x "}},
        {"a location of the content",
            based("Content-Location: rtsp://127.0.0.1:{port}/y/\r\n", "", "a=control:t1\r\n"), "unit 0",
            {"SETUP rtsp://127.0.0.1:P/y/t1 "}},
        {"a base that is a path", based("Content-Base: /z/\r\n", "", "a=control:t1\r\n"), "unit 0",
            {"SETUP rtsp://127.0.0.1:P/z/t1 "}},
        {"a base without scheme", based("Content-Base: 127.0.0.1:{port}/w/\r\n", "", "a=control:t1\r\n"),
            "unit 0", {"SETUP rtsp://127.0.0.1:P/w/t1 "}},
        {"a base with another host's name",
            based("Content-Base: rtsp://camera.local/live/\r\n", "", "a=control:t1\r\n"), "unit 0",
            {"SETUP rtsp://camera.local/live/t1 ", "PLAY rtsp://camera.local/live/ "}},
        {"an absolute session control", based("", "a=control:rtsp://inner/agg\r\n", "a=control:t1\r\n"),
            "unit 0", {"SETUP rtsp://inner/agg/t1 ", "PLAY rtsp://inner/agg "}},
        {"an absolute track control with localhost", based("", "", "a=control:rtsp://localhost/live/t1\r\n"),
            "unit 0", {"SETUP rtsp://localhost/live/t1 "}},
        {"a track that begins with a slash", based("", "", "a=control:/t1\r\n"), "unit 0",
            {"SETUP rtsp://127.0.0.1:P/live/t1 "}},
        {"a track that begins with a question mark", based("", "", "a=control:?t=1\r\n"), "unit 0",
            {"SETUP rtsp://127.0.0.1:P/live?t=1 "}},
        {"a query in the base", based("", "", "a=control:trackID=0\r\n"), "unit 0",
            {"SETUP rtsp://127.0.0.1:P/live?ch=1/trackID=0 "}, Viewer::tcp(), "/live?ch=1"},
        {"no control at all with one track", based("", "", ""), "unit 0", {"SETUP rtsp://127.0.0.1:P/live "}},
        {"RTP-Info that is wrong in everything",
            with("PLAY", {answer("RTP-Info: url=rtsp://x/nothing;seq=40000;rtptime=-1,url=;seq=x;\r\n")}),
            "unit 0", {}},
    });
}

TEST(RtspServers, TransportsAndData)
{
    const QByteArray two = framed(0, rtp(0, 1)) + framed(0, rtp(8, 1));
    const auto shared = [&] {
        Script script = with("SETUP", {setUp("RTP/AVP/TCP;interleaved=0-1")}, kTwoTracks);
        script.media = two;
        return script;
    };
    const auto channel = [](const char* transport, int number) {
        Script script = with("SETUP", {setUp(transport)});
        script.media = framed(number, rtp(0, 1));
        return script;
    };
    RtspOptions byType = Viewer::tcp();
    byType.quirks.unassignedChannel = RtspQuirks::eByPayloadType;
    const Script early = with("PLAY",
        {framed(0, rtp(0, 1)) + "RTSP/1.0 200 OK\r\n" + framed(0, rtp(0, 2)) + "CSeq: {cseq}\r\n\r\n"});
    run({
        {"other channels than asked for", channel("RTP/AVP/TCP;unicast;interleaved=6-7", 6), "unit 0", {}},
        {"one channel instead of a pair", channel("RTP/AVP/TCP;unicast;interleaved=4", 4), "unit 0", {}},
        {"an odd pair", channel("RTP/AVP/TCP;interleaved=3-4", 3), "unit 0", {}},
        {"no channels", channel("RTP/AVP/TCP;unicast", 0), "unit 0", {}},
        {"no transport", with("SETUP", {answer("Session: 42\r\n")}), "unit 0", {}},
        {"a channel beyond all", channel("RTP/AVP/TCP;interleaved=300-301", 0), "unit 0", {}},
        {"a padded source id", channel("RTP/AVP/TCP;interleaved=0-1;ssrc= 11223344 ", 0), "unit 0", {}},
        {"a source id that is wrong", channel("RTP/AVP/TCP;interleaved=0-1;ssrc=DEADBEEF", 0), "unit 0", {}},
        {"a source id of 0", channel("RTP/AVP/TCP;interleaved=0-1;ssrc=00000000", 0), "unit 0", {}},
        {"a source id in decimal", channel("RTP/AVP/TCP;interleaved=0-1;ssrc=287454020", 0), "unit 0", {}},
        {"two tracks on one channel", shared(), "unit 1 1", {}},
        {"data before and between the lines of the answer", early, "unit 0 2", {}},
        {"data on channels that nobody set up", withMedia(framed(9, rtp(0, 7)) + framed(0, rtp(0, 8))),
            "unit 0 8", {}},
        {"the same, told apart by type", withMedia(framed(9, rtp(0, 7))), "unit 0 7", {}, byType},
        {"strays between packets",
            withMedia(framed(0, rtp(0, 1)) + "\x01stray$\x09" + framed(0, rtp(0, 2)) + framed(0, rtp(0, 3))),
            "unit 0 3", {}},
        {"types that were not described use up no numbers",
            withMedia(framed(0, rtp(0, 1)) + framed(0, rtp(50, 2)) + framed(0, rtp(0, 2))), "unit 0 2", {}},
        {"reports on the channel of packets",
            withMedia(
                framed(0, QByteArray::fromHex("80c8000611223344e000000000000000000000000000000000000000"))),
            "rtcp 0", {}},
        {"reports on their channel, without end byte",
            withMedia(framed(1, QByteArray::fromHex("80c900011122334481ca000211223344010161"))), "rtcp 0",
            {}},
        {"packets of H.264 with packetization-mode 0 take TCP",
            withSdp("v=0\r\nm=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=fmtp:96 "
                    "packetization-mode=0\r\n"),
            "playing", {"SETUP", "Transport: RTP/AVP/TCP"}, automatic()},
        {"UDP refused", with("SETUP", {answer("", "461 Unsupported Transport"), setUp()}), "unit 0",
            {"SETUP", "RTP/AVP;unicast;client_port", "SETUP", "RTP/AVP/TCP"}, automatic()},
        {"TCP in the place of UDP", with("SETUP", {setUp("RTP/AVP/TCP;unicast;interleaved=0-1")}), "unit 0",
            {"SETUP", "client_port", "TEARDOWN", "DESCRIBE", "SETUP", "RTP/AVP/TCP"}, automatic()},
        {"a second DESCRIBE that is refused",
            withTwo("SETUP", {setUp("RTP/AVP/TCP;interleaved=0-1")}, "DESCRIBE",
                {describes(), answer("", "403 Forbidden")}),
            "unit 0", {"DESCRIBE", "DESCRIBE", "SETUP"}, automatic()},
    });
}

TEST(RtspServers, Descriptions)
{
    const char* odd = "s=x\r\nt=now-\r\no=a b c 1.5 -1 IPV4 x\r\nc=IN\r\nc=In IP4 10.0.0.1\r\n";
    const QByteArray audio = "m=audio 0 RTP/AVP 0\r\na=control:t\r\n";
    run({
        {"a track only", withSdp(audio), "unit 0", {}},
        {"odd lines", withSdp(odd + audio), "unit 0", {}},
        {"a track that is no RTP",
            withSdp("v=0\r\nm=application/TP-LINK 0 RTP/AVP smart/1/90000\r\na=control:x\r\n" + audio),
            "playing", {"SETUP rtsp://127.0.0.1:P/live/t "}},
        {"a back channel",
            withSdp("v=0\r\n" + audio + "m=audio 0 RTP/AVP 0\r\na=sendonly\r\na=control:back\r\n"), "unit 0",
            {}},
        {"sendonly in all", withSdp("v=0\r\n" + audio + "a=sendonly\r\n"), "unit 0", {}},
        {"nothing that we can read", withSdp("v=0\r\nm=video 0 RTP/AVP 96\r\na=rtpmap:96 H266/90000\r\n"),
            "error 415", {}},
        {"lower case and trailing blanks",
            withSdp("v=0\r\nm=audio 0 RTP/AVP 97\r\na=rtpmap:97 pcmu/8000  \r\na=fmtp:97 ;\r\n"), "playing",
            {}},
    });
}

TEST(RtspServers, ErrorsTellWhatAndWhere)
{
    const struct {
        Script script;
        const char* text;
    } rows[] = {
        {withSdp("v=0\r\nm=video 0 RTP/AVP 96\r\na=rtpmap:96 H266/90000\r\n"),
            "offers nothing that we can play: video: we cannot read H266/90000"},
        {with("DESCRIBE", {answer("", "404 Not Found")}), "DESCRIBE (CSeq 2) was refused with 404 Not Found"},
        {with("DESCRIBE", {answer("WWW-Authenticate: Basic realm=\"x\"\r\n", "401 Unauthorized")}),
            "user or password are not accepted"},
        {with("DESCRIBE", {"RTSP/1.0 200 OK\r\n" + QByteArray(70000, 'x')}),
            "the server sends a head of more than 65536 bytes (byte "},
        {with("DESCRIBE", {answer("Content-Length: 2000000\r\n")}), "a body of 2000000 bytes"},
        {with("DESCRIBE", {QByteArray(1100000, 'z')}), "neither RTSP nor packets"},
    };
    for (const auto& row : rows) {
        ScriptedCamera camera(row.script);
        Viewer viewer(camera);
        viewer.start(camera.url(), "user", "secret");
        EXPECT_TRUE(viewer.waitUntil("error"));
        EXPECT_TRUE(viewer.errorText.contains(QLatin1String(row.text))) << viewer.log();
    }
}
