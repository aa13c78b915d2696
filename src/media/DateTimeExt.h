/// \file
/// Monotonic time, sleeping, and differences of times. Free functions may be called from any thread; the
/// small classes are used by one thread at a time.
#pragma once

#include <KepNuvikaUtil/Export.h>

#include <QtCore/QDateTime>

namespace DateTimeExt
{
/// Milliseconds of the monotonic clock; wraps every 49.7 days. Take differences unsigned.
KEPNUVIKAUTIL_EXPORT unsigned int getMonotonicTimeMs();
/// The same times 1000: millisecond resolution, wraps every 71.6 minutes.
KEPNUVIKAUTIL_EXPORT unsigned int getMonotonicTimeUs();
KEPNUVIKAUTIL_EXPORT void msleep(unsigned int ms);
/// Rounded to whole milliseconds, at least one unless \a us is 0.
KEPNUVIKAUTIL_EXPORT void usleep(unsigned int us);

/// Milliseconds from \a a to \a b.
KEPNUVIKAUTIL_EXPORT qint64 DiffMSecs(const QDateTime& a, const QDateTime& b);
/// The forward distance from \a pts1 to \a pts2 on the ring of 600 x 2^32 presentation timestamps. A value
/// outside the ring is warned of, and computed with all the same.
KEPNUVIKAUTIL_EXPORT qint64 DiffPts(qint64 pts1, qint64 pts2);

/// The monotonic milliseconds in 64 bits. Each call must follow the last within 49.7 days, to see every wrap.
class KEPNUVIKAUTIL_EXPORT MonotonicTime64
{
public:
    quint64 operator()();

private:
    quint32 m_nLast = 0;
    quint32 m_nWraps = 0;
};

/// A stop watch of microseconds.
class KEPNUVIKAUTIL_EXPORT TimeDiff
{
public:
    TimeDiff();
    void start();
    /// Microseconds since start(), cut to 32 bits; 0 when never started. May be read again and again.
    unsigned int end() const;

private:
    bool m_bStarted = false;
    qint64 m_nFrequency; // of the counter, per second
    qint64 m_nStart = 0;
};
} // namespace DateTimeExt
