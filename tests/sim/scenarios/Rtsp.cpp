// RTSP clients and cameras that are peers: handlers that stop, delete, pause and run event loops, bad
// networks and bad servers. Every signal comes in its place and in time, every unit is what was sent, in
// order and once, and over TCP nothing of what came is missing.
#include "sim/scenarios/rtsp/Camera.h"

#include <KepNuvikaUtil/RtspClient.h>

#include <map>
#include <set>

using namespace rtsp;

namespace
{
constexpr std::uint64_t kLimitMs = 10000; // of each answer, of silence
constexpr std::uint64_t kTeardownMs = 4000; // twice
constexpr std::uint64_t kHourMs = 3600000;

class Viewer
{
public:
    Viewer(sim::World& world, Camera& camera) : m_world(world), m_camera(camera)
    {
        sim::Random& random = world.random();
        m_options.transport = random.chance(0.5) ? RtspOptions::eAutomatic
            : random.chance(0.5)                 ? RtspOptions::eTcp
                                                 : RtspOptions::eUdp;
        m_options.bPlayAtOnce = random.chance(0.7);
    }
    ~Viewer() { m_pClient.reset(); }

    // Something random, also in a handler: nothing is touched behind it.
    void act()
    {
        sim::Random& random = m_world.random();
        const auto what = bCalm || !random.chance(0.2) ? 99 : random.below(20);
        const RtspClient::State state = m_pClient ? m_pClient->state() : RtspClient::eIdle;
        if (what < 8 && !m_bRunning) {
            start();
        } else if (what < 2) {
            stop();
        } else if (what == 2) {
            destroy();
        } else if (what < 5 && state == RtspClient::ePlaying && !std::exchange(m_bPausing, true)) {
            m_world.expect(m_pClient->pause(), "pause() is refused");
        } else if (what < 10 && state == RtspClient::ePaused) {
            m_bPlaying = false;
            m_world.expect(m_pClient->resume(), "resume() is refused");
        } else if (what < 10 && state == RtspClient::eDescribed) {
            m_world.expect(
                m_pClient->play(random.chance(0.5) ? QVector<int>() : QVector<int>{1}), "play() is refused");
        } else if (what >= 10 && what < 12) {
            m_world.work(random.size(20000));
        } else if (what >= 12 && what < 15 && m_nDepth < 3) {
            ++m_nDepth;
            m_world.run(random.size(1500));
            --m_nDepth;
        }
    }
    void start()
    {
        if (!m_pClient)
            make();
        if (m_bRunning)
            return;
        m_bRunning = true;
        m_bStopping = m_bDescribed = m_bPlaying = m_bPausing = false;
        m_nRequestMs = m_nLastMs = m_world.nowMs();
        m_pSession = nullptr;
        m_tracks = {};
        const std::string url = "rtsp://u:p@" + m_camera.address() + "/a";
        m_world.expect(m_pClient->start(QString::fromStdString(url)), "an idle client does not start");
        m_world.expect(!m_pClient->start(QString::fromStdString(url)), "a client starts twice");
    }
    void stop()
    {
        if (!m_pClient || !m_bRunning)
            return;
        if (!std::exchange(m_bStopping, true))
            m_nStopMs = m_world.nowMs();
        ++m_nEnds;
        m_pClient->stop();
    }
    void destroy()
    {
        if (m_world.weather().squeeze > 0) // what the socket does not take at once
            m_camera.excuseAll();
        m_bRunning = false;
        ++m_nEnds;
        if (m_world.random().chance(0.3) && m_pClient) {
            m_pClient->disconnect();
            m_pClient.release()->deleteLater();
        }
        m_pClient.reset();
    }
    bool isRunning() const { return m_bRunning; }
    bool isPlaying() const { return m_bPlaying && m_pClient->state() == RtspClient::ePlaying; }
    int units(int track) const { return m_tracks[static_cast<std::size_t>(track)].nUnits; }
    bool mayPlay() const
    {
        return m_camera.bAccepts
            && (m_camera.udp == Camera::eUdp || m_options.transport != RtspOptions::eUdp);
    }
    // Each state lasts as long as it may.
    void watch() const
    {
        if (!m_pClient)
            return;
        const RtspClient::State state = m_pClient->state();
        const std::uint64_t now = m_world.nowMs();
        const bool bTcp = m_pClient->transport() == RtspOptions::eTcp;
        const std::uint64_t slack = 1000 + (bTcp ? m_camera.nLateMs : 0);
        std::uint64_t limit = kLimitMs + kTeardownMs + 1000;
        std::uint64_t since = m_nLastMs;
        if (m_bStopping) {
            since = m_nStopMs;
            limit = kTeardownMs + 500;
        } else if (state == RtspClient::ePlaying) {
            since = m_nMediaMs;
            limit = kLimitMs + slack;
        }
        m_world.expect(
            m_bRunning == (state != RtspClient::eIdle), "running: %d, state %d", m_bRunning, state);
        m_world.expect(!m_bRunning || state == RtspClient::eDescribed || state == RtspClient::ePaused
                || now - since <= limit,
            "state %d for %llu ms", state, static_cast<unsigned long long>(now - since));
    }
    // What came is told: all of it over TCP, whole units over UDP.
    void checkAll()
    {
        const bool bTcp = m_pClient->transport() == RtspOptions::eTcp;
        const QVector<RtspTrackStatistics> all = m_pClient->trackStatistics();
        for (const RtspTrackStatistics& s : all) {
            Told& told = m_tracks[static_cast<std::size_t>(s.track)];
            const Session& session = *m_pSession;
            const Session::Track& sent = session.tracks[static_cast<std::size_t>(s.track)];
            m_world.expect(
                told.nUnits == static_cast<int>(s.nUnits), "%d units, and not %llu", told.nUnits, s.nUnits);
            m_world.expect(!bTcp || told.nPacketUnit == sent.nUnits, "track %d: packets of %d units, not %d",
                s.track, told.nPacketUnit, sent.nUnits);
            m_world.expect(
                (!bTcp && !m_camera.bTidy) || s.nLate + s.nLost + s.nDuplicates + s.nUnitsLost == 0,
                "track %d: %llu late, %llu lost, %llu doubled", s.track, s.nLate, s.nLost, s.nDuplicates);
            for (const auto& came : told.came) {
                const bool bWhole = came.second.size() == payloadsOf(s.track, session.nId, came.first).size();
                const bool bWaits = s.track == 0 && came.first + 1 >= sent.nUnits; // for the next one
                m_world.expect(!bWhole || bWaits || s.nLate > 0 || told.units.count(came.first) != 0,
                    "track %d: unit %d came, and is not told", s.track, came.first);
            }
        }
    }

    bool bCalm = false;

private:
    // Of a session.
    struct Told {
        int nUnits = 0;
        int nLastUnit = -1;
        std::set<int> units;
        std::map<int, std::set<std::size_t>> came; // packets of units
        int nPacketUnit = 0; // the next packet's, over TCP
        std::size_t nPacket = 0;
    };

    void make()
    {
        using Client = RtspClient;
        m_pClient = std::make_unique<Client>();
        m_pClient->setOptions(m_options);
        const auto on
            = [this](auto signal, auto handler) { QObject::connect(m_pClient.get(), signal, handler); };
        on(&Client::described, [this] {
            told("described");
            m_world.expect(!std::exchange(m_bDescribed, true), "described() comes twice");
            if (!m_options.bPlayAtOnce && bCalm)
                m_world.expect(m_pClient->play(), "play() is refused");
            act();
        });
        on(&Client::playing, [this] {
            told("playing");
            m_world.expect(m_bDescribed && !std::exchange(m_bPlaying, true), "playing() comes twice");
            m_nPlayingMs = m_nMediaMs = m_world.nowMs();
            act();
        });
        on(&Client::paused, [this] {
            told("paused");
            m_world.expect(m_bPlaying && std::exchange(m_bPausing, false), "paused(), and nobody wanted it");
            act();
        });
        on(&Client::transportChanged, [this](RtspOptions::Transport transport) {
            told("transportChanged");
            m_world.expect(m_options.transport == RtspOptions::eAutomatic && transport == RtspOptions::eTcp,
                "the transport changes to %d", transport);
            m_bPlaying = m_bPausing = false;
            m_nRequestMs = m_world.nowMs();
            act();
        });
        on(&Client::packetReceived, to(this, &Viewer::takePacket));
        on(&Client::unitReceived, to(this, &Viewer::takeUnit));
        on(&Client::rtcpReceived, [this] {
            told("rtcpReceived");
            act();
        });
        on(&Client::statistics, [this](const QVector<RtspTrackStatistics>&) {
            told("statistics");
            m_world.expect(m_bPlaying, "statistics, and nothing plays");
            act();
        });
        on(&Client::messageSent, to(this, &Viewer::takeSent));
        on(&Client::messageReceived, [this](const QByteArray& text) {
            m_bDescribed = m_bDescribed && !text.startsWith("RTSP/1.0 302");
            m_world.expect(m_bRunning, "a message behind the end");
            if (m_pClient->transport() == RtspOptions::eTcp)
                m_nMediaMs = m_world.nowMs();
            act();
        });
        on(&Client::stopped, [this] {
            sim::trace("stopped");
            m_world.expect(m_bRunning && m_bStopping, "stopped(), and nobody wanted it");
            over();
        });
        on(&Client::error, to(this, &Viewer::takeError));
    }
    void over()
    {
        ++m_nEnds;
        m_world.expect(m_pClient->state() == RtspClient::eIdle, "state %d at the end", m_pClient->state());
        m_bRunning = false;
        act();
    }
    void told(const char* signal)
    {
        sim::trace("%s()", signal);
        m_world.expect(m_bRunning && !m_bStopping, "%s() behind the end", signal);
        m_world.expect(m_pClient->state() != RtspClient::eIdle && m_pClient->state() != RtspClient::eEnding,
            "%s() in state %d", signal, m_pClient->state());
    }
    void takeSent(const QByteArray& text)
    {
        sim::trace("%s", text.left(text.indexOf("\r\n")).constData());
        m_world.expect(m_bRunning, "a request behind the end");
        if (text.startsWith("RTSP/"))
            return act();
        m_nLastMs = m_world.nowMs();
        if (text.contains("_PARAMETER ") || text.startsWith("TEARDOWN")
            || (m_bDescribed && text.startsWith("OPTIONS")))
            return act();
        m_nRequestMs = m_nLastMs;
        act();
    }
    void takeError(int code)
    {
        const QString why = m_pClient->errorString();
        const std::uint64_t now = m_world.nowMs() + 2;
        sim::trace("error(%d): %s", code, qUtf8Printable(why));
        m_world.expect(m_bRunning && !m_bStopping, "error(%d) behind the end", code);
        m_world.expect(code != 0 && !why.isEmpty(), "error(%d) without a word", code);
        m_world.expect(code != 401 || !m_camera.bAccepts, "a right password is refused");
        const bool bAnswer
            = why.contains(QLatin1String("no answer")) || why.contains(QLatin1String("no connection"));
        m_world.expect(!bAnswer || now >= m_nRequestMs + kLimitMs, "too early: %s", qUtf8Printable(why));
        const bool bSilence = why.contains(QLatin1String("nothing more came"));
        m_world.expect(!bSilence || now >= m_nMediaMs + kLimitMs, "too early: %s", qUtf8Printable(why));
        const bool bFirst = why.contains(QLatin1String("no packet came"));
        m_world.expect(!bFirst || now >= m_nPlayingMs + kLimitMs, "too early: %s", qUtf8Printable(why));
        if (m_pSession != nullptr && m_pSession->bEnded && why.contains(QLatin1String("server ended")))
            for (std::size_t i = 0; i < kTracks; ++i)
                m_world.expect(m_tracks[i].nPacketUnit == m_pSession->tracks[i].nUnits,
                    "track %zu: the last packets before the end are missing", i);
        over();
    }

    // --- packets and units ---

    // Of this packet or unit: another begins anew.
    void enter(quint32 id)
    {
        const QByteArray name = "s" + QByteArray::number(id);
        m_world.expect(m_pClient->sessionId() == QString::fromLatin1(name), "a packet of session %u in %s",
            id, qUtf8Printable(m_pClient->sessionId()));
        if (m_pSession != m_camera.find(name))
            m_tracks = {};
        m_pSession = m_camera.find(name);
        m_world.expect(m_pSession != nullptr, "there is no session %u", id);
    }
    int numberOf(quint32 timestamp) const
    {
        const quint32 ticks = timestamp - firstTimestamp(m_pSession->nId);
        m_world.expect(ticks % kTicks == 0, "a timestamp that nobody has sent");
        return static_cast<int>(ticks / kTicks);
    }
    void takePacket(int track, const RTPPacket& packet)
    {
        told("packetReceived");
        m_nMediaMs = m_world.nowMs();
        enter(packet.getSSRC());
        Told& t = m_tracks[static_cast<std::size_t>(track)];
        const int number = numberOf(packet.getRawTimestamp());
        const std::vector<QByteArray> payloads = payloadsOf(track, m_pSession->nId, number);
        const QByteArray bytes(
            reinterpret_cast<const char*>(packet.getPayload()), static_cast<int>(packet.getPayloadSize()));
        if (m_pSession->bTcp) {
            m_world.expect(number == t.nPacketUnit && bytes == payloads[t.nPacket],
                "track %d: a packet of unit %d, and not the one of %d that follows", track, number,
                t.nPacketUnit);
            t.nPacket = (t.nPacket + 1) % payloads.size();
            t.nPacketUnit += t.nPacket == 0 ? 1 : 0;
        }
        const auto found = std::find(payloads.begin(), payloads.end(), bytes);
        m_world.expect(found != payloads.end(), "track %d: a packet that is none of unit %d", track, number);
        t.came[number].insert(static_cast<std::size_t>(found - payloads.begin()));
        act();
    }
    void takeUnit(int track, const RtspUnit& unit)
    {
        told("unitReceived");
        m_world.expect(m_pSession != nullptr, "a unit before its packets");
        Told& t = m_tracks[static_cast<std::size_t>(track)];
        const int number = numberOf(unit.nTimestamp);
        const auto bytes = [&unit] {
            return QByteArray(reinterpret_cast<const char*>(unit.pData), static_cast<int>(unit.nSize));
        };
        const QByteArray expected = (track == 0 ? QByteArray("\0\0\0\1", 4) : QByteArray())
            + contentOf(track, m_pSession->nId, number);
        m_world.expect(bytes() == expected, "track %d: unit %d is another", track, number);
        m_world.expect(m_pSession->bTcp ? number == t.nLastUnit + 1 : number > t.nLastUnit,
            "track %d: unit %d behind %d", track, number, t.nLastUnit);
        t.nLastUnit = number;
        t.units.insert(number);
        ++t.nUnits;
        const RtspClient* client = m_pClient.get();
        const std::uint64_t ends = m_nEnds;
        act();
        if (m_pClient.get() == client && m_nEnds == ends)
            m_world.expect(bytes() == expected, "a unit that changes");
    }

    sim::World& m_world;
    Camera& m_camera;
    RtspOptions m_options;
    std::unique_ptr<RtspClient> m_pClient;
    const Session* m_pSession = nullptr; // of the last packet
    std::array<Told, kTracks> m_tracks;
    bool m_bRunning = false;
    bool m_bStopping = false;
    bool m_bDescribed = false;
    bool m_bPlaying = false;
    bool m_bPausing = false;
    int m_nDepth = 0;
    std::uint64_t m_nEnds = 0;
    std::uint64_t m_nLastMs = 0; // sent anything
    std::uint64_t m_nRequestMs = 0; // but keep-alives and TEARDOWN
    std::uint64_t m_nPlayingMs = 0;
    std::uint64_t m_nMediaMs = 0;
    std::uint64_t m_nStopMs = 0;
};

struct Pair {
    Pair(sim::World& world, int number) : camera(world, number), viewer(world, camera) { }
    Camera camera;
    Viewer viewer;
};

// In fine weather, with a camera that behaves: everything comes, for hours, and ends at once.
void finish(sim::World& world, Pair& pair)
{
    Viewer& viewer = pair.viewer;
    viewer.stop();
    world.expect(
        world.runUntil([&] { return !viewer.isRunning(); }, kTeardownMs + 500), "a stop without an end");
    viewer.start();
    const auto plays = [&] { return viewer.isPlaying() && viewer.units(0) > 2 && viewer.units(1) > 2; };
    world.runUntil([&] { return !viewer.isRunning() || plays(); }, 60000);
    world.expect(viewer.isRunning() == viewer.mayPlay(), "it plays: %d", viewer.isRunning());
    if (!viewer.isRunning())
        return;
    world.expect(plays(), "nothing comes");
    if (world.random().chance(0.1)) {
        pair.camera.nPeriodMs = 9000;
        world.run(120000 + world.random().size(3 * kHourMs));
        world.expect(viewer.isPlaying(), "it does not play for hours");
    }
    if (world.random().chance(0.5)) { // what was held for a lost packet comes, too
        pair.camera.bTidy = false;
        world.weather().lose = world.weather().reorder = 0.2;
        world.run(3000);
        world.weather() = sim::Weather();
    }
    pair.camera.bHold = true;
    world.run(1000);
    viewer.checkAll();
    pair.camera.bHold = false;
    viewer.stop();
    world.expect(world.runUntil([&] { return !viewer.isRunning(); }, 1000), "TEARDOWN takes too long");
}
} // namespace

SCENARIO(rtsp)
{
    sim::Random& random = world.random();
    sim::Weather& weather = world.weather();
    weather.noMemory = 0; // a collected unit without memory ends the process
    std::deque<Pair> pairs;
    for (int i = 0; i < static_cast<int>(random.between(1, 3)); ++i) {
        Camera& camera = pairs.emplace_back(world, i).camera;
        camera.trouble = random.chance(0.3) ? 0 : 0.05;
        camera.bTidy = weather.lose + weather.duplicate + weather.reorder == 0;
        camera.nLateMs
            = (weather.nMaxDelayUs > 3000
                      ? 15000
                      : 6000) // a handler may keep the answer to PLAY + (weather.stall > 0 ? 20000 : 0)
            + (weather.squeeze > 0 ? 35000 : 0);
    }
    for (auto left = random.size(40); left > 0; --left) {
        random.pick(pairs).viewer.act();
        world.run(random.size(6000));
        for (const Pair& pair : pairs)
            pair.viewer.watch();
    }
    weather = sim::Weather();
    for (Pair& pair : pairs) {
        pair.viewer.bCalm = true;
        pair.camera.trouble = 0;
        pair.camera.bTidy = true;
    }
    world.run(6000); // what is under way arrives
    for (Pair& pair : pairs)
        finish(world, pair);
    for (Pair& pair : pairs)
        pair.viewer.destroy();
    world.run(1000);
    for (const Pair& pair : pairs)
        world.expect(pair.camera.forgotten() == 0, "%zu sessions are forgotten", pair.camera.forgotten());
}
