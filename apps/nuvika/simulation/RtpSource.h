// The RTP side of a simulated camera: pictures, and sender reports, to one viewer or group.
#pragma once

#include "RtpSink.h"

#include <KepNuvikaUtil/VariableBuffer.h>

#include <QtCore/QByteArray>
#include <QtCore/QElapsedTimer>

#include <memory>
#include <vector>

class RtpSource
{
public:
    static constexpr unsigned int kClockRate = 90000;

    // Of lossPercent of the packets only the numbers are used up.
    RtpSource(std::unique_ptr<RtpSink> sink, int lossPercent);

    // What it sends (RFC 4566). `to` and `port` may be null; `media` are lines of the track.
    static QByteArray description(
        int camera, const QString& to, unsigned short port, const QString& session, const QString& media);

    void sendPicture(const QByteArray& jpeg);
    quint32 ssrc() const { return m_nSsrc; }
    quint16 nextSequence() const { return m_nSeqNum; }
    quint32 mediaTime() const;

private:
    void sendReport();

    std::unique_ptr<RtpSink> m_sink;
    int m_nLossPercent;
    QByteArray m_name; // of the source, in its reports
    quint32 m_nSent = 0; // packets, and bytes of their payloads, as sender reports count them
    quint32 m_nSentOctets = 0;
    quint32 m_nSsrc;
    quint32 m_nFirstTime; // of the media clock, at random as RFC 3550 asks
    quint16 m_nSeqNum;
    QElapsedTimer m_clock;
    QElapsedTimer m_sinceReport;
    std::vector<VariableBuffer> m_packets;
};
