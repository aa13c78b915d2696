// How the values of RTP, RTCP and time are shown in logs.
#include <KepNuvikaUtil/NTPRange.h>
#include <KepNuvikaUtil/RtcpCompound.h>
#include <KepNuvikaUtil/RtpDepacketizer.h>
#include <KepNuvikaUtil/RtpReorderBuffer.h>
#include <KepNuvikaUtil/RtpStatistics.h>
#include <KepNuvikaUtil/RtpTimeline.h>

#include "core/Shown_p.h"

using namespace Nuvika;

namespace
{
// Texts without quotes of their own.
QByteArray secondsText(qint64 us) { return QByteArray::number(static_cast<double>(us) / 1e6, 'f', 6) + " s"; }

QByteArray wallText(qint64 us)
{
    return QDateTime::fromMSecsSinceEpoch(us / 1000, Qt::UTC).toString(Qt::ISODateWithMs).toLatin1();
}

QByteArray sizeText(const QSize& size)
{
    return QByteArray::number(size.width()) + 'x' + QByteArray::number(size.height());
}

QString textOf(std::string_view view)
{
    return QString::fromUtf8(view.data(), static_cast<int>(view.size()));
}
} // namespace

// --- time ------------------------------------------------------------------------------------------------

QDebug operator<<(QDebug debug, const NTPTimestamp& timestamp)
{
    Shown shown(debug, "NTPTimestamp");
    shown.when(timestamp.isNull(), "null");
    if (!timestamp.isNull())
        shown(timestamp.toString(false).toLatin1().constData())(
            ("0x" + QByteArray::number(timestamp.toHostByteOrder(), 16)).constData());
    return debug;
}

QDebug operator<<(QDebug debug, const NTPRange& range)
{
    Shown(debug, "NTPRange")("from", range.begin())("to", range.end());
    return debug;
}

QDebug operator<<(QDebug debug, const RtpArrival& arrival)
{
    Shown(debug, "RtpArrival")("monotonic", secondsText(arrival.monotonicUs).constData())(
        "wall", wallText(arrival.wallUs).constData());
    return debug;
}

QDebug operator<<(QDebug debug, const RtpTime& time)
{
    Shown(debug, "RtpTime")("timestamp", time.timestamp)("presentation",
        secondsText(time.presentationUs).constData())("wall", wallText(time.wallUs).constData())
        .when(time.bWallBySender, "by sender")
        .when(time.bNewRun, "new run");
    return debug;
}

// --- packets ---------------------------------------------------------------------------------------------

QDebug operator<<(QDebug debug, const RTPPacket& packet)
{
    Shown shown(debug, "RTPPacket");
    shown.when(!packet.isHeaderValid(), "not valid");
    if (packet.isHeaderValid())
        shown("type", static_cast<int>(packet.getPayloadType()))("sequence", packet.getSeqNum())(
            "timestamp", packet.getRawTimestamp())
            .hex("ssrc", packet.getSSRC())
            .when(packet.isMarked(), "marked")("payload", packet.getPayloadSize())(
                "bytes", packet.getRawPacketSize());
    return debug;
}

QDebug operator<<(QDebug debug, const RTCPPacket& packet)
{
    Shown shown(debug, "RTCPPacket");
    shown.when(!packet.isHeaderValid(), "not valid");
    if (packet.isHeaderValid())
        shown("type", static_cast<int>(packet.getType()))
            .hex("ssrc", packet.getSSRC())("ntp", packet.getNtpTimestamp())(
                "timestamp", packet.getRtpTimestamp())("bytes", packet.getRawPacketSize());
    return debug;
}

QDebug operator<<(QDebug debug, const RtcpCompound& rtcp)
{
    Shown shown(debug, "RtcpCompound");
    if (rtcp.type() != 0)
        shown("type", rtcp.type())("count", rtcp.count()).hex("ssrc", rtcp.ssrc())("bytes", rtcp.size());
    if (rtcp.isMalformed())
        shown("malformed:", rtcp.errorString());
    return debug;
}

QDebug operator<<(QDebug debug, const RtcpSenderInfo& info)
{
    Shown(debug, "RtcpSenderInfo")
        .hex("ssrc", info.nSsrc)("ntp", info.ntp)("timestamp", info.nRtpTimestamp)("packets", info.nPackets)(
            "octets", info.nOctets);
    return debug;
}

QDebug operator<<(QDebug debug, const RtcpReportBlock& block)
{
    Shown(debug, "RtcpReportBlock")
        .hex("ssrc", block.nSsrc)("fraction lost", block.nFractionLost)("lost", block.nCumulativeLost)(
            "highest", block.nExtendedHighest)("jitter", block.nJitter)
        .hex("last report", block.nLastSr)("delay", block.nDelaySinceLastSr);
    return debug;
}

QDebug operator<<(QDebug debug, const RtcpSdesItem& item)
{
    Shown(debug, "RtcpSdesItem").hex("ssrc", item.nSsrc)("type", item.type)(textOf(item.text));
    return debug;
}

QDebug operator<<(QDebug debug, const RtpOrderedPacket& ordered)
{
    Shown(debug, "RtpOrderedPacket")("sequence", ordered.sequence)("lost", ordered.nLost)
        .when(ordered.bNewRun, "new run")(ordered.packet);
    return debug;
}

QDebug operator<<(QDebug debug, const RtpReorderCounts& counts)
{
    Shown(debug, "RtpReorderCounts")("received", counts.nReceived)("lost", counts.nLost)("late",
        counts.nLate)("duplicates", counts.nDuplicates)("strays", counts.nStrays)("runs", counts.nRuns);
    return debug;
}

// --- units -----------------------------------------------------------------------------------------------

QDebug operator<<(QDebug debug, const RtpAccessUnit& unit)
{
    Shown(debug, "RtpAccessUnit")("bytes", unit.nSize)("timestamp", unit.nTimestamp)(
        "lost", unit.nPacketsLost)
        .when(unit.bKeyFrame, "key frame")
        .when(unit.bRecoveryPoint && !unit.bKeyFrame, "recovery point")
        .when(unit.bReferencesLost, "references lost")
        .when(unit.bDroppable, "droppable")
        .when(unit.bParametersChanged, "parameters changed");
    return debug;
}

QDebug operator<<(QDebug debug, const RtpMediaParameters& parameters)
{
    Shown shown(debug, "RtpMediaParameters");
    shown(parameters.codec)("configuration bytes", parameters.configuration.size());
    if (parameters.codedSize.isValid())
        shown("coded", sizeText(parameters.codedSize).constData());
    if (parameters.shownSize.isValid())
        shown("shown", sizeText(parameters.shownSize).constData());
    if (parameters.nSampleRate != 0)
        shown("Hz", parameters.nSampleRate)("channels", parameters.nChannels);
    return debug;
}

QDebug operator<<(QDebug debug, const RtpPayloadFormat& payload)
{
    Shown(debug, "RtpPayloadFormat")(payload.media)(payload.encodingName)("clock", payload.nClockRate)(
        "fmtp", withoutSecrets(payload.fmtp));
    return debug;
}

QDebug operator<<(QDebug debug, const RtpStatistics::Totals& totals)
{
    Shown(debug, "RtpStatistics::Totals")("packets", totals.packets)("bytes", totals.bytes)(
        "lost", totals.lost);
    return debug;
}
