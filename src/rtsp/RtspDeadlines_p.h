// Private: all that one session waits for, on a timer that the sessions of a thread share. Moments are
// microseconds of the monotonic clock.
#pragma once

#include "rtsp/RtspAlarm_p.h"

#include <array>

namespace Nuvika
{
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
    static constexpr qint64 kNever = RtspAlarm::kNever;

    explicit RtspDeadlines(RtspAlarm::Wake expired) : m_expired(std::move(expired)) { clearAll(); }
    ~RtspDeadlines() { stop(); }
    RtspDeadlines(const RtspDeadlines&) = delete;
    RtspDeadlines& operator=(const RtspDeadlines&) = delete;

    // In so many milliseconds from now; with 0 as "for ever".
    void setLimit(Kind kind, int ms) { ms > 0 ? setAt(kind, monotonicUs() + ms * 1000LL) : clear(kind); }
    // The same, give or take 25 ms, so that those of many sessions come together.
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
        return bDue ? static_cast<Kind>(first - m_due.begin()) : eCount;
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
            m_alarm = RtspAlarm::ofThread();
        m_alarm->leave(m_armedUs, m_expired);
        m_armedUs = us;
        m_alarm->enter(us, m_expired);
    }

    const RtspAlarm::Wake m_expired; // its place is its name
    std::shared_ptr<RtspAlarm> m_alarm;
    std::array<qint64, eCount> m_due{};
    qint64 m_armedUs = kNever;
};
} // namespace Nuvika
