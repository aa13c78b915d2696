// One RTSP connection to a simulated camera. Requests are read only while answers find room, and pictures too
// are made only then: a viewer that reads slowly, or not at all, loses pictures and makes nothing grow.
#pragma once

#include "RtpSink.h"
#include "RtspRequest.h"

#include <KepNuvikaUtil/NuvikaTcpSocket.h>

#include <QtCore/QElapsedTimer>
#include <QtCore/QPointer>

#include <functional>

class RtspViewer : public QObject
{
public:
    // Gives the answer to a request.
    using Handler = std::function<QByteArray(RtspViewer& viewer, const RtspRequest& request)>;

    RtspViewer(int descriptor, Handler handler, QObject* parent);

    bool canSend() const { return !m_bEnding && m_socket.canSend(); }
    // All of it or, with false, nothing.
    bool send(const std::vector<KepNuvikaUtil::BUFFER>& pieces);
    // What is queued still leaves.
    void end();
    // Milliseconds since it last sent something.
    qint64 silence() const { return m_sinceInput.elapsed(); }
    bool isEnding() const { return m_bEnding; }
    QHostAddress address() { return m_socket.peerAddress(); }
    QHostAddress localAddress() { return m_socket.localAddress(); }

private:
    void received(const char* data, int size);
    void serve();

    Handler m_handler;
    RtspRequestReader m_reader;
    QElapsedTimer m_sinceInput;
    bool m_bEnding = false;
    NuvikaTcpSocket m_socket;
};

// Packets between the answers (RFC 2326, section 10.12).
class InterleavedSink : public RtpSink
{
public:
    InterleavedSink(RtspViewer& viewer, int rtpChannel, int rtcpChannel);

    bool isReady() const override { return m_viewer != nullptr && m_viewer->canSend(); }
    int sendPackets(const KepNuvikaUtil::BUFFER* packets, int count) override;
    void sendReport(const KepNuvikaUtil::BUFFER& report) override;

private:
    bool send(int channel, const KepNuvikaUtil::BUFFER* packets, int count);

    QPointer<RtspViewer> m_viewer;
    int m_nRtpChannel;
    int m_nRtcpChannel;
};
