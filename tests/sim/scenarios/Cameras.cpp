// Cameras that send pictures without an end, in a peer's own bytes: they stall, reset, end, go away and come
// back. And recorders, a client for each that asks again, with growing pauses, whatever happens: every
// picture is whole, none comes twice, nobody is forgotten, and in fine weather none is missing.
#include "sim/World.h"
#include "support/Slot.h"

#include <KepNuvikaUtil/HttpsClient.h>

#include <QtCore/QTimer>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <malloc.h>

namespace
{
constexpr std::uint64_t kHourMs = 3600000;
constexpr std::size_t kMostHeld = 64 << 10; // bytes for each camera
constexpr int kSilenceMs = 10000;
constexpr std::uint16_t kPort = 80;

// A picture's number and camera, and bytes that follow from them.
QByteArray picture(int camera, int number, int most)
{
    static const QByteArray table = [] {
        sim::Random random(1);
        QByteArray all(1 << 17, '\0');
        for (char& c : all)
            c = static_cast<char>(random.next());
        return all;
    }();
    sim::Random random(static_cast<std::uint64_t>(camera) << 32 | static_cast<unsigned>(number));
    const auto size = static_cast<int>(random.below(static_cast<std::uint64_t>(most)));
    QByteArray bytes(8, '\0');
    std::memcpy(bytes.data(), &camera, 4);
    std::memcpy(bytes.data() + 4, &number, 4);
    bytes += table.mid(static_cast<int>(random.below(60000)), size);
    return bytes;
}

class Camera
{
public:
    Camera(sim::World& world, int number, int periodMs, int most)
        : nSentPictures(0), m_world(world), m_nNumber(number), m_nPeriodMs(periodMs), m_nMost(most),
          m_random(world.random().next())
    {
        world.listen(address(), kPort, [this, alive = std::weak_ptr<bool>(m_pAlive)](sim::Peer& peer) {
            if (!alive.expired())
                serve(peer);
        });
    }
    std::string address() const
    {
        return "10.0." + std::to_string(1 + m_nNumber / 200) + "." + std::to_string(1 + m_nNumber % 200);
    }
    int number() const { return m_nNumber; }
    int most() const { return m_nMost; }
    // Of each picture sent, how often something goes wrong.
    double trouble = 0;
    void calmDown()
    {
        trouble = 0;
        m_nAway = 0;
    }
    int nSentPictures;

private:
    void serve(sim::Peer& peer)
    {
        if (m_world.nowMs() < m_nAway) {
            m_world.after(1, [&peer] { peer.reset(); });
            return;
        }
        const auto asked = std::make_shared<QByteArray>();
        peer.onEnd = [&peer] { peer.close(); };
        peer.onBytes = [this, asked, &peer](const QByteArray& bytes) {
            asked->append(bytes);
            if (!asked->endsWith("\r\n\r\n"))
                return;
            m_world.expect(asked->startsWith("GET /video HTTP/1.1\r\n") && asked->count("\r\n\r\n") == 1,
                "a camera is asked for %s", asked->constData());
            asked->clear();
            peer.write("HTTP/1.1 200 OK\r\nContent-Type: multipart/x-mixed-replace; boundary=--cam\r\n\r\n");
            m_pViewer = &peer;
            send(peer);
        };
    }
    void send(sim::Peer& peer)
    {
        if (peer.isOver() || m_pViewer != &peer)
            return;
        const bool bTrouble = m_random.chance(trouble);
        const auto kind = bTrouble ? m_random.below(6) : 6;
        if (kind == 0 || m_world.nowMs() < m_nAway)
            return peer.reset();
        if (kind == 1)
            return; // says nothing more
        if (kind == 2) // and is gone for a while
            m_nAway = m_world.nowMs() + m_random.size(100000);
        if (peer.unsent() == 0 || m_random.chance(0.1)) { // else the network is behind
            const QByteArray bytes = picture(m_nNumber, ++nSentPictures, m_nMost);
            QByteArray part = "--cam\r\nContent-type: image/jpeg\r\nContent-length: "
                + QByteArray::number(bytes.size()) + "\r\n\r\n" + bytes + "\r\n";
            if (kind == 3) // ends inside
                part.truncate(static_cast<int>(m_random.below(static_cast<std::uint64_t>(part.size()))));
            peer.write(part);
        }
        if (kind == 3)
            return peer.end();
        if (kind == 4)
            return peer.close();
        const std::uint64_t ms
            = static_cast<std::uint64_t>(m_nPeriodMs) + (kind == 5 ? m_random.size(60000) : 0);
        m_world.after(ms, [this, &peer, alive = std::weak_ptr<bool>(m_pAlive)] {
            if (!alive.expired())
                send(peer);
        });
    }

    sim::World& m_world;
    int m_nNumber;
    int m_nPeriodMs;
    int m_nMost;
    sim::Random m_random;
    sim::Time m_nAway = 0; // until then nobody gets an answer
    const sim::Peer* m_pViewer = nullptr; // who asked last: there is one
    std::shared_ptr<bool> m_pAlive = std::make_shared<bool>(true);
};

// As a recorder has one for each camera.
class Watcher
{
public:
    static constexpr int kFirstPauseMs = 1000;
    static constexpr int kLongestPauseMs = 30000;

    Watcher(sim::World& world, const Camera& camera, int silenceMs)
        : m_world(world), m_camera(camera),
          m_pClient(std::make_unique<HttpsClient>(QString::fromStdString(camera.address()), kPort, true))
    {
        m_retry.setSingleShot(true);
        m_silence.setSingleShot(true);
        m_silence.setInterval(silenceMs);
        QObject::connect(&m_retry, &QTimer::timeout, [this] { ask(); });
        QObject::connect(&m_silence, &QTimer::timeout, [this] { silent(); });
        QObject::connect(m_pClient.get(), &HttpsClient::multipartReplaceContent, to(this, &Watcher::take));
        QObject::connect(m_pClient.get(), &HttpsClient::requestFinished,
            [this] { m_world.expect(false, "a stream of pictures finishes"); });
        QObject::connect(m_pClient.get(), &HttpsClient::requestFailed, [this](int id) {
            m_world.expect(m_nId == id, "request %d fails, and %d is there", id, m_nId);
            interrupted();
        });
    }

    void ask()
    {
        m_world.expect(m_nId == 0 && m_pClient->numOfPendingRequests() == 0, "a camera is asked twice");
        HttpRequestHeader header(QStringLiteral("GET"), QStringLiteral("/video"));
        header.addValue(QStringLiteral("Host"), QStringLiteral("camera"));
        m_silence.start();
        m_nId = m_pClient->request(header, false, nullptr, QString(), QString(), 1);
    }
    int pictures() const { return m_nPictures; }
    int interruptions() const { return m_nInterruptions; }
    std::uint64_t lastMs() const { return m_nLastMs; }
    // Something random at each picture.
    std::function<void()> onPicture;

private:
    using Marker = NuvikaTcpSocket::QueuedConnNotAllowed;
    void take(int id, const HttpResponseHeader&, const char* type, const char* data, int size, Marker)
    {
        int camera = -1;
        int number = -1;
        m_world.expect(m_nId == id, "a picture of request %d, and %d is there", id, m_nId);
        m_world.expect(std::strcmp(type, "image/jpeg") == 0 && size >= 8, "a part of type %s", type);
        std::memcpy(&camera, data, 4);
        std::memcpy(&number, data + 4, 4);
        m_world.expect(
            camera == m_camera.number(), "a picture of camera %d, not %d", camera, m_camera.number());
        m_world.expect(
            number > m_nLast && number <= m_camera.nSentPictures, "picture %d behind %d", number, m_nLast);
        m_world.expect(QByteArray::fromRawData(data, size) == picture(camera, number, m_camera.most()),
            "camera %d: picture %d is damaged (%d bytes)", camera, number, size);
        m_nLast = number;
        m_nLastMs = m_world.nowMs();
        m_nPauseMs = 0;
        ++m_nPictures;
        m_silence.start();
        if (onPicture)
            onPicture();
    }
    void interrupted()
    {
        ++m_nInterruptions;
        m_nId = 0;
        m_silence.stop();
        m_nPauseMs = std::min(std::max(m_nPauseMs * 2, kFirstPauseMs), kLongestPauseMs);
        m_retry.start(m_nPauseMs);
    }
    void silent()
    {
        m_pClient->shutdown();
        m_world.expect(m_pClient->numOfPendingRequests() == 0, "a request survives shutdown()");
        interrupted();
    }

    sim::World& m_world;
    const Camera& m_camera;
    std::unique_ptr<HttpsClient> m_pClient;
    QTimer m_retry;
    QTimer m_silence;
    int m_nId = 0; // of the request, 0 for none
    int m_nPauseMs = 0;
    int m_nLast = 0; // picture
    int m_nPictures = 0;
    int m_nInterruptions = 0;
    std::uint64_t m_nLastMs = 0;
};

struct Plant {
    explicit Plant(sim::World& w) : world(w) { }
    Watcher& add(int periodMs, int most, int silenceMs)
    {
        cameras.push_back(std::make_unique<Camera>(world, static_cast<int>(cameras.size()), periodMs, most));
        watchers.push_back(std::make_unique<Watcher>(world, *cameras.back(), silenceMs));
        watchers.back()->ask();
        return *watchers.back();
    }
    void trouble(double often)
    {
        for (const auto& camera : cameras)
            camera->trouble = often;
    }
    int pictures() const
    {
        int sum = 0;
        for (const auto& watcher : watchers)
            sum += watcher->pictures();
        return sum;
    }
    bool goOn(std::uint64_t sinceMs) const
    {
        return std::all_of(
            watchers.begin(), watchers.end(), [sinceMs](const auto& w) { return w->lastMs() > sinceMs; });
    }

    sim::World& world;
    std::vector<std::unique_ptr<Camera>> cameras;
    std::vector<std::unique_ptr<Watcher>> watchers;
};

// Some of the hours are bad. Behind a good one everybody is there, and little is missing.
void watch(sim::World& world, int cameras, int periodMs, int steps, std::uint64_t stepMs)
{
    const sim::Weather weather = world.weather();
    world.weather() = sim::Weather();
    Plant plant(world);
    for (int i = 0; i < cameras; ++i)
        plant.add(periodMs, 3000, 3 * periodMs);
    for (int step = 0; step < steps; ++step) {
        const bool bBad = world.random().chance(0.3);
        plant.trouble(bBad ? 0.05 : 0);
        world.weather() = bBad ? weather : sim::Weather();
        world.run(stepMs);
        world.weather() = sim::Weather();
        plant.trouble(0);
        world.run(stepMs / 4); // who was cut off comes back
        const std::uint64_t begin = world.nowMs();
        const int pictures = plant.pictures();
        world.run(stepMs / 2);
        const auto expected = static_cast<int>(stepMs / 2 / static_cast<std::uint64_t>(periodMs)) * cameras;
        world.expect(plant.pictures() - pictures >= expected - 2 * cameras, "step %d: %d pictures, not %d",
            step, plant.pictures() - pictures, expected);
        world.expect(plant.goOn(begin), "step %d: a camera is forgotten", step);
        world.expect(sim::Kernel::get().openDescriptors() <= static_cast<std::size_t>(cameras) + 10,
            "%zu descriptors are open", sim::Kernel::get().openDescriptors());
    }
    // What the network keeps of closed connections is the simulation's.
    const std::size_t before = mallinfo2().uordblks;
    plant.watchers.clear();
    world.run(1000);
    const std::size_t held = before - mallinfo2().uordblks;
    world.expect(
        held < kMostHeld * static_cast<std::size_t>(cameras), "%d cameras hold %zu bytes", cameras, held);
}
} // namespace

SCENARIO(cameras)
{
    world.weather().noMemory = 0; // a collected body without memory ends the process
    sim::Random& random = world.random();
    Plant plant(world);
    int depth = 0;
    bool bCounting = false; // a handler with an event loop of its own would hold pictures up
    for (auto left = random.size(12); left > 0; --left) {
        plant.add(static_cast<int>(random.between(50, 3000)), 60000, kSilenceMs).onPicture = [&] {
            if (bCounting)
                return;
            if (random.chance(0.02))
                world.work(random.size(100000));
            if (random.chance(0.02) && depth < 3) {
                ++depth;
                world.run(random.size(2000));
                --depth;
            }
        };
        plant.cameras.back()->trouble = random.chance(0.3) ? 0 : 0.05;
    }
    world.run(random.size(200000));
    world.weather() = sim::Weather();
    for (const auto& camera : plant.cameras)
        camera->calmDown();
    const std::uint64_t begin = world.nowMs();
    // The longest pause, a silence, three attempts, and a picture: then each has gone on.
    world.expect(world.runUntil([&] { return plant.goOn(begin); },
                     Watcher::kLongestPauseMs + 3 * kSilenceMs + 60000 + 100000),
        "a camera that is there is not asked any more");

    // And then without a gap, where nothing went wrong.
    bCounting = true;
    world.run(static_cast<std::uint64_t>(kSilenceMs) * 2); // who was silent is noticed
    std::vector<int> missing;
    std::vector<int> interruptions;
    for (std::size_t i = 0; i < plant.cameras.size(); ++i) {
        missing.push_back(plant.cameras[i]->nSentPictures - plant.watchers[i]->pictures());
        interruptions.push_back(plant.watchers[i]->interruptions());
    }
    world.run(10000);
    for (std::size_t i = 0; i < plant.cameras.size(); ++i) {
        const int more = plant.cameras[i]->nSentPictures - plant.watchers[i]->pictures() - missing[i];
        world.expect(plant.watchers[i]->interruptions() == interruptions[i], "camera %zu is interrupted", i);
        world.expect(more <= 3, "camera %zu: %d pictures are missing", i, more);
    }
}

LONG_SCENARIO(day) { watch(world, 50, 60000, 14, kHourMs); }

// Through the wrap of the milliseconds, whatever the clock says at the beginning.
LONG_SCENARIO(weeks) { watch(world, 5, 3600000, 30, 24 * kHourMs); }
