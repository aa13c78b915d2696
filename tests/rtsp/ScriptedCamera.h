// A server of a few lines that says what a row tells it to, and a client whose signals are written down.
#pragma once

#include "rtsp/RtspFields_p.h"
#include "support/EventLoop.h"
#include "support/LogCapture.h"
#include "support/RawPeer.h"

#include <KepNuvikaUtil/RtspClient.h>

#include <QtCore/QHash>
#include <QtCore/QStringList>
#include <QtCore/QtEndian>
#include <QtNetwork/QNetworkDatagram>
#include <QtNetwork/QUdpSocket>

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <vector>

inline QByteArray bigEndian(int value)
{
    return QByteArray(1, static_cast<char>(value >> 8)) + static_cast<char>(value);
}

inline QByteArray rtp(int type, int sequence, quint32 ssrc = 0x11223344, const QByteArray& payload = "sound")
{
    QByteArray bytes
        = QByteArray("\x80") + static_cast<char>(type) + bigEndian(sequence) + QByteArray(8, '\0');
    qToBigEndian<quint32>(static_cast<quint32>(sequence) * 160U, bytes.data() + 4);
    qToBigEndian<quint32>(ssrc, bytes.data() + 8);
    return bytes + payload;
}

inline QByteArray framed(int channel, const QByteArray& packet)
{
    return QByteArray("$") + static_cast<char>(channel) + bigEndian(packet.size()) + packet;
}

class RawUdp : public QUdpSocket
{
public:
    explicit RawUdp(const char* host = "127.0.0.1") { bind(QHostAddress(QLatin1String(host)), 0); }
    void sendTo(int port, const QByteArray& bytes, const char* host = "127.0.0.1")
    {
        writeDatagram(bytes, QHostAddress(QLatin1String(host)), static_cast<quint16>(port));
    }
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
    bool bIPv6 = false;

    Script on(const char* method, const QList<QByteArray>& all)
    {
        answers[method] = all;
        return *this;
    }
    Script sends(const QByteArray& bytes)
    {
        media = bytes;
        return *this;
    }
    Script describes(const QByteArray& text)
    {
        sdp = text;
        return *this;
    }
};
inline Script on(const char* method, const QList<QByteArray>& answers)
{
    return Script().on(method, answers);
}

inline QByteArray answer(QByteArray fields = {}, const char* status = "200 OK")
{
    fields += fields.isEmpty() ? "" : "\r\n";
    return QByteArray("RTSP/1.0 ") + status + "\r\nCSeq: {cseq}\r\n" + fields + "\r\n";
}
inline QByteArray refuses(const char* status) { return answer({}, status); }
inline QByteArray asksBasic() { return answer("WWW-Authenticate: Basic realm=\"x\"", "401 Unauthorized"); }
inline QByteArray asksDigest(const QByteArray& nonce)
{
    return answer("WWW-Authenticate: Digest realm=\"x\", nonce=\"" + nonce + '"', "401 Unauthorized");
}
inline QByteArray describes(QByteArray fields = {})
{
    fields += fields.isEmpty() ? "" : "\r\n";
    return answer(fields + "Content-Type: application/sdp\r\nContent-Length: {size}") + "{sdp}";
}
inline QByteArray setUp(const QByteArray& transport = "{transport}", const char* session = "42;timeout=60")
{
    return answer("Transport: " + transport + "\r\nSession: " + session);
}

class ScriptedCamera
{
public:
    explicit ScriptedCamera(const Script& script = Script())
        : listener(4096, script.bIPv6), rtpPort(script.bIPv6 ? "::1" : "127.0.0.1"), m_script(script)
    {
        m_usual["OPTIONS"]
            = answer("Public: OPTIONS, DESCRIBE, SETUP, PLAY, PAUSE, TEARDOWN, GET_PARAMETER, SET_PARAMETER");
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
    QByteArray url() const
    {
        const char* host = m_script.bIPv6 ? "rtsp://[::1]:" : "rtsp://127.0.0.1:";
        return host + QByteArray::number(listener.port()) + "/live";
    }
    RawSocket& connection() { return sockets.back(); }
    int count(const char* method) const { return all(method).size(); }
    QByteArray last(const char* method) const { return all(method).value(count(method) - 1); }
    QList<QByteArray> all(const char* method) const
    {
        QList<QByteArray> found;
        std::copy_if(requests.begin(), requests.end(), std::back_inserter(found),
            [method](const QByteArray& each) { return each.startsWith(QByteArray(method) + ' '); });
        return found;
    }

    RawListener listener;
    std::vector<RawSocket> sockets; // in the order of their connects
    QList<QByteArray> requests;
    RawUdp rtpPort;
    RawUdp rtcpPort;
    int clientPort = 0; // of RTP
    int reports = 0; // interleaved

private:
    void serve(std::size_t i)
    {
        m_rest.resize(sockets.size());
        QByteArray& rest = m_rest[i] += sockets[i].take();
        for (;;) {
            const bool bReport = rest.startsWith('$');
            const int size = bReport ? 4 + qFromBigEndian<quint16>((rest + "zzzz").constData() + 2)
                                     : rest.indexOf("\r\n\r\n") + 4;
            if (size <= 3 || rest.size() < size)
                return;
            const QByteArray request = rest.left(size);
            rest.remove(0, size);
            if (bReport)
                ++reports;
            else
                requests += request;
            if (!bReport && !request.startsWith("RTSP/"))
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
        QByteArray transport = field(request, "Transport");
        const int port = transport.indexOf("client_port=");
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
            {"{cseq}", field(request, "CSeq")}, {"{rtp}", QByteArray::number(rtpPort.localPort())},
            {"{rtcp}", QByteArray::number(rtcpPort.localPort())},
            {"{port}", QByteArray::number(listener.port())},
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
};

inline RtspOptions over(RtspOptions::Transport transport)
{
    RtspOptions options;
    options.transport = transport;
    options.timeouts.nUdpTrial = 100;
    return options;
}

// Writes down what the client tells.
class Viewer
{
public:
    explicit Viewer(const Script& script = Script(), const RtspOptions& options = tcp()) : camera(script)
    {
        client = std::make_unique<RtspClient>();
        client->setOptions(options);
        RtspClient* c = client.get();
        const auto note = [this](const QString& event) {
            events += event;
            if (onEvent)
                onEvent(event);
        };
        const auto on = [c](auto signal, auto handler) { QObject::connect(c, signal, c, handler); };
        on(&RtspClient::described, [note](const SdpDescription&, const QVector<RtspTrack>& tracks) {
            QString text = QStringLiteral("described %1").arg(tracks.size());
            for (const RtspTrack& track : tracks)
                text += QLatin1Char(' ') + QString::fromLatin1(track.parameters.codec);
            note(text);
        });
        on(&RtspClient::playing, [note] { note(QStringLiteral("playing")); });
        on(&RtspClient::paused, [note] { note(QStringLiteral("paused")); });
        on(&RtspClient::stopped, [note] { note(QStringLiteral("stopped")); });
        on(&RtspClient::error,
            [this, note](int code) { note(QStringLiteral("error %1: ").arg(code) + client->errorString()); });
        on(&RtspClient::packetReceived, [note](int track, const RTPPacket& packet, const RtpArrival&) {
            note(QStringLiteral("packet %1 %2").arg(track).arg(packet.getSeqNum()));
        });
        on(&RtspClient::unitReceived, [note](int track, const RtspUnit& unit) {
            note(QStringLiteral("unit %1 %2").arg(track).arg(unit.nTimestamp / 160));
        });
        on(&RtspClient::rtcpReceived, [note](int track, const RtcpCompound&, const RtpArrival&) {
            note(QStringLiteral("rtcp %1").arg(track));
        });
        on(&RtspClient::transportChanged, [note](RtspOptions::Transport transport, const QString&) {
            note(QStringLiteral("transport %1").arg(transport));
        });
    }
    static RtspOptions tcp() { return over(RtspOptions::eTcp); }
    void start(const QByteArray& url = QByteArray(), const char* user = "", const char* password = "")
    {
        client->start(QString::fromLatin1(url.isEmpty() ? camera.url() : url), QString::fromLatin1(user),
            QString::fromLatin1(password));
    }
    bool starts(const char* until, const char* user = "", const char* password = "")
    {
        start({}, user, password);
        return waitUntil(until);
    }
    bool waitUntil(const char* event)
    {
        return waitUntil([&] { return has(event); });
    }
    bool waitUntil(const std::function<bool()>& condition)
    {
        return waitFor([&] {
            camera.serve();
            return condition();
        });
    }
    // Whether one begins with it; an error's sentence may hold it anywhere.
    bool has(const char* part) const
    {
        return std::any_of(events.begin(), events.end(), [part](const QString& each) {
            const int at = each.indexOf(QLatin1String(part));
            return at == 0 || (at > 0 && each.startsWith(QLatin1String("error")));
        });
    }
    std::string log() const { return events.join(QStringLiteral(", ")).toStdString(); }

    ScriptedCamera camera;
    std::unique_ptr<RtspClient> client;
    QStringList events;
    std::function<void(const QString&)> onEvent;
    LogCapture records;
};
