// A camera as a peer: RTSP by its own few lines, a video track in fragments, an audio track and perhaps one
// of data, whose bytes tell whose they are. It answers late, never, half or twice, lets nonces expire,
// refuses UDP or sends nothing by it, and vanishes.
#pragma once

#include "sim/scenarios/http/Exchange.h"

#include <algorithm>
#include <array>
#include <deque>
#include <memory>
#include <vector>

namespace rtsp
{
enum { eVideo, eAudio, eData, kTracks };
constexpr std::array<quint32, kTracks> kTypes = {96, 0, 107};
constexpr quint32 kTicks = 3000; // from one unit to the next

// What a unit holds; no zeros, which pictures would have to escape.
inline QByteArray contentOf(int track, quint32 session, int number)
{
    QByteArray all = web::bytesOf(static_cast<int>(session) * 100000 + number * 2 + track,
        2 + (number * 7919 + track) % (track == eAudio ? 300 : 3000));
    all.replace('\0', 'x');
    return track == eVideo ? "\x65\x88" + all : all;
}
inline std::vector<QByteArray> payloadsOf(int track, quint32 session, int number)
{
    constexpr int kFragment = 400; // bytes of a picture in a packet
    const QByteArray content = contentOf(track, session, number);
    if (content.size() <= kFragment)
        return {content};
    std::vector<QByteArray> payloads;
    for (int at = 0; track == eData && at < content.size(); at += kFragment)
        payloads.push_back(content.mid(at, kFragment));
    if (track == eData)
        return payloads;
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
inline quint32 channelOf(int track) { return static_cast<quint32>(2 * track + 10); } // as it likes
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
    QByteArray denied; // the last method, and how often in a row
    int nDenied = 0;
    bool bTroubled = false; // by us: nobody need say goodbye
};

struct Session {
    struct Track {
        sim::Address to;
        quint16 nSequence = 0;
        int nUnits = -1; // sent whole; < 0: not set up
    };
    quint32 nId = 0;
    int nTimeout = 0; // in seconds; 0: not said
    bool bTcp = false;
    bool bPlaying = false;
    bool bTicks = false;
    bool bOver = false; // TEARDOWN has come
    std::uint64_t nLastMs = 0; // request
    std::shared_ptr<Connection> pConnection; // of its last one
    std::array<Track, kTracks> tracks;

    QByteArray name() const { return "s" + QByteArray::number(nId); }
};

// Lives as long as the world, because the network may bring its viewer's last words later.
class Camera
{
public:
    Camera(sim::World& world, int number)
        : m_world(world), m_nSeed(world.random().next()), m_random(m_nSeed),
          address((bIPv6 ? "fd00::3:" : "10.0.3.") + std::to_string(number + 1)),
          m_rtp(world.udp(address, 6970))
    {
    }
    static std::shared_ptr<Camera> make(sim::World& world, int number)
    {
        const auto made = std::make_shared<Camera>(world, number);
        world.listen(made->address, 554, [made](sim::Peer& peer) { made->accept(peer); });
        return made;
    }
    Session* find(const QByteArray& name)
    {
        const auto found = std::find_if(
            sessions.begin(), sessions.end(), [&](const Session& s) { return s.name() == name; });
        return found == sessions.end() ? nullptr : &*found;
    }

private:
    sim::World& m_world;
    const std::uint64_t m_nSeed;
    sim::Random m_random;

public:
    const bool bIPv6 = (m_nSeed & 1) != 0;
    const bool bData = (m_nSeed & 6) == 0;
    const std::string address;
    enum Udp { eUdp, eRefused, eMute };
    const Udp udp = m_random.chance(0.6) ? eUdp : m_random.chance(0.5) ? eRefused : eMute;
    const bool bGuarded = m_random.chance(0.5);
    const bool bAccepts = !bGuarded || m_random.chance(0.8); // the password
    bool bHold = false; // sends nothing for now
    int nPeriodMs = static_cast<int>(m_random.between(40, 1500));
    double trouble = m_random.chance(0.3) ? 0 : 0.05; // of an answer or a unit, how often
    std::uint64_t nLateMs = 0; // the network lets a request come
    std::deque<Session> sessions;

private:
    using ConnectionPtr = std::shared_ptr<Connection>;

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
            for (const Session& s : sessions)
                m_world.expect(s.pConnection != c || s.bOver || c->bTroubled,
                    "session %u is closed without TEARDOWN", s.nId);
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
        if (!bReport)
            take(c, message, message.left(message.indexOf(' ')));
        return true;
    }
    void take(const ConnectionPtr& c, const QByteArray& request, const QByteArray& method)
    {
        Session* session = find(field(request, "Session"));
        if (session != nullptr) {
            session->nLastMs = m_world.nowMs();
            session->pConnection = c;
            session->bOver = session->bOver || method == "TEARDOWN";
        }
        if (isAdmitted(method, request)) {
            c->denied.clear();
            return answer(c, request, method, session);
        }
        c->nDenied = c->denied == method ? c->nDenied + 1 : 1;
        c->denied = method;
        m_world.expect(c->nDenied <= 2 || method == "GET_PARAMETER", "%s is repeated more than once",
            method.constData());
        const QByteArray nonce = "n" + QByteArray::number(++m_nNonces);
        m_nonces[nonce] = false;
        reply(c, request, "401 No", "WWW-Authenticate: Digest realm=\"here\", nonce=\"" + nonce + "\"\r\n");
    }
    // The password is asked for by all but OPTIONS; nonces are forgotten, but never before they were used.
    bool isAdmitted(const QByteArray& method, const QByteArray& request)
    {
        if (!bGuarded || method == "OPTIONS")
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
        m_world.expect(web::parameterOf(login, "response") == expected, "%s has a wrong login: %s",
            method.constData(), login.constData());
        return true;
    }
    void answer(const ConnectionPtr& c, const QByteArray& request, const QByteArray& method, Session* session)
    {
        if (method == "OPTIONS") {
            reply(c, request, "200 OK", "Public: PLAY, GET_PARAMETER\r\n");
        } else if (method == "DESCRIBE") {
            const QByteArray data
                = "m=application 0 RTP/AVP 107\r\na=rtpmap:107 vnd.onvif.metadata/90000\r\na=control:2\r\n";
            const QByteArray sdp
                = "v=0\r\ns=-\r\nm=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=control:0\r\n"
                  "m=audio 0 RTP/AVP 0\r\na=control:1\r\n"
                + (bData ? data : QByteArray());
            reply(c, request, "200 OK", "Content-Length: " + QByteArray::number(sdp.size()) + "\r\n", sdp);
        } else if (method == "SETUP") {
            setUp(c, request, session);
        } else if (session == nullptr) {
            reply(c, request, "454 Who");
        } else if (method != "GET_PARAMETER" || !m_bDumb) {
            session->bPlaying = method == "PLAY" || (session->bPlaying && method == "GET_PARAMETER");
            if (method == "PLAY" && m_random.chance(0.5)) // before the answer
                send(*session);
            reply(c, request, "200 OK");
            if (method == "PLAY" && !std::exchange(session->bTicks, true))
                tick(*session);
        }
    }
    void setUp(const ConnectionPtr& c, const QByteArray& request, Session* session)
    {
        QByteArray transport = field(request, "Transport");
        const bool bTcp = transport.contains("TCP");
        if (!bTcp && udp == eRefused)
            return reply(c, request, "461 No");
        if (session == nullptr) {
            session = &sessions.emplace_back();
            session->nId = static_cast<quint32>(sessions.size());
            session->nTimeout = static_cast<int>(std::array<int, 4>{0, 3, 20, 90}[m_random.below(4)]);
            session->pConnection = std::make_shared<Connection>(); // nobody knows it yet
            session->bTcp = bTcp;
        }
        const int number = request.split(' ').value(1).right(1).toInt();
        Session::Track& track = session->tracks[static_cast<std::size_t>(number)];
        track.nUnits = 0;
        track.nSequence = static_cast<quint16>(m_random.next());
        if (bTcp) {
            transport = "RTP/AVP/TCP;interleaved=" + QByteArray::number(channelOf(number));
        } else {
            const QByteArray port = transport.mid(transport.indexOf("client_port=") + 12);
            track.to
                = sim::Address::of(bIPv6 ? "fd00::1" : "10.0.0.1", port.left(port.indexOf('-')).toUShort());
            transport += ";server_port=6970-6971";
        }
        const QByteArray timeout
            = session->nTimeout > 0 ? ";timeout=" + QByteArray::number(session->nTimeout) : QByteArray();
        reply(c, request, "200 OK",
            "Transport: " + transport + "\r\nSession: " + session->name() + timeout + "\r\n");
    }
    void reply(const ConnectionPtr& c, const QByteArray& request, const QByteArray& status,
        const QByteArray& fields = QByteArray(), const QByteArray& body = QByteArray())
    {
        const QByteArray text
            = "RTSP/1.0 " + status + "\r\nCSeq: " + field(request, "CSeq") + "\r\n" + fields + "\r\n" + body;
        const auto kind = m_random.chance(trouble) ? m_random.below(5) : 5;
        if (kind == 0 || c->bTroubled) // never
            return;
        if (kind == 1) // late
            return m_world.after(m_random.size(20000), [c, text] { c->pPeer->write(text); });
        c->pPeer->write(kind == 2 ? text.left(static_cast<int>(m_random.size(30))) : text);
        if (kind <= 3)
            leave(*c);
    }
    void leave(Connection& c)
    {
        c.bTroubled = true;
        const auto how = m_random.below(3);
        if (how == 0)
            c.pPeer->end();
        else if (how == 1)
            c.pPeer->reset();
        else
            c.pPeer->stall(true); // vanishes
    }

    // --- packets ---

    void tick(Session& s)
    {
        if (s.bOver || s.pConnection->bTroubled)
            return;
        const int limit = s.nTimeout > 0 ? std::min(s.nTimeout * 500, 30000) : 30000;
        const std::uint64_t passed = m_world.nowMs() - s.nLastMs;
        m_world.expect(passed <= static_cast<std::uint64_t>(limit) + nLateMs,
            "session %u: no request for %d ms", s.nId, static_cast<int>(passed));
        if (s.bPlaying && !bHold)
            send(s);
        m_world.after(static_cast<std::uint64_t>(nPeriodMs), [this, &s] { tick(s); });
    }
    // A unit of each track.
    void send(Session& s)
    {
        sim::Peer& peer = *s.pConnection->pPeer;
        if (s.bTcp && peer.unsent() > 0) // the network is behind
            return;
        QByteArray framed;
        for (int number = 0; number < kTracks; ++number) {
            Session::Track& track = s.tracks[static_cast<std::size_t>(number)];
            if (track.nUnits < 0)
                continue;
            const std::vector<QByteArray> payloads = payloadsOf(number, s.nId, track.nUnits);
            const quint32 time = firstTimestamp(s.nId) + static_cast<quint32>(track.nUnits++) * kTicks;
            for (const QByteArray& payload : payloads) {
                const quint32 type
                    = kTypes[static_cast<std::size_t>(number)] | (&payload == &payloads.back() ? 0x80 : 0);
                const QByteArray packet = bigEndian(0x8000 | type, 2) + bigEndian(track.nSequence++, 2)
                    + bigEndian(time, 4) + bigEndian(s.nId, 4) + payload;
                framed += "$" + bigEndian(channelOf(number), 1)
                    + bigEndian(static_cast<quint32>(packet.size()), 2) + packet;
                if (!s.bTcp && udp == eUdp)
                    m_rtp.send(track.to, packet);
            }
        }
        const bool bTrouble = m_random.chance(trouble / 2);
        if (bTrouble && m_random.chance(0.5)) // cut
            framed.truncate(static_cast<int>(m_random.below(static_cast<std::uint64_t>(framed.size()))));
        if (s.bTcp)
            peer.write(framed);
        if (bTrouble)
            leave(*s.pConnection);
    }

    sim::UdpPeer& m_rtp;
    const bool m_bDumb = m_random.chance(0.2); // answers no keep-alive, and needs them all the same
    std::map<QByteArray, bool> m_nonces; // and whether it was used
    int m_nNonces = 0;
};
} // namespace rtsp
