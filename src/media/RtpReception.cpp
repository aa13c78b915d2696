#include <KepNuvikaUtil/RtpReception.h>

#include <KepNuvikaUtil/RTPPacket.h>

#include "media/RtpSequence_p.h"

#include <QtCore/QtEndian>

#include <cstring>
#include <utility>

using Nuvika::SequenceStep;

namespace
{
constexpr quint32 kNone = 0x10000;
constexpr qint64 kSecondUs = 1000000;

// Time in ticks, modulo 2^32.
quint32 ticks(qint64 us, quint32 rate)
{
    const quint64 seconds = static_cast<quint64>(us / kSecondUs) * rate;
    return static_cast<quint32>(seconds + static_cast<quint64>(us % kSecondUs * qint64(rate) / kSecondUs));
}

unsigned char* put(unsigned char* out, quint32 word)
{
    qToBigEndian(word, out);
    return out + sizeof word;
}

unsigned char* putHead(unsigned char* out, int count, int type, std::ptrdiff_t size)
{
    const quint32 first = 0x80U | static_cast<quint32>(count);
    return put(out, first << 24 | static_cast<quint32>(type) << 16 | static_cast<quint32>(size / 4 - 1));
}

unsigned char* putBlock(unsigned char* out, const RtcpReportBlock& block)
{
    const quint32 lost = static_cast<quint32>(block.nCumulativeLost) & 0xFFFFFF;
    for (const quint32 word : {block.nSsrc, quint32(block.nFractionLost) << 24 | lost, block.nExtendedHighest,
             block.nJitter, block.nLastSr, block.nDelaySinceLastSr})
        out = put(out, word);
    return out;
}
} // namespace

RtpReception::RtpReception(quint32 ssrc, quint32 clockRate)
    : m_nSsrc(ssrc), m_nClockRate(clockRate), m_nAwaited(kNone)
{
}

bool RtpReception::update(const RTPPacket& packet, qint64 arrivalUs)
{
    return packet.isHeaderValid() && update(packet.getSeqNum(), packet.getRawTimestamp(), arrivalUs);
}

bool RtpReception::update(quint16 seqNum, quint32 rtpTimestamp, qint64 arrivalUs)
{
    if (!m_bStarted)
        beginRun(seqNum);
    if (!countSequence(seqNum))
        return false;
    ++m_nReceived;
    countJitter(rtpTimestamp, arrivalUs);
    return true;
}

void RtpReception::beginRun(quint16 first)
{
    m_bStarted = true;
    m_bHasTransit = false;
    m_nHighest = first;
    m_nAwaited = kNone;
    m_nBase = first;
    m_nCycles = m_nReceived = m_nExpectedPrior = m_nReceivedPrior = 0;
}

bool RtpReception::countSequence(quint16 seqNum)
{
    const auto distance = static_cast<quint16>(seqNum - m_nHighest);
    const SequenceStep step = Nuvika::sequenceStep(distance);
    if (step == SequenceStep::eJump) {
        if (m_nAwaited != seqNum) {
            m_nAwaited = static_cast<quint16>(seqNum + 1U);
            return false;
        }
        beginRun(static_cast<quint16>(seqNum - 1U));
        m_nReceived = 1; // the one before
    }
    if (step != SequenceStep::eBehind) {
        if (seqNum < m_nHighest)
            m_nCycles += 0x10000;
        m_nHighest = seqNum;
        m_nAwaited = kNone;
    }
    return true;
}

void RtpReception::countJitter(quint32 rtpTimestamp, qint64 arrivalUs)
{
    if (m_nClockRate == 0)
        return;
    const quint32 transit = ticks(arrivalUs, m_nClockRate) - rtpTimestamp;
    const quint32 change = transit - m_nTransit;
    m_nTransit = transit;
    if (!std::exchange(m_bHasTransit, true))
        return;
    const quint32 distance = change > 0x7FFFFFFF ? 0U - change : change;
    m_jitter += distance - ((m_jitter + 8) >> 4);
}

void RtpReception::senderReport(NTPTimestamp ntp, qint64 arrivalUs)
{
    m_lastSr = ntp;
    m_lastSrUs = arrivalUs;
}

qint32 RtpReception::cumulativeLost() const
{
    constexpr qint64 kMost = 0x7FFFFF;
    return static_cast<qint32>(qBound(-kMost - 1, qint64(expected()) - m_nReceived, kMost));
}

quint8 RtpReception::takeFraction()
{
    const quint32 expectedSince = expected() - m_nExpectedPrior;
    const qint64 lost = qint64(expectedSince) - (m_nReceived - m_nReceivedPrior);
    m_nExpectedPrior = expected();
    m_nReceivedPrior = m_nReceived;
    return expectedSince == 0 || lost <= 0
        ? quint8(0)
        : static_cast<quint8>(qMin<qint64>(lost * 256 / expectedSince, 255));
}

RtcpReportBlock RtpReception::takeReport(qint64 nowUs)
{
    RtcpReportBlock block;
    block.nSsrc = m_nSsrc;
    block.nFractionLost = takeFraction();
    block.nCumulativeLost = cumulativeLost();
    block.nExtendedHighest = extendedHighest();
    block.nJitter = jitter();
    if (!m_lastSr.isNull()) {
        block.nLastSr = static_cast<quint32>(m_lastSr.toHostByteOrder() >> 16);
        const qint64 since = qBound<qint64>(0, nowUs - m_lastSrUs, 65535 * kSecondUs);
        block.nDelaySinceLastSr = static_cast<quint32>(since * 65536 / kSecondUs);
    }
    return block;
}

int RtpReception::writeReport(
    unsigned char* out, int capacity, quint32 ownSsrc, const QByteArray& cname, qint64 nowUs)
{
    constexpr std::ptrdiff_t kReport = 8;
    constexpr std::ptrdiff_t kBlock = 24;
    const bool bBlock = m_nReceived != m_nReceivedPrior;
    const auto length = static_cast<std::size_t>(qMin(cname.size(), 255));
    const std::ptrdiff_t report = bBlock ? kReport + kBlock : kReport;
    const std::ptrdiff_t description
        = (8 + 2 + static_cast<std::ptrdiff_t>(length)) / 4 * 4 + 4; // with an end
    if (capacity < report + description)
        return 0;
    out = put(putHead(out, bBlock ? 1 : 0, eRtcpRR, report), ownSsrc);
    if (bBlock)
        out = putBlock(out, takeReport(nowUs));
    std::memset(out, 0, static_cast<std::size_t>(description));
    out = put(putHead(out, 1, eRtcpSDES, description), ownSsrc);
    out[0] = eSdesCNAME;
    out[1] = static_cast<unsigned char>(length);
    std::memcpy(out + 2, cname.constData(), length);
    return static_cast<int>(report + description);
}
