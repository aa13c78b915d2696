// Cameras that send pictures without an end, in a peer's own bytes: they stall, reset, end, go away and come
// back. And a recorder's view of one: a client that asks again, with growing pauses, whatever happens.
#pragma once

#include "sim/World.h"
#include "support/Slot.h"

#include <KepNuvikaUtil/HttpsClient.h>

#include <QtCore/QTimer>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace cameras
{
constexpr std::uint16_t kPort = 80;

// A picture's number and camera, and bytes that follow from them.
inline QByteArray picture(int camera, int number, int most)
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

} // namespace cameras
