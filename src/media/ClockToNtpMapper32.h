#pragma once

#include <KepNuvikaUtil/Export.h>
#include <KepNuvikaUtil/NTPTimestamp.h>

/// Maps a 32-bit media clock, such as RTP timestamps, to NTP time and back, from one pair of both (a sender
/// report has one) and the clock's rate of numerator/denominator ticks a second.
///
/// A clock value is read as a signed distance of at most 2^31 ticks from the base, which takes care of the
/// wrap; rebaseIfNeeded() on every packet keeps the base near enough.
///
/// Threads: a plain value. Neither the numerator nor the denominator may be 0: check rates that a peer
/// announces.
class KEPNUVIKAUTIL_EXPORT ClockToNtpMapper32
{
public:
    explicit ClockToNtpMapper32(unsigned int numerator);
    ClockToNtpMapper32(unsigned int numerator, unsigned int denominator);

    /// The base stays as it is.
    void setClockFrequency(unsigned int numerator);
    void setClockFrequency(unsigned int numerator, unsigned int denominator);
    void setTimeBase(NTPTimestamp ntp, unsigned int clock);
    bool hasTimeBase() const { return m_bHasTimeBase; }

    /// The null timestamp without a time base. \a speedPercent 100 is real time, 200 double speed; a negative
    /// speed runs backwards.
    NTPTimestamp clockToNtp(unsigned int clock, int speedPercent) const;
    unsigned int ntpToClock(NTPTimestamp ntp) const;
    /// Moves the base to \a clock once that is a quarter of the clock's range ahead of it; true when moved.
    bool rebaseIfNeeded(unsigned int clock, int speedPercent);

private:
    quint32 m_ticksPerSecNumerator;
    quint32 m_ticksPerSecDenominator;
    quint32 m_nBaseClock = 0;
    NTPTimestamp m_baseNtp;
    bool m_bHasTimeBase = false;
};
