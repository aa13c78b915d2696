#pragma once

#include <KepNuvikaUtil/Export.h>
#include <KepNuvikaUtil/NTPTimestamp.h>

/// ClockToNtpMapper32 for a 64-bit clock: no speed, no rebasing. A denominator keeps its low 32 bits only.
/// Threads: a plain value.
class KEPNUVIKAUTIL_EXPORT ClockToNtpMapper64
{
public:
    explicit ClockToNtpMapper64(quint64 numerator);
    ClockToNtpMapper64(quint64 numerator, quint64 denominator);

    /// The base stays as it is.
    void setClockFrequency(quint64 numerator);
    void setClockFrequency(quint64 numerator, quint64 denominator);
    void setTimeBase(NTPTimestamp ntp, quint64 clock);
    bool hasTimeBase() const { return m_bHasTimeBase; }

    /// The null timestamp without a time base.
    NTPTimestamp clockToNtp(quint64 clock) const;
    quint64 ntpToClock(NTPTimestamp ntp) const;

private:
    quint64 m_ticksPerSecNumerator;
    quint32 m_ticksPerSecDenominator;
    quint64 m_nBaseClock = 0;
    NTPTimestamp m_baseNtp;
    bool m_bHasTimeBase = false;
};
