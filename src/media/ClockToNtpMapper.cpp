#include <KepNuvikaUtil/ClockToNtpMapper32.h>
#include <KepNuvikaUtil/ClockToNtpMapper64.h>

#include "core/Log_p.h"

namespace
{
__extension__ typedef unsigned __int128 Wide;

NTPTimestamp shifted(const NTPTimestamp& base, const NTPTimestamp& offset, bool bNegative)
{
    return bNegative ? base - offset : base + offset;
}

constexpr quint32 kFarthestAhead = 0x7FFFFFFF;
constexpr quint32 kRebaseDistance = 0x40000000;
} // namespace

// --- 32 bits -------------------------------------------------------------------------------------------

ClockToNtpMapper32::ClockToNtpMapper32(unsigned int numerator) : ClockToNtpMapper32(numerator, 1) { }

ClockToNtpMapper32::ClockToNtpMapper32(unsigned int numerator, unsigned int denominator)
    : m_ticksPerSecNumerator(numerator), m_ticksPerSecDenominator(denominator)
{
    NUVIKA_ASSERT(m_ticksPerSecDenominator != 0);
}

void ClockToNtpMapper32::setClockFrequency(unsigned int numerator) { setClockFrequency(numerator, 1); }

void ClockToNtpMapper32::setClockFrequency(unsigned int numerator, unsigned int denominator)
{
    m_ticksPerSecNumerator = numerator;
    m_ticksPerSecDenominator = denominator;
}

void ClockToNtpMapper32::setTimeBase(NTPTimestamp ntp, unsigned int clock)
{
    m_baseNtp = ntp;
    m_nBaseClock = clock;
    m_bHasTimeBase = true;
}

NTPTimestamp ClockToNtpMapper32::clockToNtp(unsigned int clock, int speedPercent) const
{
    if (!m_bHasTimeBase)
        return NTPTimestamp();
    quint32 distance = clock - m_nBaseClock;
    bool bNegative = distance > kFarthestAhead;
    if (bNegative)
        distance = 0U - distance;
    quint64 speed = static_cast<quint64>(speedPercent);
    if (speedPercent < 0) {
        bNegative = !bNegative;
        speed = 0U - speed;
    }
    const Wide ticks = Wide(quint64(m_ticksPerSecDenominator) * distance) * speed / 100;
    const NTPTimestamp offset
        = NTPTimestamp::fromDivision(static_cast<quint64>(ticks), m_ticksPerSecNumerator);
    return shifted(m_baseNtp, offset, bNegative);
}

unsigned int ClockToNtpMapper32::ntpToClock(NTPTimestamp ntp) const
{
    const bool bAhead = ntp >= m_baseNtp;
    const NTPTimestamp delta = (bAhead ? ntp - m_baseNtp : m_baseNtp - ntp) / m_ticksPerSecDenominator;
    const auto ticks = static_cast<quint32>(delta.MultiplyWith(m_ticksPerSecNumerator));
    return bAhead ? m_nBaseClock + ticks : m_nBaseClock - ticks;
}

bool ClockToNtpMapper32::rebaseIfNeeded(unsigned int clock, int speedPercent)
{
    const quint32 distance = speedPercent >= 0 ? clock - m_nBaseClock : m_nBaseClock - clock;
    if (!m_bHasTimeBase || distance < kRebaseDistance)
        return false;
    setTimeBase(clockToNtp(clock, speedPercent), clock);
    return true;
}

// --- 64 bits -------------------------------------------------------------------------------------------

ClockToNtpMapper64::ClockToNtpMapper64(quint64 numerator) : ClockToNtpMapper64(numerator, 1) { }

ClockToNtpMapper64::ClockToNtpMapper64(quint64 numerator, quint64 denominator)
    : m_ticksPerSecNumerator(numerator), m_ticksPerSecDenominator(static_cast<quint32>(denominator))
{
}

void ClockToNtpMapper64::setClockFrequency(quint64 numerator) { setClockFrequency(numerator, 1); }

void ClockToNtpMapper64::setClockFrequency(quint64 numerator, quint64 denominator)
{
    m_ticksPerSecNumerator = numerator;
    m_ticksPerSecDenominator = static_cast<quint32>(denominator);
}

void ClockToNtpMapper64::setTimeBase(NTPTimestamp ntp, quint64 clock)
{
    m_baseNtp = ntp;
    m_nBaseClock = clock;
    m_bHasTimeBase = true;
}

NTPTimestamp ClockToNtpMapper64::clockToNtp(quint64 clock) const
{
    if (!m_bHasTimeBase)
        return NTPTimestamp();
    quint64 distance = clock - m_nBaseClock;
    const bool bNegative = (distance >> 63) != 0;
    if (bNegative)
        distance = 0U - distance;
    const NTPTimestamp offset
        = NTPTimestamp::fromDivision(m_ticksPerSecDenominator * distance, m_ticksPerSecNumerator);
    return shifted(m_baseNtp, offset, bNegative);
}

quint64 ClockToNtpMapper64::ntpToClock(NTPTimestamp ntp) const
{
    const bool bAhead = ntp >= m_baseNtp;
    const NTPTimestamp delta = (bAhead ? ntp - m_baseNtp : m_baseNtp - ntp) / m_ticksPerSecDenominator;
    const quint64 ticks = delta.MultiplyWith(m_ticksPerSecNumerator);
    return bAhead ? m_nBaseClock + ticks : m_nBaseClock - ticks;
}
