// A camera as a peer: RTSP by its own few lines, a video track in fragments and an audio track whose bytes
// tell whose they are. It answers late, never, half or twice, lets nonces expire, refuses UDP or sends
// nothing by it, vanishes, and mixes strays, strangers and its own questions into what it sends.
#pragma once

#include "sim/scenarios/http/Exchange.h"

#include <algorithm>
#include <array>
#include <deque>
#include <memory>
#include <vector>

namespace rtsp
{
constexpr int kTracks = 2;
constexpr int kFragment = 400; // bytes of a picture in a packet
constexpr quint32 kTicks = 3000; // from one unit to the next

// What a unit holds; no zeros, which pictures would have to escape.
inline QByteArray contentOf(int track, quint32 session, int number)
{
    static const QByteArray noise = [] {
        QByteArray all(1 << 16, '\0');
        for (int i = 0; i < all.size(); ++i)
            all[i] = static_cast<char>((static_cast<unsigned>(i) * 2654435761U >> 13) % 255 + 1);
        return all;
    }();
    sim::Random random(static_cast<std::uint64_t>(session) << 32 | static_cast<unsigned>(number * 2 + track));
    const int most = track == 0 ? 3000 : 300;
    const int size = static_cast<int>(random.size(static_cast<std::uint64_t>(most)));
    return (track == 0 ? QByteArray("\x65\x88") : QByteArray())
        + noise.mid(static_cast<int>(random.below(60000)), size + (track == 0 ? kFragment : 0));
}
inline std::vector<QByteArray> payloadsOf(int track, quint32 session, int number)
{
    const QByteArray content = contentOf(track, session, number);
    if (track == 1)
        return {content};
    std::vector<QByteArray> payloads;
    for (int at = 1; at < content.size(); at += kFragment) { // RFC 6184, FU-A
        const int flags = (at == 1 ? 0x80 : 0) | (at + kFragment >= content.size() ? 0x40 : 0) | 5;
        payloads.push_back(QByteArray("\x7C") + static_cast<char>(flags) + content.mid(at, kFragment));
    }
    return payloads;
}
inline QByteArray bigEndian(quint32 value, int bytes)
{
    QByteArray text;
    while (--bytes >= 0)
        text += static_cast<char>(value >> (8 * bytes));
    return text;
}
inline quint32 firstTimestamp(quint32 session) { return session * 2654435761U; }
inline QByteArray field(const QByteArray& head, const QByteArray& name)
{
    const int at = head.indexOf("\r\n" + name + ": ");
    const int from = at + 4 + name.size();
    return at < 0 ? QByteArray() : head.mid(from, head.indexOf("\r\n", from) - from);
}

struct Connection {
    sim::Peer* pPeer;
    QByteArray in;
    int nCseq = 0;
    int nAsked = 0; // by us, and not answered yet
    QByteArray denied; // the last method, and how often in a row
    int nDenied = 0;
    bool bTroubled = false; // by us: nobody need say goodbye
};

struct Session {
    struct Track {
        bool bSetUp = false;
        int nChannel = 0;
        sim::Address to;
        quint16 nSequence = 0;
        int nUnits = 0; // sent whole
    };
    quint32 nId = 0;
    int nTimeout = 0; // in seconds; 0: not said
    bool bTcp = false;
    bool bPlaying = false;
    bool bEnded = false; // by us, behind a whole packet
    bool bCloseAsked = false; // TEARDOWN has come,
    bool bOver = false; // and was admitted
    int nPlays = 0;
    std::uint64_t nLastMs = 0; // request
    std::shared_ptr<Connection> pConnection; // of its last one
    std::array<Track, kTracks> tracks;

    QByteArray name() const { return "s" + QByteArray::number(nId); }
    std::uint64_t keepAliveMs() const { return nTimeout > 0 ? std::min(nTimeout * 500, 30000) : 30000; }
};

class Camera
{
public:
    Camera(sim::World& world, int number)
        : m_world(world), m_random(world.random().next()), m_address("10.0.3." + std::to_string(number + 1)),
          m_rtp(world.udp(m_address, kRtpPort)), m_rtcp(world.udp(m_address, kRtpPort + 1))
    {
        nPeriodMs = static_cast<int>(m_random.between(40, 1500));
        bGuarded = m_random.chance(0.5);
        bAccepts = !bGuarded || m_random.chance(0.8);
        udp = m_random.chance(0.6) ? eUdp : m_random.chance(0.5) ? eRefused : eMute;
        m_bGetParameter = m_random.chance(0.7);
        m_bDumb = m_random.chance(0.2);
        world.listen(m_address, 554, [this, alive = std::weak_ptr<bool>(m_pAlive)](sim::Peer& peer) {
            if (!alive.expired())
                accept(peer);
        });
    }
    std::string address() const { return m_address; }
    Session* find(const QByteArray& name)
    {
        const auto found = std::find_if(
            m_sessions.begin(), m_sessions.end(), [&](const Session& s) { return s.name() == name; });
        return found == m_sessions.end() ? nullptr : &*found;
    }
    // Those that somebody has set up and left.
    std::size_t forgotten() const
    {
        return static_cast<std::size_t>(std::count_if(m_sessions.begin(), m_sessions.end(),
            [](const Session& s) { return !s.bCloseAsked && !s.pConnection->bTroubled; }));
    }
    void excuseAll()
    {
        for (Session& session : m_sessions)
            session.pConnection->bTroubled = true;
    }

    enum Udp { eUdp, eRefused, eMute } udp;
    bool bGuarded;
    bool bAccepts; // the password
    bool bHold = false; // sends nothing for now
    bool bTidy = false; // no datagram is lost, doubled or overtaken
    int nPeriodMs;
    double trouble = 0; // of an answer or a unit, how often
    std::uint64_t nLateMs = 1500; // how late the network lets a request come

private:
    using ConnectionPtr = std::shared_ptr<Connection>;
    static constexpr std::uint16_t kRtpPort = 6970;

    void later(std::uint64_t ms, const std::function<void()>& event)
    {
        m_world.after(ms, [event, alive = std::weak_ptr<bool>(m_pAlive)] {
            if (!alive.expired())
                event();
        });
    }

    // --- requests ---

    void accept(sim::Peer& peer)
    {
        const auto c = std::make_shared<Connection>();
        c->pPeer = &peer;
        peer.onBytes = [this, c](const QByteArray& bytes) {
            c->in += bytes;
            while (takeOne(c)) { }
        };
        peer.onFailure = [c](int) { c->bTroubled = true; };
        peer.onEnd = [this, c] {
            for (const Session& s : m_sessions)
                m_world.expect(s.pConnection != c || s.bCloseAsked || c->bTroubled,
                    "session %s is closed without TEARDOWN", s.name().constData());
            c->bTroubled = true;
            c->pPeer->close();
        };
    }
    bool takeOne(const ConnectionPtr& c)
    {
        const bool bReport = c->in.startsWith('$');
        const int end = c->in.indexOf("\r\n\r\n");
        if (bReport ? c->in.size() < 4 : end < 0)
            return false;
        const int size
            = bReport ? 4 + (static_cast<uchar>(c->in[2]) << 8 | static_cast<uchar>(c->in[3])) : end + 4;
        if (c->in.size() < size)
            return false;
        const QByteArray message = c->in.left(size);
        c->in.remove(0, size);
        if (message.startsWith("RTSP/"))
            m_world.expect(--c->nAsked >= 0, "an answer that nobody has asked for");
        else if (!bReport)
            take(c, message);
        return true;
    }
    void take(const ConnectionPtr& c, const QByteArray& request)
    {
        const QByteArray method = request.left(request.indexOf(' '));
        const int cseq = field(request, "CSeq").toInt();
        m_world.expect(cseq > c->nCseq, "request %d comes behind %d", cseq, c->nCseq);
        c->nCseq = cseq;
        Session* session = find(field(request, "Session"));
        if (session != nullptr) {
            lookAtKeepAlive(*session);
            session->nLastMs = m_world.nowMs();
            session->pConnection = c;
            session->bCloseAsked = session->bCloseAsked || method == "TEARDOWN";
        }
        if (!isAdmitted(method, request)) {
            c->nDenied = c->denied == method ? c->nDenied + 1 : 1;
            c->denied = method;
            m_world.expect(c->nDenied <= 2 || method == "OPTIONS" || method.endsWith("_PARAMETER"),
                "%s is repeated more than once", method.constData());
            const QByteArray nonce = "n" + QByteArray::number(++m_nNonces);
            m_nonces[nonce] = false;
            reply(
                c, request, "401 No", "WWW-Authenticate: Digest realm=\"here\", nonce=\"" + nonce + "\"\r\n");
            return;
        }
        c->denied.clear();
        answer(c, request, method, session);
    }
    // The password is asked for by all but OPTIONS; nonces are forgotten, but never before they were used.
    bool isAdmitted(const QByteArray& method, const QByteArray& request)
    {
        if (!bGuarded || (method == "OPTIONS" && field(request, "Session").isEmpty()))
            return true;
        const QByteArray login = field(request, "Authorization");
        const QByteArray nonce = web::parameterOf(login, "nonce");
        const auto found = m_nonces.find(nonce);
        if (!bAccepts || found == m_nonces.end())
            return false;
        if (std::exchange(found->second, true) && m_random.chance(0.1)) {
            m_nonces.erase(found);
            return false;
        }
        const QByteArray uri = request.split(' ').value(1);
        const QByteArray expected
            = web::md5(web::md5("u:here:p") + ':' + nonce + ':' + web::md5(method + ':' + uri));
        m_world.expect(
            web::parameterOf(login, "response") == expected && web::parameterOf(login, "uri") == uri,
            "%s has a wrong login: %s", method.constData(), login.constData());
        return true;
    }
    void answer(const ConnectionPtr& c, const QByteArray& request, const QByteArray& method, Session* session)
    {
        const bool bTrouble = m_random.chance(trouble);
        if (method == "OPTIONS" && session == nullptr) {
            reply(c, request, "200 OK",
                m_bGetParameter ? "Public: PLAY, GET_PARAMETER, SET_PARAMETER\r\n" : "");
        } else if (method == "DESCRIBE" && bTrouble) {
            reply(c, request, "302 There",
                "Location: rtsp://" + QByteArray::fromStdString(m_address) + "/b\r\n");
        } else if (method == "DESCRIBE") {
            const QByteArray sdp
                = "v=0\r\ns=-\r\nm=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=control:0\r\n"
                  "m=audio 0 RTP/AVP 0\r\na=control:1\r\n";
            reply(c, request, "200 OK", "Content-Length: " + QByteArray::number(sdp.size()) + "\r\n", sdp);
        } else if (method == "SETUP") {
            setUp(c, request, session);
        } else if (session == nullptr || session->bOver || (bTrouble && method != "TEARDOWN")) {
            reply(c, request, method.endsWith("_PARAMETER") ? "451 What" : "454 Who", "");
        } else if (m_bDumb && (method == "OPTIONS" || method.endsWith("_PARAMETER"))) {
            return;
        } else if (method == "PLAY") {
            session->bPlaying = true;
            ++session->nPlays;
            if (m_random.chance(0.5)) // before the answer
                send(*session);
            reply(c, request, "200 OK", "");
            tick(*session, session->nPlays);
        } else {
            session->bPlaying = session->bPlaying && method != "PAUSE" && method != "TEARDOWN";
            session->bOver = method == "TEARDOWN";
            reply(c, request, "200 OK", "");
        }
    }
    void setUp(const ConnectionPtr& c, const QByteArray& request, Session* session)
    {
        const QByteArray transport = field(request, "Transport");
        const bool bTcp = transport.contains("TCP");
        if (!bTcp && udp == eRefused)
            return reply(c, request, "461 No", "");
        if (session == nullptr) {
            m_sessions.emplace_back();
            session = &m_sessions.back();
            session->nId = static_cast<quint32>(m_sessions.size());
            session->nTimeout = static_cast<int>(std::array<int, 4>{0, 3, 20, 90}[m_random.below(4)]);
            session->nLastMs = m_world.nowMs();
            session->pConnection = std::make_shared<Connection>(); // nobody knows it yet
            session->pConnection->bTroubled = true;
        }
        session->bTcp = bTcp;
        const int number = request.split(' ').value(1).endsWith('1') ? 1 : 0;
        Session::Track& track = session->tracks[static_cast<std::size_t>(number)];
        track.bSetUp = true;
        track.nSequence = static_cast<quint16>(m_random.next());
        QByteArray said = transport;
        if (bTcp) {
            track.nChannel = 2 * number + (m_random.chance(0.3) ? 10 : 0); // as it likes
            said = "RTP/AVP/TCP;interleaved=" + QByteArray::number(track.nChannel) + '-'
                + QByteArray::number(track.nChannel + 1);
        } else {
            const QByteArray port = transport.mid(transport.indexOf("client_port=") + 12);
            track.to = sim::Address::of("10.0.0.1", port.left(port.indexOf('-')).toUShort());
            said += ";server_port=6970-6971";
        }
        const QByteArray timeout
            = session->nTimeout > 0 ? ";timeout=" + QByteArray::number(session->nTimeout) : QByteArray();
        reply(c, request, "200 OK",
            "Transport: " + said + "\r\nSession: " + session->name() + timeout + "\r\n");
    }
    void reply(const ConnectionPtr& c, const QByteArray& request, const QByteArray& status,
        const QByteArray& fields, const QByteArray& body = QByteArray())
    {
        QByteArray text
            = "RTSP/1.0 " + status + "\r\nCSeq: " + field(request, "CSeq") + "\r\n" + fields + "\r\n" + body;
        const bool bTrouble = m_random.chance(trouble);
        const auto kind = bTrouble ? m_random.below(7) : 7;
        if (kind == 0) // never
            return;
        if (kind == 1) // late
            return later(m_random.size(20000), [this, c, text] { write(*c, text); });
        if (kind == 2) // strays, and an answer that is none yet
            return write(*c,
                "xx xx" + text.left(9) + "100 Wait\r\nCSeq: " + field(request, "CSeq") + "\r\n\r\n" + text);
        if (kind == 3)
            text.truncate(static_cast<int>(m_random.below(static_cast<std::uint64_t>(text.size()))));
        write(*c, text);
        if (kind <= 6 && kind >= 3)
            leave(*c, kind == 3 ? 0 : kind - 4);
    }
    void leave(Connection& c, std::uint64_t how)
    {
        c.bTroubled = true;
        if (how == 0)
            c.pPeer->end();
        else if (how == 1)
            c.pPeer->reset();
        else
            c.pPeer->stall(true); // vanishes
        c.nAsked = 1 << 20;
    }
    // Packets may stand between the lines of an answer.
    void write(Connection& c, QByteArray text)
    {
        for (Session& s : m_sessions) {
            const int line = text.indexOf("\r\n", text.indexOf("RTSP/"));
            const bool bHere = s.bTcp && s.bPlaying && !bHold && s.pConnection.get() == &c && !c.bTroubled;
            if (bHere && line > 0 && m_random.chance(0.2))
                text.insert(line + 2, packetsOf(s, 1));
        }
        c.pPeer->write(text);
    }
    void lookAtKeepAlive(const Session& s)
    {
        const std::uint64_t passed = m_world.nowMs() - s.nLastMs;
        m_world.expect(s.pConnection->bTroubled || s.bOver || passed <= s.keepAliveMs() + nLateMs,
            "session %s: no request for %llu ms", s.name().constData(),
            static_cast<unsigned long long>(passed));
    }

    // --- packets ---

    void tick(Session& s, int plays)
    {
        const bool bGone = s.pConnection->bTroubled
            && (s.bTcp || m_world.nowMs() > s.nLastMs + 20000); // without the other, UDP goes on
        if (!s.bPlaying || s.nPlays != plays || bGone)
            return;
        lookAtKeepAlive(s);
        if (!bHold)
            send(s);
        later(static_cast<std::uint64_t>(nPeriodMs), [this, &s, plays] { tick(s, plays); });
    }
    // Of a unit: framed for TCP, or sent.
    QByteArray packetsOf(Session& s, int number)
    {
        Session::Track& track = s.tracks[static_cast<std::size_t>(number)];
        if (!track.bSetUp)
            return QByteArray();
        const bool bTrouble = m_random.chance(trouble) && (s.bTcp || bTidy);
        const auto kind = bTrouble ? m_random.below(3) : 3;
        if (kind == 0 && number == 0) // begins anew
            track.nSequence = static_cast<quint16>(track.nSequence + m_random.between(3100, 60000));
        QByteArray framed = kind == 1 && number == 0 && s.bTcp ? QByteArray("stray $ bytes") : QByteArray();
        const std::vector<QByteArray> payloads = payloadsOf(number, s.nId, track.nUnits);
        for (const QByteArray& payload : payloads) {
            const bool bLast = &payload == &payloads.back();
            const int type = (number == 0 ? 96 : 0) | (bLast ? 0x80 : 0);
            const quint32 time = firstTimestamp(s.nId) + static_cast<quint32>(track.nUnits) * kTicks;
            const QByteArray head = bigEndian(0x80, 1) + static_cast<char>(type)
                + bigEndian(track.nSequence++, 2) + bigEndian(time, 4);
            framed += sent(s, track, head + bigEndian(s.nId, 4) + payload);
            if (kind == 2) // a stranger
                framed += sent(s, track, head + bigEndian(0xFFFFFFFF, 4) + payload);
        }
        ++track.nUnits;
        if (m_random.chance(0.1)) // a sender report
            framed += sent(s, track, bigEndian(0x80C80006, 4) + bigEndian(s.nId, 4) + QByteArray(20, 'x'), 1);
        return framed;
    }
    QByteArray sent(const Session& s, const Session::Track& track, const QByteArray& packet, int rtcp = 0)
    {
        if (s.bTcp)
            return "$" + bigEndian(static_cast<quint32>(track.nChannel + rtcp), 1)
                + bigEndian(static_cast<quint32>(packet.size()), 2) + packet;
        if (udp == eUdp)
            (rtcp == 0 ? m_rtp : m_rtcp)
                .send(track.to.withPort(static_cast<std::uint16_t>(track.to.nPort + rtcp)), packet);
        return QByteArray();
    }
    void send(Session& s)
    {
        Connection& c = *s.pConnection;
        if (s.bTcp && c.pPeer->unsent() > 0) // the network is behind
            return;
        const auto kind = m_random.chance(trouble) && !c.bTroubled ? m_random.below(5) : 5;
        if (kind == 0 && ++c.nAsked < 100)
            c.pPeer->write("OPTIONS rtsp://you RTSP/1.0\r\nCSeq: 7\r\n\r\n");
        const auto before = s.tracks;
        QByteArray framed = packetsOf(s, 0) + packetsOf(s, 1);
        if (kind == 1 && s.bTcp) { // cut
            framed.truncate(static_cast<int>(m_random.below(static_cast<std::uint64_t>(framed.size()))));
            s.tracks = before;
        }
        if (s.bTcp)
            c.pPeer->write(framed);
        s.bEnded = s.bTcp && kind == 2;
        if (kind >= 1 && kind <= 3 && (s.bTcp || kind != 1))
            leave(c, kind == 1 || kind == 2 ? 0 : m_random.below(3));
    }

    sim::World& m_world;
    sim::Random m_random;
    std::string m_address;
    sim::UdpPeer& m_rtp;
    sim::UdpPeer& m_rtcp;
    std::deque<Session> m_sessions;
    bool m_bGetParameter;
    bool m_bDumb; // answers no keep-alive, and needs them all the same
    std::map<QByteArray, bool> m_nonces; // and whether it was used
    int m_nNonces = 0;
    std::shared_ptr<bool> m_pAlive = std::make_shared<bool>(true);
};
} // namespace rtsp
