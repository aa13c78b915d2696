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
constexpr std::uint64_t kTeardownMs = 4000; // twice

class Viewer
{
public:
    Viewer(sim::World& world, int number)
        : camera(Camera::make(world, number)), m_world(world),
          m_transport(static_cast<RtspOptions::Transport>(random(0.5) ? RtspOptions::eAutomatic
                  : random(0.5)                                       ? RtspOptions::eTcp
                                                                      : RtspOptions::eUdp))
    {
    }

    // Something random, also in a handler: nothing is touched behind it.
    void act()
    {
        const auto what = bCalm || !random(0.2) ? 99 : m_world.random().below(20);
        if (what < 8 && !m_bRunning)
            start();
        else if (what < 2)
            stop();
        else if (what == 2)
            destroy();
        else if (what < 5 && m_bRunning)
            m_pClient->pause();
        else if (what < 10 && m_bRunning && m_pClient->state() == RtspClient::ePaused) {
            m_bPlaying = false;
            m_world.expect(m_pClient->resume(), "resume() is refused");
        } else if (what >= 10 && what < 12)
            m_world.work(m_world.random().size(20000));
        else if (what >= 12 && what < 15)
            runNestedLoop();
    }
    void start()
    {
        if (!m_pClient)
            make();
        m_bRunning = true;
        m_bStopping = m_bPlaying = false;
        m_nSignMs = m_world.nowMs();
        m_left.clear();
        m_pSession = nullptr;
        m_tracks = {};
        const std::string host = camera->bIPv6 ? '[' + camera->address + ']' : camera->address;
        const std::string url = "rtsp://u:p@" + host + "/a";
        m_world.expect(m_pClient->start(QString::fromStdString(url)), "an idle client does not start");
    }
    void stop()
    {
        if (!m_bRunning)
            return;
        if (!std::exchange(m_bStopping, true))
            m_nStopMs = m_world.nowMs();
        ++m_nEnds;
        m_pClient->stop();
    }
    void destroy()
    {
        // What the socket does not take at once is lost, such as what is sent behind two requests of one
        // pass.
        const bool bMayLose = m_world.weather().squeeze > 0 || m_world.nowMs() - m_nSentMs <= 1;
        for (Session& session : camera->sessions)
            session.pConnection->bTroubled = session.pConnection->bTroubled || bMayLose;
        m_bRunning = false;
        ++m_nEnds;
        m_pClient.reset();
    }
    // Each state lasts as long as it may.
    void watch() const
    {
        const RtspClient::State state = m_pClient ? m_pClient->state() : RtspClient::eIdle;
        m_world.expect(
            m_bRunning == (state != RtspClient::eIdle), "running: %d, state %d", m_bRunning, state);
        const std::uint64_t limit = m_bStopping ? kTeardownMs + 500 : 11000 + kTeardownMs + camera->nLateMs;
        const std::uint64_t passed = m_world.nowMs() - (m_bStopping ? m_nStopMs : m_nSignMs);
        m_world.expect(!m_bRunning || state == RtspClient::ePaused || passed <= limit, "state %d for %d ms",
            state, static_cast<int>(passed));
    }
    // In fine weather, with a camera that behaves: everything comes, for hours, and ends at once.
    void finish()
    {
        stop();
        m_world.expect(
            m_world.runUntil([this] { return !m_bRunning; }, kTeardownMs + 500), "it does not stop");
        start();
        const auto plays
            = [this] { return m_bPlaying && m_tracks[0].units.size() > 2 && m_tracks[1].units.size() > 2; };
        m_world.runUntil([&] { return !m_bRunning || plays(); }, 60000);
        const bool bMay
            = camera->bAccepts && (camera->udp == Camera::eUdp || m_transport != RtspOptions::eUdp);
        m_world.expect(
            m_bRunning == bMay && plays() == bMay, "it runs: %d, and plays: %d", m_bRunning, plays());
        if (!m_bRunning)
            return;
        if (random(0.1)) {
            camera->nPeriodMs = 9000;
            m_world.run(120000 + m_world.random().size(3 * 3600000));
            m_world.expect(m_bPlaying, "it does not play for hours");
        }
        if (random(0.5)) { // what was held for a lost packet comes, too
            sim::Weather& weather = m_world.weather();
            weather.lose = weather.reorder = weather.duplicate = 0.2;
            m_world.run(3000);
            weather = sim::Weather();
        }
        camera->bHold = true;
        m_world.run(1000);
        checkAll();
        camera->bHold = false;
        stop();
        m_world.expect(m_world.runUntil([this] { return !m_bRunning; }, 1000), "TEARDOWN takes too long");
    }

    const std::shared_ptr<Camera> camera;
    bool bCalm = false;

private:
    // Of a session.
    struct Told {
        quint16 nNext = 0; // sequence number, over TCP
        std::set<int> units;
        std::map<int, std::set<int>> came; // packets of units
    };

    void runNestedLoop()
    {
        if (m_nDepth >= 3)
            return;
        ++m_nDepth;
        m_world.run(m_world.random().size(1500));
        --m_nDepth;
    }
    bool random(double probability) const { return m_world.random().chance(probability); }
    void make()
    {
        using Client = RtspClient;
        m_pClient = std::make_unique<Client>();
        RtspOptions options;
        options.transport = m_transport;
        m_pClient->setOptions(options);
        const auto on
            = [this](auto signal, auto handler) { QObject::connect(m_pClient.get(), signal, handler); };
        const auto plain = [this](const char* signal, bool bMayWait) {
            return [this, signal, bMayWait] {
                told(signal);
                m_world.expect(bMayWait || m_bPlaying, "%s(), and nothing plays", signal);
                act();
            };
        };
        on(&Client::described, plain("described", true));
        on(&Client::paused, plain("paused", false));
        on(&Client::statistics, plain("statistics", false));
        on(&Client::playing, [this] {
            told("playing");
            m_world.expect(!std::exchange(m_bPlaying, true), "playing() comes twice");
            m_bMedia = false;
            m_nSignMs = m_world.nowMs();
            act();
        });
        on(&Client::transportChanged, [this] {
            told("transportChanged");
            m_bPlaying = false;
            m_left = m_pClient->sessionId();
            runNestedLoop();
        });
        on(&Client::packetReceived, to(this, &Viewer::takePacket));
        on(&Client::unitReceived, to(this, &Viewer::takeUnit));
        on(&Client::messageSent, [this](const QByteArray& text) {
            sim::trace("%s", text.left(text.indexOf("\r\n")).constData());
            m_world.expect(m_bRunning, "a request behind the end");
            m_nSentMs = m_world.nowMs();
            if (!text.startsWith("GET_PARAMETER"))
                m_nSignMs = m_world.nowMs();
            act();
        });
        on(&Client::messageReceived, [this] {
            m_world.expect(m_bRunning, "a message behind the end");
            if (m_pClient->transport() == RtspOptions::eTcp)
                m_nSignMs = m_world.nowMs();
            act();
        });
        on(&Client::stopped, [this] {
            m_world.expect(m_bRunning && m_bStopping, "stopped(), and nobody wanted it");
            over();
        });
        on(&Client::error, [this](int code) {
            const QString why = m_pClient->errorString();
            sim::trace("error(%d): %s", code, qUtf8Printable(why));
            m_world.expect(m_bRunning && !m_bStopping, "error(%d) behind the end", code);
            m_world.expect(code != 401 || !camera->bAccepts, "a right password is refused");
            m_world.expect(!m_bMedia || !why.contains(QLatin1String("no packet came")), "but packets came");
            over();
        });
    }
    void over()
    {
        ++m_nEnds;
        m_world.expect(m_pClient->state() == RtspClient::eIdle, "state %d at the end", m_pClient->state());
        m_bRunning = m_bPlaying = false;
        act();
    }
    void told(const char* signal)
    {
        sim::trace("%s()", signal);
        m_world.expect(m_bRunning && !m_bStopping, "%s() behind the end", signal);
        m_world.expect(m_pClient->state() != RtspClient::eIdle && m_pClient->state() != RtspClient::eEnding,
            "%s() in state %d", signal, m_pClient->state());
    }

    // --- packets and units ---

    int numberOf(quint32 timestamp) const
    {
        const quint32 ticks = timestamp - firstTimestamp(m_pSession->nId);
        m_world.expect(ticks % kTicks == 0, "a timestamp that nobody has sent");
        return static_cast<int>(ticks / kTicks);
    }
    void takePacket(int track, const RTPPacket& packet)
    {
        told("packetReceived");
        m_nSignMs = m_world.nowMs();
        m_bMedia = true;
        const Session* session = camera->find("s" + QByteArray::number(packet.getSSRC()));
        if (std::exchange(m_pSession, session) != session)
            m_tracks = {};
        const QString id = m_pClient->sessionId();
        m_world.expect(session != nullptr && session->name() == id.toLatin1() && id != m_left,
            "a packet of session %u in %s", packet.getSSRC(), qUtf8Printable(id));
        Told& t = m_tracks[static_cast<std::size_t>(track)];
        const int number = numberOf(packet.getRawTimestamp());
        const std::vector<QByteArray> payloads = payloadsOf(track, session->nId, number);
        const QByteArray bytes(
            reinterpret_cast<const char*>(packet.getPayload()), static_cast<int>(packet.getPayloadSize()));
        m_world.expect(std::find(payloads.begin(), payloads.end(), bytes) != payloads.end(),
            "track %d: a packet that is none of unit %d", track, number);
        const bool bFirst = t.came.empty();
        m_world.expect(!session->bTcp || (bFirst ? number == 0 : packet.getSeqNum() == t.nNext),
            "track %d: packet %d, and not %d", track, packet.getSeqNum(), t.nNext);
        t.nNext = static_cast<quint16>(packet.getSeqNum() + 1);
        t.came[number].insert(packet.getSeqNum());
        act();
    }
    void takeUnit(int track, const RtspUnit& unit)
    {
        told("unitReceived");
        Told& t = m_tracks[static_cast<std::size_t>(track)];
        const int number = numberOf(unit.nTimestamp);
        const auto bytes = [&unit] {
            return QByteArray(reinterpret_cast<const char*>(unit.pData), static_cast<int>(unit.nSize));
        };
        const QByteArray expected = (track == eVideo ? QByteArray("\0\0\0\1", 4) : QByteArray())
            + contentOf(track, m_pSession->nId, number);
        m_world.expect(bytes() == expected, "track %d: unit %d is another", track, number);
        const int last = t.units.empty() ? -1 : *t.units.rbegin();
        m_world.expect(m_pSession->bTcp ? number == last + 1 : number > last, "track %d: unit %d behind %d",
            track, number, last);
        t.units.insert(number);
        const std::uint64_t ends = m_nEnds;
        act();
        if (m_nEnds == ends)
            m_world.expect(bytes() == expected, "a unit that changes");
    }
    // What came is told: all of it over TCP, whole units over UDP.
    void checkAll() const
    {
        for (const RtspTrackStatistics& s : m_pClient->trackStatistics()) {
            const Told& told = m_tracks[static_cast<std::size_t>(s.track)];
            const Session::Track& sent = m_pSession->tracks[static_cast<std::size_t>(s.track)];
            m_world.expect(!m_pSession->bTcp || told.nNext == sent.nSequence,
                "track %d: packets to %d, not %d", s.track, told.nNext, sent.nSequence);
            for (const auto& [unit, packets] : told.came) {
                const bool bWhole = packets.size() == payloadsOf(s.track, m_pSession->nId, unit).size();
                const bool bWaits = s.track == eVideo && unit + 1 >= sent.nUnits; // for the next one
                const bool bMayLackItsBegin = s.track == eData && !m_pSession->bTcp; // behind a loss
                m_world.expect(
                    !bWhole || bWaits || bMayLackItsBegin || s.nLate > 0 || told.units.count(unit) != 0,
                    "track %d: unit %d came, and is not told", s.track, unit);
            }
        }
    }

    sim::World& m_world;
    const RtspOptions::Transport m_transport;
    std::unique_ptr<RtspClient> m_pClient;
    const Session* m_pSession = nullptr; // of the last packet
    QString m_left; // with its transport
    std::array<Told, kTracks> m_tracks;
    bool m_bRunning = false;
    bool m_bStopping = false;
    bool m_bPlaying = false;
    bool m_bMedia = false; // since playing()
    int m_nDepth = 0;
    std::uint64_t m_nEnds = 0;
    std::uint64_t m_nSentMs = 0;
    std::uint64_t m_nSignMs = 0; // of life
    std::uint64_t m_nStopMs = 0;
};
} // namespace

SCENARIO(rtsp)
{
    sim::Random& random = world.random();
    sim::Weather& weather = world.weather();
    weather.noMemory = 0; // a collected unit without memory ends the process
    std::deque<Viewer> viewers;
    for (int i = 0; i < static_cast<int>(random.between(1, 3)); ++i) {
        viewers.emplace_back(world, i).camera->nLateMs // nothing is asked while PLAY's answer is awaited
            = (weather.nMaxDelayUs > 3000 ? 15000 : 10500) + (weather.stall > 0 ? 20000 : 0)
            + (weather.squeeze > 0 ? 35000 : 0);
    }
    for (auto left = random.size(40); left > 0; --left) {
        random.pick(viewers).act();
        world.run(random.size(6000));
        for (const Viewer& viewer : viewers)
            viewer.watch();
    }
    weather = sim::Weather();
    for (Viewer& viewer : viewers) {
        viewer.bCalm = true;
        viewer.camera->trouble = 0;
    }
    world.run(6000); // what is under way arrives
    for (Viewer& viewer : viewers)
        viewer.finish();
    viewers.clear();
    world.run(1000);
}
