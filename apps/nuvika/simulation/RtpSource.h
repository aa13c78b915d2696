// The RTP side of a simulated camera: sends pictures, and sender reports, to one destination.
#pragma once

#include <KepNuvikaUtil/NuvikaUdpSender.h>
#include <KepNuvikaUtil/VariableBuffer.h>

#include <QtCore/QElapsedTimer>
#include <QtNetwork/QHostAddress>

#include <vector>

class RtpSource
{
public:
    static constexpr unsigned int kClockRate = 90000;

    // Of lossPercent of the packets only the numbers are used up.
    RtpSource(const QHostAddress& host, unsigned short rtpPort, unsigned short rtcpPort, int lossPercent);

    void sendPicture(const QByteArray& jpeg);
    bool isFor(const QHostAddress& host, unsigned short rtpPort) const
    {
        return host == m_host && rtpPort == m_nRtpPort;
    }
    // A session ends unless it is asked for again.
    void refresh() { m_sinceAsked.start(); }
    bool isOver() const { return m_sinceAsked.elapsed() > kSessionMs; }

private:
    static constexpr int kSessionMs = 30000;

    quint32 mediaTime() const;
    void sendReport();

    QHostAddress m_host;
    unsigned short m_nRtpPort;
    NuvikaLLSock::ADDR_V4_V6 m_rtp;
    NuvikaLLSock::ADDR_V4_V6 m_rtcp;
    int m_nLossPercent;
    NuvikaUdpSender m_sender;
    QByteArray m_name; // of the source, in its reports
    quint32 m_nSent = 0; // packets, and bytes of their payloads, as sender reports count them
    quint32 m_nSentOctets = 0;
    quint32 m_nSsrc;
    quint32 m_nFirstTime; // of the media clock, at random as RFC 3550 asks
    quint16 m_nSeqNum;
    QElapsedTimer m_clock;
    QElapsedTimer m_sinceReport;
    QElapsedTimer m_sinceAsked;
    std::vector<VariableBuffer> m_packets;
};
