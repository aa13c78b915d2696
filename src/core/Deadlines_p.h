// Private: all that one connection waits for, on the timer that those of a thread share. Moments are
// microseconds of the monotonic clock.
#pragma once

#include "core/ThreadAlarm_p.h"

#include <array>

namespace Nuvika
{
// `Waits`: has the enumeration `Kind`, which ends in `eCount`.
template <class Waits>
class Deadlines : public Waits
{
public:
    using Kind = typename Waits::Kind;
    static constexpr qint64 kNever = ThreadAlarm::kNever;

    explicit Deadlines(ThreadAlarm::Wake expired) : m_expired(std::move(expired)) { clearAll(); }
    ~Deadlines() { stop(); }
    Deadlines(const Deadlines&) = delete;
    Deadlines& operator=(const Deadlines&) = delete;

    // In so many milliseconds from now; with 0 as "for ever".
    void setLimit(Kind kind, int ms) { ms > 0 ? setAt(kind, monotonicUs() + ms * 1000LL) : clear(kind); }
    // The same, give or take 25 ms, so that those of many connections come together.
    void setAbout(Kind kind, int ms)
    {
        constexpr qint64 kGridUs = 50000;
        const qint64 us = monotonicUs() + ms * 1000LL;
        if (ms * 1000LL < 4 * kGridUs)
            setLimit(kind, ms);
        else
            setAt(kind, (us + kGridUs / 2) / kGridUs * kGridUs);
    }
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

    // When it is called: the first that is due, which it forgets; eCount when there is none, and the
    // alarm waits for the next.
    Kind takeDue()
    {
        const auto first = std::min_element(m_due.begin(), m_due.end());
        const bool bDue = *first <= monotonicUs();
        if (bDue)
            *first = kNever;
        if (m_armedUs != kNever)
            m_alarm->leave(m_armedUs, m_expired);
        m_armedUs = kNever; // waits for the next, also in event loops that handlers run
        const qint64 next = *std::min_element(m_due.begin(), m_due.end());
        if (next != kNever)
            arm(next);
        return bDue ? static_cast<Kind>(first - m_due.begin()) : Waits::eCount;
    }
    void stop()
    {
        clearAll();
        if (m_armedUs != kNever)
            m_alarm->leave(m_armedUs, m_expired);
        m_armedUs = kNever;
    }

private:
    void arm(qint64 us)
    {
        if (!m_alarm)
            m_alarm = ThreadAlarm::ofThread();
        m_alarm->leave(m_armedUs, m_expired);
        m_armedUs = us;
        m_alarm->enter(us, m_expired);
    }

    const ThreadAlarm::Wake m_expired; // its place is its name
    std::shared_ptr<ThreadAlarm> m_alarm;
    std::array<qint64, Waits::eCount> m_due{};
    qint64 m_armedUs = kNever;
};
} // namespace Nuvika
