#include "RtpSource.h"

#include "JpegPayload.h"

#include <KepNuvikaUtil/NTPTimestamp.h>
#include <KepNuvikaUtil/RTCPPacket.h>
#include <KepNuvikaUtil/RTPPacket.h>

#include <QtCore/QDateTime>
#include <QtCore/QRandomGenerator>
#include <QtCore/QtEndian>

#include <array>
#include <numeric>

namespace
{
constexpr int kReportIntervalMs = 2000;
constexpr int kMaxPayload = 1200;
constexpr int kReportSize = 28;
constexpr int kPacketCountAt = 20;
constexpr int kOctetCountAt = 24;

// A name that no other source has (RFC 7022).
QByteArray canonicalName()
{
    std::array<quint32, 3> bits{};
    QRandomGenerator::system()->fillRange(bits.data(), bits.size());
    return QByteArray(reinterpret_cast<const char*>(bits.data()), sizeof bits).toBase64();
}

// A source description with the canonical name (RFC 3550, section 6.5).
QByteArray sourceDescription(quint32 ssrc, const QByteArray& name)
{
    constexpr char kType = static_cast<char>(202);
    constexpr char kCanonicalName = 1;
    QByteArray packet(8, '\0');
    packet[0] = static_cast<char>(0x81); // version 2, one source
    packet[1] = kType;
    qToBigEndian(ssrc, packet.data() + 4);
    packet += kCanonicalName;
    packet += static_cast<char>(name.size());
    packet += name;
    packet.append(4 - packet.size() % 4, '\0'); // one zero at least ends the items
    qToBigEndian(static_cast<quint16>(packet.size() / 4 - 1), packet.data() + 2);
    return packet;
}
} // namespace

RtpSource::RtpSource(std::unique_ptr<RtpSink> sink, int lossPercent)
    : m_sink(std::move(sink)), m_nLossPercent(lossPercent), m_name(canonicalName()),
      m_nSsrc(QRandomGenerator::global()->generate()), m_nFirstTime(QRandomGenerator::global()->generate()),
      m_nSeqNum(static_cast<quint16>(QRandomGenerator::global()->generate()))
{
    m_clock.start();
}

QByteArray RtpSource::description(
    int camera, const QString& to, unsigned short port, const QString& session, const QString& media)
{
    const QString text = QStringLiteral("v=0\r\no=- %1 1 IN IP4 127.0.0.1\r\ns=camera %1\r\nc=IN IP4 %2\r\n"
                                        "t=0 0\r\n%3m=video %4 RTP/AVP 26\r\n%5");
    return text.arg(QString::number(camera + 1), to, session, QString::number(port), media).toLatin1();
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
    auto* bytes = static_cast<char*>(buffer.getBuffer(kReportSize));
    qToBigEndian(m_nSent, bytes + kPacketCountAt);
    qToBigEndian(m_nSentOctets, bytes + kOctetCountAt);
    const QByteArray description = sourceDescription(m_nSsrc, m_name);
    buffer.append(description.constData(), description.size());
    m_sink->sendReport({buffer.constData(), static_cast<qint32>(buffer.size())});
    m_sinceReport.start();
}

void RtpSource::sendPicture(const QByteArray& jpeg)
{
    if (!m_sink->isReady())
        return;
    if (!m_sinceReport.isValid() || m_sinceReport.elapsed() >= kReportIntervalMs)
        sendReport();
    const std::vector<QByteArray> payloads = jpegPayloads(jpeg, kMaxPayload);
    const quint32 time = mediaTime();
    m_packets.resize(payloads.size());
    std::vector<KepNuvikaUtil::BUFFER> datagrams;
    std::vector<quint32> sizes; // of their payloads
    for (std::size_t i = 0; i < payloads.size(); ++i) {
        const QByteArray& payload = payloads[i];
        const RTPPacket packet(&m_packets[i], m_nSsrc, m_nSeqNum++, time, eRtp26,
            reinterpret_cast<const unsigned char*>(payload.constData()),
            static_cast<unsigned int>(payload.size()), i + 1 == payloads.size() ? 1 : 0);
        if (QRandomGenerator::global()->bounded(100) < m_nLossPercent)
            continue;
        datagrams.push_back({m_packets[i].constData(), static_cast<qint32>(packet.getRawPacketSize())});
        sizes.push_back(static_cast<quint32>(payload.size()));
    }
    const int sent = m_sink->sendPackets(datagrams.data(), static_cast<int>(datagrams.size()));
    m_nSent += static_cast<quint32>(sent);
    m_nSentOctets = std::accumulate(sizes.begin(), sizes.begin() + sent, m_nSentOctets);
}
