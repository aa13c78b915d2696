#include "simulation/RtspServer.h"
#include "simulation/Picture.h"
#include "support/EventLoop.h"
#include "support/LogCapture.h"
#include "support/RawPeer.h"

#include <KepNuvikaUtil/RtspClient.h>

#include <gtest/gtest.h>

namespace
{
// With the credentials; {url} is the camera's.
QByteArray request(const char* method, const QByteArray& fields = "", const char* place = "{url}")
{
    return QByteArray(method) + ' ' + place + " RTSP/1.0\r\nCSeq: 1\r\n" + fields + "{login}\r\n";
}
QByteArray setUp(const char* transport = "RTP/AVP/TCP;interleaved=0-1", const char* place = "{url}/track1")
{
    return request("SETUP", QByteArray("Transport: ") + transport + "\r\n", place);
}
const QByteArray kOptions = "OPTIONS * RTSP/1.0\r\nCSeq: 7\r\n\r\n";

QByteArray md5(const QByteArray& text)
{
    return QCryptographicHash::hash(text, QCryptographicHash::Md5).toHex();
}

struct Camera {
    Camera() : server(DigestGuard("camera", "user", "secret"))
    {
        server.listen(QHostAddress(QHostAddress::LocalHost), 0);
        server.addStream(0);
        url = "rtsp://127.0.0.1:" + QByteArray::number(server.port()) + "/camera1";
        nonce = "asked for";
        const QByteArray refused = ask(request("DESCRIBE"));
        nonce = refused.mid(refused.indexOf("nonce=\"") + 7).split('"').first();
    }
    QByteArray filled(QByteArray text) const
    {
        text.replace("{url}", url);
        const QByteArray uri = text.split(' ').value(1);
        const QByteArray response
            = md5(md5("user:camera:secret") + ':' + nonce + ':' + md5(text.split(' ').first() + ':' + uri));
        return text.replace("{login}",
            "Authorization: Digest username=\"user\", realm=\"camera\", nonce=\"" + nonce + "\", uri=\"" + uri
                + "\", response=\"" + response + "\"\r\n");
    }
    QByteArray ask(const QByteArray& text) const
    {
        RawSocket socket = RawSocket::connectTo(server.port());
        return ask(socket, text);
    }
    // The first answer, or what came before the end.
    QByteArray ask(RawSocket& socket, const QByteArray& text, bool bByteByByte = false) const
    {
        const QByteArray bytes = filled(text);
        for (int i = 0; bByteByByte && i + 1 < bytes.size(); ++i) {
            socket.write(bytes.mid(i, 1));
            QCoreApplication::processEvents();
        }
        socket.write(bByteByByte ? bytes.right(1) : bytes);
        QByteArray got;
        waitFor([&] {
            got += socket.take();
            return got.contains("\r\n\r\n") || socket.atEnd();
        });
        return got;
    }

    LogCapture quiet;
    RtspServer server;
    QByteArray url;
    QByteArray nonce;
};
} // namespace

TEST(RtspServer, AnswersWhateverIsAsked)
{
    const struct {
        const char* name;
        QByteArray bytes;
        const char* answer;
        bool bEnds = false;
    } rows[] = {
        {"what anybody may ask", kOptions, "200 OK\r\nCSeq: 7\r\n"},
        {"no credentials", "DESCRIBE {url} RTSP/1.0\r\nCSeq: 1\r\n\r\n", "401"},
        {"credentials", request("DESCRIBE"), "200"},
        {"no such camera", request("DESCRIBE", "", "{url}/x"), "404"},
        {"credentials of nonsense", request("PLAY", "Authorization: Digest =,\"\r\n"), "401"},
        {"another version", request("DESCRIBE").replace("/1.0", "/2.0"), "505"},
        {"no CSeq", request("DESCRIBE").replace("CSeq", "X"), "400"},
        {"an option", request("SETUP", "Require: x\r\n"), "551"},
        {"another method", request("RECORD"), "501"},
        {"SETUP of the whole", setUp("RTP/AVP/TCP", "{url}"), "459"},
        {"multicast", setUp("RTP/AVP;multicast;client_port=4-5"), "461"},
        {"recording", setUp("RTP/AVP/TCP;mode=record"), "461"},
        {"a channel beyond all", setUp("RTP/AVP/TCP;interleaved=255-256"), "461"},
        {"port 0", setUp("RTP/AVP;unicast;client_port=0-1"), "461"},
        {"the second choice", setUp("RAW/RAW/UDP,RTP/AVP/TCP"), "200"},
        {"no session", request("PLAY"), "454"},
        {"a session of nobody", request("TEARDOWN", "Session: 1\r\n"), "454"},
        {"a parameter", request("GET_PARAMETER", "Content-Length: 3\r\n") + "abc", "451"},
        {"a report in front", QByteArray("$\1\0\5abcde\r\n\r\n", 13) + kOptions, "200"},
        {"another protocol", "GET / HTTP/1.1\r\n\r\n", "400", true},
        {"no words", "\1\2\3\r\n\r\n", "400", true},
        {"a long head", "OPTIONS * RTSP/1.0\r\nCSeq: " + QByteArray(9000, '1'), "400", true},
        {"a long body", request("OPTIONS", "Content-Length: 5000\r\n"), "400", true},
    };
    const Camera camera;
    for (const auto& row : rows) {
        for (const bool bByteByByte : {false, true}) {
            RawSocket socket = RawSocket::connectTo(camera.server.port());
            const QByteArray got = camera.ask(socket, row.bytes, bByteByByte);
            EXPECT_TRUE(got.startsWith(QByteArray("RTSP/1.0 ") + row.answer))
                << row.name << ": " << got.constData();
            if (row.bEnds)
                EXPECT_TRUE(waitFor([&] { return socket.atEnd(); })) << row.name;
            else
                EXPECT_TRUE(camera.ask(socket, kOptions).contains("CSeq: 7")) << row.name;
        }
    }
}

TEST(RtspServer, PlaysPicturesToTwoViewersAtOnce)
{
    Camera camera;
    QTimer pictures;
    int frame = 0;
    QObject::connect(
        &pictures, &QTimer::timeout, [&] { camera.server.sendPicture(0, Picture::frame(0, ++frame)); });
    pictures.start(5);
    std::array<RtspClient, 2> clients;
    std::array<int, 2> units{};
    std::array<int, 2> reports{};
    for (std::size_t i = 0; i < 2; ++i) {
        RtspOptions options;
        options.transport = i == 0 ? RtspOptions::eTcp : RtspOptions::eUdp;
        clients[i].setOptions(options);
        QObject::connect(&clients[i], &RtspClient::unitReceived, [&, i](int, const RtspUnit& unit) {
            const QSize size = clients[i].parameters(0).shownSize;
            units[i] += unit.nSize > 1000 && size == QSize(Picture::kWidth, Picture::kHeight) ? 1 : 0;
        });
        QObject::connect(&clients[i], &RtspClient::rtcpReceived, [&, i] { ++reports[i]; });
        clients[i].start(QString::fromLatin1(camera.url), QStringLiteral("user"), QStringLiteral("secret"));
    }
    EXPECT_TRUE(waitFor([&] { return units[0] > 20 && units[1] > 20 && reports[0] > 0 && reports[1] > 0; }))
        << units[0] << ' ' << units[1] << qPrintable(clients[0].errorString() + clients[1].errorString());
    for (const auto& client : clients)
        EXPECT_EQ(client.trackStatistics().value(0).nLost, 0U);
    EXPECT_EQ(camera.server.sessions(), 2U);
    for (auto& client : clients)
        client.stop();
    EXPECT_TRUE(waitFor([&] { return camera.server.sessions() == 0; })) << "both said TEARDOWN";
}

TEST(RtspServer, AViewerThatDoesNotReadLosesWholePicturesOnly)
{
    Camera camera;
    RawSocket socket = RawSocket::connectTo(camera.server.port());
    const QByteArray answer = camera.ask(socket, setUp());
    const QByteArray session = answer.mid(answer.indexOf("Session: ")).split(';').first() + "\r\n";
    EXPECT_TRUE(camera.ask(socket, request("SETUP", session, "{url}/track1")).startsWith("RTSP/1.0 455"));
    camera.ask(socket, request("PLAY", session));
    const QByteArray picture = Picture::frame(0, 1);
    const int count = (8 << 20) / picture.size();
    for (int i = 0; i < count; ++i) {
        camera.server.sendPicture(0, picture);
        QCoreApplication::processEvents();
    }
    QByteArray got;
    socket.write(kOptions); // it reads at last, and is answered behind what waited
    ASSERT_TRUE(waitFor([&] {
        got += socket.take();
        return got.contains("CSeq: 7");
    }));
    int next = -1;
    int pictures = 0;
    bool bWhole = true;
    for (int at = 0; got.at(at) == '$'; at += 4 + qFromBigEndian<quint16>(got.constData() + at + 2)) {
        const auto* packet = reinterpret_cast<const unsigned char*>(got.constData()) + at + 4;
        const RTPPacket rtp(packet, qFromBigEndian<quint16>(got.constData() + at + 2));
        if (got.at(at + 1) != 0)
            continue;
        EXPECT_TRUE(next < 0 || rtp.getSeqNum() == (next & 0xFFFF)) << "a part of a picture is lost";
        next = rtp.getSeqNum() + 1;
        bWhole = rtp.isMarked();
        pictures += bWhole ? 1 : 0;
    }
    EXPECT_TRUE(bWhole);
    EXPECT_GT(pictures, 10);
    EXPECT_LT(pictures, count) << "nothing was lost: it all waits somewhere";
}

TEST(RtspServer, SessionsAreBounded)
{
    Camera camera;
    RawSocket socket = RawSocket::connectTo(camera.server.port());
    for (std::size_t i = 0; i < RtspServer::kMaxSessions; ++i)
        EXPECT_TRUE(camera.ask(socket, setUp()).startsWith("RTSP/1.0 200"));
    EXPECT_TRUE(camera.ask(socket, setUp()).startsWith("RTSP/1.0 453"));
    socket.close();
    EXPECT_TRUE(waitFor([&] { return camera.ask(setUp()).startsWith("RTSP/1.0 200"); }))
        << "they went with their connection";
}
