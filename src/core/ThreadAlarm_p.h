// Private: one timer for all connections of a thread that wait for something: with one for each of a thousand
// the event loop would do little else. Moments are microseconds of the monotonic clock.
#pragma once

#include "platform/Clock_p.h"

#include <QtCore/QTimer>

#include <algorithm>
#include <functional>
#include <limits>
#include <memory>
#include <set>
#include <utility>

namespace Nuvika
{
inline qint64 monotonicUs() { return static_cast<qint64>(Clock::monotonicNs() / 1000); }

class ThreadAlarm : public std::enable_shared_from_this<ThreadAlarm>
{
public:
    using Wake = std::function<void()>;
    static constexpr qint64 kNever = std::numeric_limits<qint64>::max();

    static std::shared_ptr<ThreadAlarm> ofThread()
    {
        thread_local std::weak_ptr<ThreadAlarm> t_alarm;
        std::shared_ptr<ThreadAlarm> alarm = t_alarm.lock();
        if (!alarm)
            t_alarm = alarm = std::make_shared<ThreadAlarm>();
        return alarm;
    }
    ThreadAlarm()
    {
        m_timer.setSingleShot(true);
        QObject::connect(&m_timer, &QTimer::timeout, &m_timer, [this] { ring(); });
    }

    void enter(qint64 us, const Wake& wake)
    {
        m_waiting.insert({us, &wake});
        arm();
    }
    // The timer may fire for nothing then.
    void leave(qint64 us, const Wake& wake) { m_waiting.erase({us, &wake}); }

private:
    void arm()
    {
        const qint64 us = m_waiting.empty() ? kNever : m_waiting.begin()->first;
        if (us >= m_armedUs)
            return;
        m_armedUs = us;
        const qint64 ms = std::max<qint64>((us - monotonicUs() + 999) / 1000, 0);
        m_timer.start(static_cast<int>(std::min<qint64>(ms, std::numeric_limits<int>::max())));
    }
    // Each is called once; what it enters for now waits for the next time.
    void ring()
    {
        const std::shared_ptr<ThreadAlarm> self = shared_from_this(); // the last of its users may go
        const qint64 now = monotonicUs();
        m_armedUs = kNever;
        while (!m_waiting.empty() && m_waiting.begin()->first <= now) {
            const Wake wake = *m_waiting.begin()->second; // its user may go
            m_waiting.erase(m_waiting.begin());
            arm(); // handlers may run event loops
            wake();
        }
        arm();
    }

    std::set<std::pair<qint64, const Wake*>> m_waiting;
    qint64 m_armedUs = kNever;
    QTimer m_timer;
};
} // namespace Nuvika
