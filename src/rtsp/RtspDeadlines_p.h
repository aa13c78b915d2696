// Private: all that one session waits for, on one timer. Moments are microseconds of the monotonic clock.
#pragma once

#include "platform/Clock_p.h"

#include <QtCore/QTimer>

#include <algorithm>
#include <array>
#include <limits>

namespace Nuvika
{
inline qint64 monotonicUs() { return static_cast<qint64>(Clock::monotonicNs() / 1000); }

class RtspDeadlines
{
public:
    enum Kind {
        eConnect,
        eAnswer,
        eFirstPacket,
        eSilence,
        eKeepAlive,
        eReport,
        eStatistics,
        eReorder,
        eTeardown,
        eEnd,
        eCount
    };
    static constexpr qint64 kNever = std::numeric_limits<qint64>::max();

    template <class Expired>
    explicit RtspDeadlines(Expired expired)
    {
        clearAll();
        m_timer.setSingleShot(true);
        QObject::connect(&m_timer, &QTimer::timeout, &m_timer, expired);
    }

    // In so many milliseconds from now; with 0 as "for ever".
    void setLimit(Kind kind, int ms) { ms > 0 ? setAt(kind, monotonicUs() + ms * 1000LL) : clear(kind); }
    void setAt(Kind kind, qint64 us)
    {
        m_due[kind] = us;
        if (us < m_armedUs)
            arm(us);
    }
    void setEarlier(Kind kind, qint64 us) { setAt(kind, std::min(m_due[kind], us)); }
    // The timer may fire for nothing then.
    void clear(Kind kind) { m_due[kind] = kNever; }
    void clearAll() { m_due.fill(kNever); }
    bool isSet(Kind kind) const { return m_due[kind] != kNever; }

    // When the timer has fired: the first that is due, which it forgets; eCount when there is none, and the
    // timer waits for the next.
    Kind takeDue()
    {
        const auto first = std::min_element(m_due.begin(), m_due.end());
        const bool bDue = *first <= monotonicUs();
        if (bDue)
            *first = kNever;
        m_armedUs = kNever; // waits for the next, also in event loops that handlers run
        const qint64 next = *std::min_element(m_due.begin(), m_due.end());
        if (next != kNever)
            arm(next);
        return bDue ? static_cast<Kind>(first - m_due.begin()) : eCount;
    }
    void stop()
    {
        clearAll();
        m_timer.stop();
        m_armedUs = kNever;
    }

private:
    void arm(qint64 us)
    {
        m_armedUs = us;
        const qint64 ms = std::max<qint64>((us - monotonicUs() + 999) / 1000, 0);
        m_timer.start(static_cast<int>(std::min<qint64>(ms, std::numeric_limits<int>::max())));
    }

    std::array<qint64, eCount> m_due{};
    qint64 m_armedUs = kNever;
    QTimer m_timer;
};
} // namespace Nuvika
