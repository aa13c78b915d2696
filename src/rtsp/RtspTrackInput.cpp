#include "rtsp/RtspTrackInput_p.h"

#include <algorithm>
#include <array>
#include <utility>

using namespace Nuvika;

namespace
{
constexpr qint64 kSourceSilentUs = 2000000;
constexpr qint64 kLeastSilentUs = 100000; // of one that has a pace
constexpr int kMostBeforeFirst = 1000; // then the announcement was wrong
constexpr int kMaxAhead = 3000; // as sequences are counted

constexpr std::array<const char*, 3> kVideo = {"H264", "H265", "JPEG"};

RtpPayloadFormat payloadOf(const SdpMedia& media, const SdpFormat& format)
{
    RtpPayloadFormat payload;
    payload.encodingName = format.encoding;
    payload.nClockRate = format.clockRate;
    payload.media = media.type;
    payload.nChannels = static_cast<quint32>(std::max(format.channels, 0));
    payload.pictureSize = QSize(format.width, format.height);
    payload.fmtp = format.fmtp;
    return payload;
}

bool isReadable(const SdpMedia& media, const SdpFormat& format)
{
    if (format.payloadType < 0 || format.encoding.isEmpty())
        return false;
    if (media.type.compare(QLatin1String("video"), Qt::CaseInsensitive) != 0)
        return true;
    return std::any_of(kVideo.begin(), kVideo.end(),
        [&format](const char* name) { return format.encoding == QLatin1String(name); });
}

// The one that we can read, else the first with a payload type, else null.
const SdpFormat* mainFormat(const SdpMedia& media)
{
    const SdpFormat* main = nullptr;
    for (const SdpFormat& format : media.formats) {
        if (isReadable(media, format))
            return &format;
        if (main == nullptr && format.payloadType >= 0)
            main = &format;
    }
    return main;
}

QString problemOf(const SdpDescription& description, int index, const SdpFormat* format)
{
    const SdpMedia& media = description.media.at(index);
    if (!description.isForClient(index))
        return QStringLiteral("the server asks us to send it");
    if (!media.transport.startsWith(QLatin1String("RTP/AVP"), Qt::CaseInsensitive))
        return QStringLiteral("its transport %1 is not RTP/AVP").arg(media.transport);
    if (format == nullptr)
        return QStringLiteral("it names no payload type");
    if (!isReadable(media, *format))
        return QStringLiteral("we cannot read %1/%2")
            .arg(format->encoding.isEmpty() ? format->name : format->encoding)
            .arg(format->clockRate);
    return QString();
}

bool isSecond(const QByteArray& first, const RTPPacket& packet)
{
    if (first.isEmpty())
        return false;
    const RTPPacket before(
        reinterpret_cast<const unsigned char*>(first.constData()), static_cast<unsigned int>(first.size()));
    return before.getSSRC() == packet.getSSRC()
        && static_cast<quint16>(before.getSeqNum() + 1) == packet.getSeqNum();
}
} // namespace

QByteArray Nuvika::placeOf(const char* data, int size)
{
    constexpr int kHead = 12;
    if (size < kHead || (static_cast<unsigned char>(data[0]) >> 6) != 2)
        return QByteArray();
    QByteArray filled(data, size);
    filled.append('\0');
    const int padding = (data[0] & 0x20) != 0 ? static_cast<unsigned char>(data[size - 1]) : 0;
    filled[0] = static_cast<char>(data[0] & ~0x20);
    const RTPPacket packet(
        reinterpret_cast<const unsigned char*>(filled.constData()), static_cast<unsigned int>(filled.size()));
    const bool bEmpty
        = packet.isHeaderValid() && packet.getPayloadSize() == static_cast<unsigned int>(padding) + 1;
    return bEmpty ? filled : QByteArray();
}

RtspTrack Nuvika::trackOf(
    const SdpDescription& description, int index, const QString& base, const RtpUnitFormat& unitFormat)
{
    RtspTrack track;
    track.index = index;
    track.description = description.media.at(index);
    track.media = track.description.type;
    track.url = description.trackUrl(index, base);
    const SdpFormat* format = mainFormat(track.description);
    track.problem = problemOf(description, index, format);
    if (format != nullptr) {
        track.encoding = format->encoding;
        track.payloadType = format->payloadType;
        track.clockRate = format->clockRate;
        track.channels = format->channels;
        track.parameters
            = RtpDepacketizer::create(payloadOf(track.description, *format), unitFormat)->parameters();
    }
    return track;
}

RtspTrackInput::RtspTrackInput(const RtspTrack& track, const RtspOptions& options)
    : m_quirks(options.quirks), m_nType(track.payloadType), m_nClockRate(track.clockRate)
{
    for (const SdpFormat& format : track.description.formats) {
        if (format.payloadType >= 0 && format.payloadType < static_cast<int>(m_types.size()))
            m_types.set(static_cast<std::size_t>(format.payloadType));
    }
    const SdpFormat* format = track.description.format(track.payloadType);
    if (options.bUnits && format != nullptr)
        m_pUnits = RtpDepacketizer::create(payloadOf(track.description, *format), options.unitFormat);
    m_counts.track = track.index;
}

// --- what is ours ----------------------------------------------------------------------------------------

RtspTrackInput::Verdict RtspTrackInput::admit(const RTPPacket& packet, qint64 nowUs)
{
    if (!hasPayloadType(packet.getPayloadType())) {
        ++m_counts.nUnknownTypes;
        return Verdict::Dropped;
    }
    const quint32 ssrc = packet.getSSRC();
    const bool bNew = m_source != ssrc;
    if (bNew && m_source) {
        const bool bTaken = m_quirks.unknownSource == RtspQuirks::eTakeUnknown || m_announced == ssrc
            || (m_quirks.unknownSource == RtspQuirks::eTakeWhenSilent && isReplacedBy(packet, nowUs));
        if (!bTaken) {
            ++m_counts.nStrangers;
            return Verdict::Dropped;
        }
    } else if (bNew && m_quirks.unknownSource == RtspQuirks::eDropUnknown && m_announced
        && m_announced != ssrc) {
        ++m_counts.nStrangers;
        return Verdict::Dropped;
    }
    if (isBeforeFirst(packet))
        return Verdict::Dropped;
    noteSource(bNew, nowUs);
    ++m_counts.nPackets;
    m_counts.nBytes += packet.getRawPacketSize();
    return bNew ? Verdict::NewSource : Verdict::Taken;
}

// Interleaved, in the order in which the server wrote them: two packets of the other source in sequence, and
// this one, which has a pace, has been silent for twice its longest pause.
bool RtspTrackInput::isReplacedBy(const RTPPacket& packet, qint64 nowUs)
{
    const qint64 silentUs = nowUs - m_sourceUs;
    const bool bSecond = isSecond(m_rival, packet);
    if (!bSecond)
        m_rival.clear();
    if (silentUs >= kSourceSilentUs)
        return true;
    if (bSecond && silentUs >= std::max(2 * m_longestPauseUs, kLeastSilentUs))
        return true;
    if (m_bInterleaved && m_sourceUs - m_sourceBeganUs >= kSourceSilentUs)
        m_rival = QByteArray(reinterpret_cast<const char*>(packet.getRawPacket()),
            static_cast<int>(packet.getRawPacketSize()));
    return false;
}

// The one before the packet that replaced the source; empty without one.
QByteArray RtspTrackInput::takeRival()
{
    if (!m_rival.isEmpty())
        --m_counts.nStrangers;
    return std::exchange(m_rival, QByteArray());
}

void RtspTrackInput::noteSource(bool bNew, qint64 nowUs)
{
    m_longestPauseUs = bNew ? 0 : std::max(m_longestPauseUs, nowUs - m_sourceUs);
    m_sourceBeganUs = bNew ? nowUs : m_sourceBeganUs;
    m_sourceUs = nowUs;
    if (!bNew)
        m_rival.clear();
}

void RtspTrackInput::beginSource(quint32 ssrc)
{
    m_source = ssrc;
    m_order.reset();
    m_pReception = std::make_unique<RtpReception>(ssrc, m_nClockRate);
}

void RtspTrackInput::sourceLeft(quint32 ssrc)
{
    if (m_source == ssrc)
        m_sourceUs = -kSourceSilentUs;
}

void RtspTrackInput::announceFirst(const RtpInfo& info)
{
    m_first = RtpInfo();
    if (m_quirks.initialSequence == RtspQuirks::eFirstAsAnnounced)
        m_first.sequence = info.sequence;
    if (m_quirks.initialTimestamp == RtspQuirks::eFirstAsAnnounced)
        m_first.timestamp = info.timestamp;
    m_nBeforeFirst = 0;
}

bool RtspTrackInput::isBeforeFirst(const RTPPacket& packet)
{
    if (!m_first.sequence && !m_first.timestamp)
        return false;
    const int ahead = m_first.sequence ? static_cast<qint16>(packet.getSeqNum() - *m_first.sequence) : 0;
    const qint32 ticks
        = m_first.timestamp ? static_cast<qint32>(packet.getRawTimestamp() - *m_first.timestamp) : 0;
    const bool bBefore = (ahead < 0 && ahead > -kMaxAhead) || ticks < 0;
    if (bBefore && ++m_nBeforeFirst <= kMostBeforeFirst)
        return true;
    m_first = RtpInfo();
    return false;
}

void RtspTrackInput::push(const RtpOrderedPacket& ordered, bool bBroken)
{
    m_nLost += std::max(ordered.nLost, bBroken ? 1U : 0U);
    if (m_pUnits && ordered.packet.getPayloadType() == m_nType)
        m_pUnits->push(ordered.packet, std::exchange(m_nLost, 0));
}

// --- what is told ----------------------------------------------------------------------------------------

RtpMediaParameters RtspTrackInput::parameters() const
{
    return m_pUnits ? m_pUnits->parameters() : RtpMediaParameters();
}

RtspTrackStatistics RtspTrackInput::statistics() const
{
    RtspTrackStatistics result = m_counts;
    const RtpReorderCounts& order = m_order.counts();
    result.nLost = order.nLost;
    result.nLate = order.nLate;
    result.nDuplicates = order.nDuplicates;
    result.nUnitsLost = m_pUnits ? m_pUnits->unitsLost() : 0;
    result.nJitter = m_pReception ? m_pReception->jitter() : 0;
    result.nSsrc = m_source.value_or(0);
    return result;
}

RtspTrackStatistics RtspTrackInput::takeStatistics(qint64 nowUs)
{
    RtspTrackStatistics result = statistics();
    const qint64 elapsedUs = nowUs - m_intervalUs;
    if (m_intervalUs != 0 && elapsedUs > 0) {
        const double seconds = static_cast<double>(elapsedUs) / 1e6;
        result.nBitsPerSecond
            = static_cast<quint32>(static_cast<double>(result.nBytes - m_atInterval.nBytes) * 8 / seconds);
        result.unitsPerSecond = static_cast<double>(result.nUnits - m_atInterval.nUnits) / seconds;
    }
    m_intervalUs = nowUs;
    m_atInterval = result;
    return result;
}
