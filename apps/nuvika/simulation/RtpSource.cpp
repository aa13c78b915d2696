#include "RtpSource.h"

#include "JpegPayload.h"

#include <KepNuvikaUtil/NTPTimestamp.h>
#include <KepNuvikaUtil/RTCPPacket.h>
#include <KepNuvikaUtil/RTPPacket.h>

#include <QtCore/QDateTime>
#include <QtCore/QRandomGenerator>

namespace
{
constexpr int kReportIntervalMs = 2000;
constexpr int kMaxPayload = 1200;
constexpr int kSendBuffer = 1 << 20; // a picture leaves in one call
} // namespace

RtpSource::RtpSource(
    const QHostAddress& host, unsigned short rtpPort, unsigned short rtcpPort, int lossPercent)
    : m_host(host), m_nRtpPort(rtpPort), m_nLossPercent(lossPercent),
      m_nSsrc(QRandomGenerator::global()->generate()), m_nFirstTime(QRandomGenerator::global()->generate()),
      m_nSeqNum(static_cast<quint16>(QRandomGenerator::global()->generate()))
{
    NuvikaLLSock::createSockAddr(&m_rtp, host, rtpPort);
    NuvikaLLSock::createSockAddr(&m_rtcp, host, rtcpPort);
    m_sender.setSendBufferSize(kSendBuffer);
    if (host.isMulticast()) {
        m_sender.setMulticastInterface(QHostAddress(QHostAddress::LocalHost));
        m_sender.setMulticastTtl(0); // simulated cameras stay on this host
    }
    m_clock.start();
    m_sinceAsked.start();
}

quint32 RtpSource::mediaTime() const
{
    return m_nFirstTime + static_cast<quint32>(m_clock.nsecsElapsed() / 1000 * kClockRate / 1000000);
}

void RtpSource::sendReport()
{
    VariableBuffer buffer;
    const NTPTimestamp now = NTPTimestamp::fromDateTime(QDateTime::currentDateTimeUtc());
    const RTCPPacket report(&buffer, m_nSsrc, mediaTime(), now);
    m_sender.sendTo(report.getRawPacket(), static_cast<int>(report.getRawPacketSize()), m_rtcp);
    m_sinceReport.start();
}

void RtpSource::sendPicture(const QByteArray& jpeg)
{
    if (!m_sinceReport.isValid() || m_sinceReport.elapsed() >= kReportIntervalMs)
        sendReport();
    const std::vector<QByteArray> payloads = jpegPayloads(jpeg, kMaxPayload);
    const quint32 time = mediaTime();
    m_packets.resize(payloads.size());
    std::vector<KepNuvikaUtil::BUFFER> datagrams;
    for (std::size_t i = 0; i < payloads.size(); ++i) {
        const QByteArray& payload = payloads[i];
        const RTPPacket packet(&m_packets[i], m_nSsrc, m_nSeqNum++, time, eRtp26,
            reinterpret_cast<const unsigned char*>(payload.constData()),
            static_cast<unsigned int>(payload.size()), i + 1 == payloads.size() ? 1 : 0);
        if (QRandomGenerator::global()->bounded(100) >= m_nLossPercent)
            datagrams.push_back({m_packets[i].constData(), static_cast<qint32>(packet.getRawPacketSize())});
    }
    m_sender.sendMany(datagrams.data(), static_cast<int>(datagrams.size()), m_rtp);
}
