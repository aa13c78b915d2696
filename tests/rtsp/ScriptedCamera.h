// A server of a few lines that says what a row tells it to, and a client whose signals are written down.
#pragma once

#include "rtsp/RtspFields_p.h"
#include "support/EventLoop.h"
#include "support/LogCapture.h"
#include "support/RawPeer.h"

#include <KepNuvikaUtil/RtspClient.h>

#include <QtCore/QHash>
#include <QtCore/QStringList>

#include <gtest/gtest.h>

#include <algorithm>
#include <arpa/inet.h>
#include <functional>
#include <vector>

inline QByteArray rtp(int type, int sequence, quint32 ssrc = 0x11223344, const QByteArray& payload = "sound")
{
    QByteArray bytes(12, '\0');
    bytes[0] = '\x80';
    bytes[1] = static_cast<char>(type);
    bytes[2] = static_cast<char>(sequence >> 8);
    bytes[3] = static_cast<char>(sequence);
    qToBigEndian<quint32>(static_cast<quint32>(sequence) * 160U, bytes.data() + 4);
    qToBigEndian<quint32>(ssrc, bytes.data() + 8);
    return bytes + payload;
}

inline QByteArray framed(int channel, const QByteArray& packet)
{
    QByteArray bytes("$");
    bytes += static_cast<char>(channel);
    bytes += static_cast<char>(packet.size() >> 8);
    bytes += static_cast<char>(packet.size());
    return bytes + packet;
}

// Of one datagram port on loopback.
class RawUdp
{
public:
    RawUdp() : m_socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0))
    {
        sockaddr_in address = loopback(0);
        ::bind(m_socket.fd(), reinterpret_cast<sockaddr*>(&address), sizeof address);
        socklen_t size = sizeof address;
        ::getsockname(m_socket.fd(), reinterpret_cast<sockaddr*>(&address), &size);
        m_nPort = ntohs(address.sin_port);
    }
    unsigned short port() const { return m_nPort; }
    void sendTo(int port, const QByteArray& bytes, const char* host = "127.0.0.1") const
    {
        sockaddr_in address = loopback(port);
        inet_pton(AF_INET, host, &address.sin_addr);
        ::sendto(m_socket.fd(), bytes.constData(), static_cast<std::size_t>(bytes.size()), 0,
            reinterpret_cast<sockaddr*>(&address), sizeof address);
    }
    QByteArray take() const
    {
        char buffer[2048];
        const ssize_t n = ::recv(m_socket.fd(), buffer, sizeof buffer, 0);
        return n < 0 ? QByteArray() : QByteArray(buffer, static_cast<int>(n));
    }

private:
    static sockaddr_in loopback(int port)
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(static_cast<unsigned short>(port));
        return address;
    }
    RawSocket m_socket;
    unsigned short m_nPort = 0;
};

const QByteArray kAudioTrack = "m=audio 0 RTP/AVP 0\r\na=control:track1\r\n";
const QByteArray kSdp = "v=0\r\no=- 1 1 IN IP4 0.0.0.0\r\ns=-\r\nt=0 0\r\n" + kAudioTrack;

// What a row says: answers by method, in their order, the last one for all that follow. In them {cseq},
// {transport} (as asked for), {rtp}, {rtcp} (the ports), {port} (the server's own) and {sdp} with its length
// are put in; an answer that is empty is none.
struct Script {
    QHash<QByteArray, QList<QByteArray>> answers;
    QByteArray sdp = kSdp;
    QByteArray media = framed(0, rtp(0, 1)) + framed(0, rtp(0, 2)); // behind the answer to PLAY
    bool bCloseAfterPlay = false;
};

inline QByteArray answer(const char* fields = "", const char* status = "200 OK")
{
    return QByteArray("RTSP/1.0 ") + status + "\r\nCSeq: {cseq}\r\n" + fields + "\r\n";
}
inline QByteArray describes(const char* fields = "")
{
    return answer((QByteArray(fields) + "Content-Type: application/sdp\r\nContent-Length: {size}\r\n")
                      .constData())
        + "{sdp}";
}
inline QByteArray setUp(const char* transport = "{transport}", const char* session = "42;timeout=60")
{
    return answer((QByteArray("Transport: ") + transport + "\r\nSession: " + session + "\r\n").constData());
}

class ScriptedCamera
{
public:
    explicit ScriptedCamera(const Script& script = Script()) : m_script(script)
    {
        m_usual["OPTIONS"] = answer(
            "Public: OPTIONS, DESCRIBE, SETUP, PLAY, PAUSE, TEARDOWN, GET_PARAMETER, SET_PARAMETER\r\n");
        m_usual["DESCRIBE"] = describes();
        m_usual["SETUP"] = setUp();
    }

    // Serves what has come. Called again and again.
    void serve()
    {
        RawSocket next = listener.accept();
        if (next.isOpen())
            sockets.push_back(std::move(next));
        for (std::size_t i = 0; i < sockets.size(); ++i)
            serve(i);
    }
    QByteArray url(const char* path = "/live") const
    {
        return "rtsp://127.0.0.1:" + QByteArray::number(listener.port()) + path;
    }
    RawSocket& connection() { return sockets.back(); }
    int count(const char* method) const
    {
        return static_cast<int>(std::count_if(requests.begin(), requests.end(),
            [method](const QByteArray& each) { return each.startsWith(QByteArray(method) + ' '); }));
    }
    QByteArray last(const char* method) const
    {
        for (auto each = requests.rbegin(); each != requests.rend(); ++each) {
            if (each->startsWith(QByteArray(method) + ' '))
                return *each;
        }
        return QByteArray();
    }
    QByteArray all() const
    {
        QByteArray text;
        for (const QByteArray& each : requests)
            text += each;
        return text;
    }

    RawListener listener;
    std::vector<RawSocket> sockets; // in the order of their connects
    std::vector<QByteArray> requests;
    std::vector<std::size_t> requestSockets;
    RawUdp rtpPort;
    RawUdp rtcpPort;
    int clientPort = 0; // of RTP

private:
    void serve(std::size_t i)
    {
        QByteArray bytes = sockets[i].take();
        m_rest.resize(sockets.size());
        m_rest[i] += bytes;
        while (!m_rest[i].isEmpty()) {
            if (m_rest[i].startsWith('$')) { // reports
                if (m_rest[i].size() < 4
                    || m_rest[i].size() < 4 + qFromBigEndian<quint16>(m_rest[i].constData() + 2))
                    return;
                m_rest[i].remove(0, 4 + qFromBigEndian<quint16>(m_rest[i].constData() + 2));
                ++reports;
                continue;
            }
            const int end = m_rest[i].indexOf("\r\n\r\n");
            if (end < 0)
                return;
            const QByteArray request = m_rest[i].left(end + 4);
            m_rest[i].remove(0, end + 4);
            requests.push_back(request);
            requestSockets.push_back(i);
            answerTo(request, i);
        }
    }
    static QByteArray field(const QByteArray& request, const char* name)
    {
        const int at = request.indexOf(QByteArray("\r\n") + name + ": ");
        const int from = at + 4 + static_cast<int>(qstrlen(name));
        return at < 0 ? QByteArray() : request.mid(from, request.indexOf("\r\n", from) - from);
    }
    void answerTo(const QByteArray& request, std::size_t i)
    {
        const QByteArray method = request.left(request.indexOf(' '));
        if (method.startsWith("RTSP/"))
            return;
        QByteArray transport = field(request, "Transport");
        const int port = transport.indexOf("client_port=");
        if (method == "SETUP")
            clientPort = 0;
        if (method == "SETUP")
            clientPort = 0;
        if (port >= 0) {
            clientPort = transport.mid(port + 12).split('-').first().toInt();
            transport += ";server_port={rtp}-{rtcp}";
        }
        QList<QByteArray>& told = m_script.answers[method];
        QByteArray text = m_usual.value(method, answer());
        if (!told.isEmpty())
            text = told.size() > 1 ? told.takeFirst() : told.first();
        const QPair<const char*, QByteArray> places[] = {{"{transport}", transport},
            {"{cseq}", field(request, "CSeq")}, {"{rtp}", QByteArray::number(rtpPort.port())},
            {"{rtcp}", QByteArray::number(rtcpPort.port())}, {"{port}", QByteArray::number(listener.port())},
            {"{size}", QByteArray::number(m_script.sdp.size())}, {"{sdp}", m_script.sdp}};
        for (const auto& place : places)
            text.replace(place.first, place.second);
        const bool bPlays = method == "PLAY" && text.contains(" 200") && clientPort == 0;
        sockets[i].write(text + (bPlays ? m_script.media : QByteArray()));
        if (method == "PLAY" && m_script.bCloseAfterPlay)
            sockets[i].close();
    }

    Script m_script;
    QHash<QByteArray, QByteArray> m_usual;
    std::vector<QByteArray> m_rest;

public:
    int reports = 0; // interleaved
};

// Writes down what the client tells.
class Viewer
{
public:
    explicit Viewer(ScriptedCamera& camera, const RtspOptions& options = tcp()) : m_camera(camera)
    {
        client = std::make_unique<RtspClient>();
        client->setOptions(options);
        RtspClient* c = client.get();
        const auto note = [this](const QString& event) {
            events += event;
            if (onEvent)
                onEvent(event);
        };
        QObject::connect(
            c, &RtspClient::described, c, [note](const SdpDescription&, const QVector<RtspTrack>& tracks) {
                note(QStringLiteral("described %1").arg(tracks.size()));
            });
        QObject::connect(c, &RtspClient::playing, c, [note] { note(QStringLiteral("playing")); });
        QObject::connect(c, &RtspClient::paused, c, [note] { note(QStringLiteral("paused")); });
        QObject::connect(c, &RtspClient::stopped, c, [note] { note(QStringLiteral("stopped")); });
        QObject::connect(c, &RtspClient::error, c, [this, note](int code) {
            errorText = client->errorString();
            note(QStringLiteral("error %1").arg(code));
        });
        QObject::connect(
            c, &RtspClient::packetReceived, c, [note](int track, const RTPPacket& packet, const RtpArrival&) {
                note(QStringLiteral("packet %1 %2").arg(track).arg(packet.getSeqNum()));
            });
        QObject::connect(c, &RtspClient::unitReceived, c, [note](int track, const RtspUnit& unit) {
            note(QStringLiteral("unit %1 %2").arg(track).arg(unit.nTimestamp / 160));
        });
        QObject::connect(
            c, &RtspClient::rtcpReceived, c, [note](int track, const RtcpCompound&, const RtpArrival&) {
                note(QStringLiteral("rtcp %1").arg(track));
            });
        QObject::connect(
            c, &RtspClient::transportChanged, c, [note](RtspOptions::Transport transport, const QString&) {
                note(QStringLiteral("transport %1").arg(transport));
            });
        QObject::connect(c, &RtspClient::trackRefused, c,
            [note](int track, const QString&) { note(QStringLiteral("refused %1").arg(track)); });
    }
    static RtspOptions tcp()
    {
        RtspOptions options;
        options.transport = RtspOptions::eTcp;
        return options;
    }
    void start(const QByteArray& url = QByteArray(), const char* user = "", const char* password = "")
    {
        client->start(QString::fromLatin1(url.isEmpty() ? m_camera.url() : url), QString::fromLatin1(user),
            QString::fromLatin1(password));
    }
    bool waitUntil(const char* event)
    {
        return waitFor([&] {
            m_camera.serve();
            return has(event);
        });
    }
    bool waitUntil(const std::function<bool()>& condition)
    {
        return waitFor([&] {
            m_camera.serve();
            return condition();
        });
    }
    bool has(const char* event) const
    {
        const QString wanted = QString::fromLatin1(event);
        return std::any_of(
            events.begin(), events.end(), [&](const QString& each) { return each.startsWith(wanted); });
    }
    std::string log() const
    {
        return events.join(QStringLiteral(", ")).toStdString() + " " + errorText.toStdString();
    }

    std::unique_ptr<RtspClient> client;
    QStringList events;
    QString errorText;
    std::function<void(const QString&)> onEvent;

private:
    ScriptedCamera& m_camera;
    LogCapture m_quiet;
};
