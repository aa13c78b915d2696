#include "RtpReceiver.h"

#include <KepNuvikaUtil/RtcpCompound.h>

#include <QtCore/QDateTime>

#include <algorithm>

namespace
{
constexpr int kReceiveBuffer = 1 << 20; // a picture of a fine camera comes in one burst
constexpr int kSourceTimeoutMs = 1000; // then another source may take the stream over

const unsigned char* bytesOf(const NuvikaUdpReceiver::Datagram& datagram)
{
    return reinterpret_cast<const unsigned char*>(datagram.pData);
}

std::unique_ptr<RtpDepacketizer> unitsOf(const MediaDescription& media)
{
    RtpPayloadFormat format;
    format.encodingName = media.encoding.section(QLatin1Char('/'), 0, 0);
    format.nClockRate = media.clockRate;
    format.nChannels = media.encoding.section(QLatin1Char('/'), 2, 2).toUInt();
    format.fmtp = media.fmtp;
    format.media = media.kind;
    return RtpDepacketizer::create(format);
}
} // namespace

RtpReceiver::RtpReceiver(const MediaDescription& media) : m_media(media), m_units(unitsOf(media))
{
    m_timeline.setClockBound(StreamRecord::kAnyClockUs);
    m_timeline.addTrack(media.clockRate);
    m_clock.start();
    m_rtp.registerCallback([](const NuvikaUdpReceiver::Datagram* datagram,
                               void* self) { static_cast<RtpReceiver*>(self)->takeRtp(*datagram); },
        this);
    m_rtcp.registerCallback([](const NuvikaUdpReceiver::Datagram* datagram,
                                void* self) { static_cast<RtpReceiver*>(self)->takeRtcp(*datagram); },
        this);
    connect(&m_second, &QTimer::timeout, this, [this] {
        takeDue(now().monotonicUs);
        closeInterval();
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
    m_sinceInterval.start();
    m_second.start(1000);
    return true;
}

void RtpReceiver::finish()
{
    takeDue(RtpReorderBuffer::kNever);
    closeInterval();
}

void RtpReceiver::closeInterval()
{
    const RtpReorderCounts& counts = m_order.counts();
    m_record.closeInterval({counts.nReceived, m_nBytes, counts.nLost}, m_sinceInterval.restart());
}

RtpArrival RtpReceiver::now() const
{
    return {m_clock.nsecsElapsed() / 1000, QDateTime::currentMSecsSinceEpoch() * 1000};
}

bool RtpReceiver::isOurSource(unsigned int ssrc)
{
    if (m_ssrc != ssrc) {
        if (m_ssrc && m_sinceSource.elapsed() < kSourceTimeoutMs)
            return false;
        if (m_ssrc) { // a sender that started again: other numbers, another clock
            finish();
            m_order = RtpReorderBuffer();
            m_nBytes = 0;
            m_units = unitsOf(m_media);
            m_record.beginSession();
        }
        m_timeline.setSource(0, ssrc);
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
    m_nBytes += static_cast<quint64>(datagram.nSize);
    const qint64 nowUs = now().monotonicUs;
    RtpOrderedPacket ordered;
    if (m_order.push(packet, nowUs, &ordered))
        takeOrdered(ordered);
    takeDue(nowUs);
}

void RtpReceiver::takeDue(qint64 nowUs)
{
    RtpOrderedPacket ordered;
    while (m_order.pop(nowUs, &ordered))
        takeOrdered(ordered);
}

void RtpReceiver::takeOrdered(const RtpOrderedPacket& ordered)
{
    const bool bBroken = ordered.bNewRun && m_order.counts().nRuns > 1;
    if (bBroken)
        m_timeline.restart(0);
    m_units->push(ordered.packet, std::max(ordered.nLost, bBroken ? 1U : 0U));
    RtpArrival arrival = now();
    arrival.wallUs -= arrival.monotonicUs - ordered.arrivalUs;
    arrival.monotonicUs = ordered.arrivalUs;
    RtpAccessUnit unit;
    while (m_units->next(&unit))
        m_record.takeUnit(unit, m_timeline.stamp(0, unit.nTimestamp, arrival));
}

void RtpReceiver::takeRtcp(const NuvikaUdpReceiver::Datagram& datagram)
{
    RtcpCompound rtcp(bytesOf(datagram), static_cast<unsigned int>(datagram.nSize));
    RtcpSenderInfo info;
    while (rtcp.next()) {
        if (!rtcp.senderInfo(&info) || !isOurSource(info.nSsrc))
            continue;
        m_timeline.senderReport(0, info.nSsrc, info.ntp, info.nRtpTimestamp, now());
        m_record.takeReport(info.ntp, now());
    }
}
