// Receives one RTP stream with its sender reports, and keeps its figures.
#pragma once

#include "MediaDescription.h"
#include "RtpTimeline.h"

#include <KepNuvikaUtil/NuvikaUdpReceiver.h>
#include <KepNuvikaUtil/RtpStatistics.h>

#include <QtCore/QElapsedTimer>

class RtpReceiver : public QObject
{
    Q_OBJECT
public:
    static constexpr int kHistorySeconds = 180;

    // Of the last whole second, and since the beginning.
    struct Figures {
        double megabits = 0; // a second
        double lossPercent = 0;
        unsigned int packets = 0;
        unsigned int lost = 0;
        quint64 allPackets = 0;
        quint64 allLost = 0;
        unsigned int reports = 0;
    };

    explicit RtpReceiver(const MediaDescription& media);

    // Joins the group that the description names, over the interface with that address, or receives what
    // comes to the ports; ports of 0 take free ones. False with a sentence.
    bool open(const QHostAddress& interfaceAddress, QString* problem);
    unsigned short rtpPort() const { return m_rtp.localPort(); }
    unsigned short rtcpPort() const { return m_rtcp.localPort(); }

    // Counts what came since the last second, before the figures are shown for the last time.
    void finish();

    const MediaDescription& media() const { return m_media; }
    const Figures& figures() const { return m_figures; }
    // Anything of the stream, be it a sender report.
    bool hasHeard() const { return m_figures.allPackets > 0 || m_figures.reports > 0; }
    const RtpTimeline& timeline() const { return m_timeline; }

signals:
    // Each second.
    void updated();

private:
    void takeRtp(const NuvikaUdpReceiver::Datagram& datagram);
    bool takeRtcp(const NuvikaUdpReceiver::Datagram& datagram);
    bool isOurSource(unsigned int ssrc);

    MediaDescription m_media;
    NuvikaUdpReceiver m_rtp;
    NuvikaUdpReceiver m_rtcp;
    RtpStatistics m_statistics;
    RtpTimeline m_timeline;
    Figures m_figures;
    std::optional<quint32> m_ssrc;
    QElapsedTimer m_sinceSource;
};
