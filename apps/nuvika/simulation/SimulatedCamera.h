// A network camera in miniature: an HTTP server that asks for Digest credentials and serves a snapshot
// (/snapshot.jpg), an endless stream of moving pictures (/live), and the same by RTP:
// /stream.sdp?rtp=PORT&rtcp=PORT sends them for half a minute to these ports of the asking host, or tells the
// group that has them anyway. By RTSP they have a place on the server that the cameras share.
#pragma once

#include "DigestGuard.h"
#include "RtpSource.h"
#include "RtspServer.h"
#include "page/Viewers.h"
#include "page/WebServer.h"

#include <QtCore/QTimer>

#include <memory>
#include <vector>

class SimulatedCamera : public QObject
{
public:
    static constexpr char kUser[] = "viewer";
    static constexpr char kPassword[] = "simulated";
    static constexpr int kPicturesPerSecond = 12;

    struct Media {
        bool bMulticast = false;
        int nLossPercent = 0; // of the first camera
    };

    SimulatedCamera(int number, const Media& media, RtspServer& rtsp);
    bool listen() { return m_server.listen(QHostAddress(QHostAddress::LocalHost), 0); }
    unsigned short port() const { return m_server.port(); }

private:
    // To the ports that somebody asked for; ends unless it is asked for again.
    struct Stream {
        QHostAddress host;
        unsigned short nPort;
        RtpSource source;
        QElapsedTimer sinceAsked;
    };

    void handle(HttpResponseClient& connection, const HttpRequestHeader& request);
    void refuse(HttpResponseClient& connection);
    void tick();
    void refresh(const QHostAddress& host, unsigned short port, unsigned short rtcpPort);
    QByteArray openStream(const QHostAddress& host, const QString& query);
    int lossPercent() const { return m_nNumber == 0 ? m_media.nLossPercent : 0; }

    int m_nNumber;
    int m_nFrame;
    Media m_media;
    DigestGuard m_guard;
    QTimer m_timer;
    Viewers m_viewers;
    std::vector<std::unique_ptr<Stream>> m_streams;
    WebServer m_server;
    RtspServer& m_rtsp;
    int m_nRtspStream;
};
