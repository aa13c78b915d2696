// The RTSP side of the simulated cameras (RFC 2326): one port, a path for each camera, JPEG over RTP (RFC
// 2435), by UDP or interleaved. It asks for Digest credentials.
//
//     viewers (connections) -> answers -> sessions, each of one stream -> packets
#pragma once

#include "DigestGuard.h"
#include "RtspSession.h"

#include <KepNuvikaUtil/NuvikaTcpServer.h>

#include <QtCore/QTimer>

class RtspServer : public QObject
{
public:
    static constexpr std::size_t kMaxSessions = 8; // of a stream
    static constexpr std::size_t kMaxViewers = 64; // connections, and as many for each stream as sessions

    explicit RtspServer(const DigestGuard& guard);

    bool listen(const QHostAddress& address, unsigned short port) { return m_server.listen(address, port); }
    unsigned short port() const { return m_server.serverPort(); }
    // Its number, and its place: camera1 and so on.
    int addStream(int lossPercent);
    static QString pathOf(int stream) { return QStringLiteral("camera%1").arg(stream + 1); }

    void sendPicture(int stream, const QByteArray& jpeg);
    std::size_t sessions() const { return m_sessions.size(); }

private:
    using Sessions = std::vector<std::unique_ptr<RtspSession>>;

    void accept(int descriptor);
    void prune();
    int streamOf(const RtspRequest& request, bool* track) const;
    RtspSession* find(const RtspViewer& viewer, const RtspRequest& request);
    QByteArray answer(RtspViewer& viewer, const RtspRequest& request);
    QByteArray admitted(RtspViewer& viewer, const RtspRequest& request);
    QByteArray describe(RtspViewer& viewer, const RtspRequest& request, int stream) const;
    QByteArray setUp(RtspViewer& viewer, const RtspRequest& request, int stream);
    QByteArray control(RtspSession& session, const RtspRequest& request);

    DigestGuard m_guard;
    std::vector<int> m_lossPercents; // of the streams
    Sessions m_sessions;
    std::vector<QPointer<RtspViewer>> m_viewers;
    QTimer m_timer;
    NuvikaTcpServer m_server;
};
