#include "RtpTimeline.h"

#include <KepNuvikaUtil/RTPPacket.h>

#include <algorithm>

namespace
{
constexpr int kRealTime = 100; // percent
constexpr quint16 kFurthestJump = 65436; // beyond, a packet is late
constexpr quint32 kLongestUnitSeconds = 2; // a longer silence is a gap
constexpr quint64 kReportJitterMs = 20; // two reports need not agree to the last bit
} // namespace

RtpTimeline::RtpTimeline(unsigned int clockRate, bool bSinglePackets)
    : m_mapper(clockRate), m_nClockRate(clockRate), m_bSinglePackets(bSinglePackets)
{
}

void RtpTimeline::takeReport(const NTPTimestamp& ntp, unsigned int rtpTimestamp)
{
    if (!ntp.isNull())
        m_mapper.setTimeBase(ntp, rtpTimestamp);
}

void RtpTimeline::takePacket(const RTPPacket& packet)
{
    const quint16 seqNum = packet.getSeqNum();
    const auto distance = static_cast<quint16>(seqNum - m_lastSeqNum.value_or(seqNum));
    const bool bFirst = !m_lastSeqNum.has_value();
    if (!bFirst && (distance == 0 || distance > kFurthestJump))
        return; // late: what it completes was given up already
    const bool bJump = bFirst || distance != 1;
    const quint32 time = packet.getRawTimestamp();
    if (bFirst || time != m_unit.nTime) {
        if (!bFirst)
            closeUnit(time, bJump);
        m_unit = {time, bJump && !m_bSinglePackets, false};
    } else if (bJump) {
        m_unit.bDamaged = true;
    }
    m_unit.bEnded = m_bSinglePackets || packet.isMarked();
    m_lastSeqNum = seqNum;
    m_mapper.rebaseIfNeeded(time, kRealTime);
    m_now = m_mapper.clockToNtp(time, kRealTime);
}

void RtpTimeline::closeUnit(quint32 nNextTime, bool bJump)
{
    const quint32 ticks = nNextTime - m_unit.nTime;
    const bool bWhole = !m_unit.bDamaged && (!bJump || m_unit.bEnded);
    if (!bWhole || ticks > kLongestUnitSeconds * m_nClockRate)
        return;
    if (bJump) // what it covered reaches as far as its forerunner's
        record(m_unit.nTime, std::min(m_nLastTicks, ticks));
    else
        record(m_unit.nTime, m_nLastTicks = ticks);
}

void RtpTimeline::record(quint32 nFrom, quint32 nTicks)
{
    if (!m_mapper.hasTimeBase() || nTicks == 0)
        return;
    m_recorded.add(m_mapper.clockToNtp(nFrom, kRealTime), m_mapper.clockToNtp(nFrom + nTicks, kRealTime),
        NTPTimestamp::fromMilliseconds(kReportJitterMs));
}

void RtpTimeline::limitTo(const NTPTimestamp& length)
{
    const NTPTimestamp oldest = m_now > length ? m_now - length : NTPTimestamp();
    m_recorded.limitTo(oldest, m_now + length); // further ahead: from before the sender's clock was set back
}
