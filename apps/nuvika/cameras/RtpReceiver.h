// Receives one RTP stream with its sender reports, puts it in order, and keeps its record.
#pragma once

#include "MediaDescription.h"
#include "StreamRecord.h"

#include <KepNuvikaUtil/NuvikaUdpReceiver.h>
#include <KepNuvikaUtil/RtpDepacketizer.h>
#include <KepNuvikaUtil/RtpReorderBuffer.h>

#include <QtCore/QElapsedTimer>
#include <QtCore/QTimer>

#include <memory>

class RtpReceiver : public QObject
{
    Q_OBJECT
public:
    explicit RtpReceiver(const MediaDescription& media);

    // Joins the group that the description names, over the interface with that address, or receives what
    // comes to the ports; ports of 0 take free ones. False with a sentence.
    bool open(const QHostAddress& interfaceAddress, QString* problem);
    unsigned short rtpPort() const { return m_rtp.localPort(); }
    unsigned short rtcpPort() const { return m_rtcp.localPort(); }

    // Counts what came since the last second, before the figures are shown for the last time.
    void finish();

    const MediaDescription& media() const { return m_media; }
    const StreamRecord& record() const { return m_record; }

signals:
    // Each second.
    void updated();

private:
    void takeRtp(const NuvikaUdpReceiver::Datagram& datagram);
    void takeRtcp(const NuvikaUdpReceiver::Datagram& datagram);
    bool isOurSource(unsigned int ssrc);
    void takeDue(qint64 nowUs);
    void takeOrdered(const RtpOrderedPacket& ordered);
    void closeInterval();
    RtpArrival now() const;

    MediaDescription m_media;
    NuvikaUdpReceiver m_rtp;
    NuvikaUdpReceiver m_rtcp;
    RtpReorderBuffer m_order;
    std::unique_ptr<RtpDepacketizer> m_units;
    RtpTimeline m_timeline; // of one track
    StreamRecord m_record;
    quint64 m_nBytes = 0;
    std::optional<quint32> m_ssrc;
    QElapsedTimer m_clock;
    QElapsedTimer m_sinceSource;
    QElapsedTimer m_sinceInterval;
    QTimer m_second;
};
