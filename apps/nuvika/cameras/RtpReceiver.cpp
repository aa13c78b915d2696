#include "RtpReceiver.h"

#include <KepNuvikaUtil/RTCPPacket.h>
#include <KepNuvikaUtil/RTPPacket.h>

namespace
{
constexpr int kReceiveBuffer = 1 << 20; // a picture of a fine camera comes in one burst
constexpr int kSourceTimeoutMs = 1000; // then another source may take the stream over

const unsigned char* bytesOf(const NuvikaUdpReceiver::Datagram& datagram)
{
    return reinterpret_cast<const unsigned char*>(datagram.pData);
}
} // namespace

RtpReceiver::RtpReceiver(const MediaDescription& media)
    : m_media(media), m_timeline(media.clockRate, media.kind == QLatin1String("audio"))
{
    m_rtp.registerCallback([](const NuvikaUdpReceiver::Datagram* datagram,
                               void* self) { static_cast<RtpReceiver*>(self)->takeRtp(*datagram); },
        this);
    m_rtcp.registerCallback([](const NuvikaUdpReceiver::Datagram* datagram,
                                void* self) { static_cast<RtpReceiver*>(self)->takeRtcp(*datagram); },
        this);
    connect(&m_statistics, &RtpStatistics::sigStatistics, this,
        [this](
            const QString&, unsigned int, double rate, unsigned int packets, unsigned int lost, double loss) {
            m_figures.megabits = rate;
            m_figures.packets = packets;
            m_figures.lost = lost;
            m_figures.lossPercent = loss;
            m_figures.allPackets += packets;
            m_figures.allLost += lost;
            m_timeline.limitTo(NTPTimestamp::fromMilliseconds(kHistorySeconds * 1000));
            emit updated();
        });
}

bool RtpReceiver::open(const QHostAddress& interfaceAddress, QString* problem)
{
    const bool bSix = m_media.address.protocol() == QAbstractSocket::IPv6Protocol;
    const QHostAddress any(bSix ? QHostAddress::AnyIPv6 : QHostAddress::AnyIPv4);
    const bool bGroup = m_media.address.isMulticast();
    const QHostAddress local = interfaceAddress.isNull() ? any : interfaceAddress;
    const auto create = [&](NuvikaUdpReceiver& receiver, unsigned short port) {
        if (bGroup ? receiver.createMulticast(port, m_media.address, interfaceAddress)
                   : receiver.createUnicast(port, local)) {
            receiver.setReceiveBufferSize(kReceiveBuffer);
            return true;
        }
        *problem = QStringLiteral("cannot receive on %1 port %2: %3")
                       .arg(bGroup ? m_media.address.toString() : local.toString(), QString::number(port),
                           receiver.errorString());
        return false;
    };
    if (!create(m_rtp, m_media.rtpPort) || !create(m_rtcp, m_media.rtcpPort))
        return false;
    m_statistics.start(qUtf8Printable(m_media.shown()), 1000, false, true);
    return true;
}

void RtpReceiver::finish()
{
    const QSignalBlocker silent(this);
    m_statistics.report();
}

bool RtpReceiver::isOurSource(unsigned int ssrc)
{
    if (m_ssrc != ssrc) {
        if (m_ssrc && m_sinceSource.elapsed() < kSourceTimeoutMs)
            return false;
        if (m_ssrc) { // a sender that started again: other numbers, another clock
            finish();
            m_statistics.restart();
            m_timeline = RtpTimeline(m_media.clockRate, m_media.kind == QLatin1String("audio"));
        }
        m_ssrc = ssrc;
    }
    m_sinceSource.start();
    return true;
}

void RtpReceiver::takeRtp(const NuvikaUdpReceiver::Datagram& datagram)
{
    const RTPPacket packet(bytesOf(datagram), static_cast<unsigned int>(datagram.nSize));
    if (!packet.isHeaderValid()) {
        takeRtcp(datagram); // some senders use one port for both
        return;
    }
    if (!isOurSource(packet.getSSRC()))
        return;
    m_statistics.update(packet);
    m_timeline.takePacket(packet);
}

bool RtpReceiver::takeRtcp(const NuvikaUdpReceiver::Datagram& datagram)
{
    const RTCPPacket packet(bytesOf(datagram), static_cast<unsigned int>(datagram.nSize));
    if (!packet.isHeaderValid() || packet.getType() != eRtcpSR || !isOurSource(packet.getSSRC()))
        return false;
    ++m_figures.reports;
    m_timeline.takeReport(packet.getNtpTimestamp(), packet.getRtpTimestamp());
    return true;
}
