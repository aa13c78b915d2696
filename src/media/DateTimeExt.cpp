#include <KepNuvikaUtil/DateTimeExt.h>

#include "core/Log_p.h"
#include "platform/Clock_p.h"

using namespace Nuvika;

namespace
{
constexpr qint64 kPtsRing = qint64(600) << 32;
constexpr qint64 kNanosecondsPerSecond = 1'000'000'000;
constexpr qint64 kMicrosecondsPerSecond = 1'000'000;

__extension__ typedef __int128 Wide;

qint64 counter() { return static_cast<qint64>(Clock::monotonicNs()); }
} // namespace

unsigned int DateTimeExt::getMonotonicTimeMs() { return Clock::monotonicMs(); }

unsigned int DateTimeExt::getMonotonicTimeUs() { return Clock::monotonicMs() * 1000U; }

void DateTimeExt::msleep(unsigned int ms) { Clock::sleepMs(ms); }

void DateTimeExt::usleep(unsigned int us)
{
    const quint64 ms = (quint64(us) + 500) / 1000;
    Clock::sleepMs(ms == 0 && us != 0 ? 1 : static_cast<unsigned int>(ms));
}

qint64 DateTimeExt::DiffMSecs(const QDateTime& a, const QDateTime& b) { return a.msecsTo(b); }

qint64 DateTimeExt::DiffPts(qint64 pts1, qint64 pts2)
{
    if (pts1 < 0 || pts1 >= kPtsRing)
        NUVIKA_WARNING(lcMedia, "DateTimeExt::DiffPts pts1 out of range: %lld", static_cast<long long>(pts1));
    if (pts2 < 0 || pts2 >= kPtsRing)
        NUVIKA_WARNING(lcMedia, "DateTimeExt::DiffPts pts2 out of range: %lld", static_cast<long long>(pts2));
    const quint64 difference = static_cast<quint64>(pts2) - static_cast<quint64>(pts1);
    return static_cast<qint64>(pts1 <= pts2 ? difference : difference + static_cast<quint64>(kPtsRing));
}

quint64 DateTimeExt::MonotonicTime64::operator()()
{
    const quint32 now = Clock::monotonicMs();
    if (now < m_nLast)
        ++m_nWraps;
    m_nLast = now;
    return (quint64(m_nWraps) << 32) + now;
}

DateTimeExt::TimeDiff::TimeDiff() : m_nFrequency(kNanosecondsPerSecond) { }

void DateTimeExt::TimeDiff::start()
{
    m_nStart = counter();
    m_bStarted = true;
}

unsigned int DateTimeExt::TimeDiff::end() const
{
    if (!m_bStarted)
        return 0;
    return static_cast<unsigned int>(Wide(counter() - m_nStart) * kMicrosecondsPerSecond / m_nFrequency);
}
