// The event dispatcher of a simulated thread: Qt's contract, on virtual time and simulated descriptors.
#pragma once

#include "sim/Scheduler.h"

#include <QtCore/QAbstractEventDispatcher>

#include <functional>
#include <vector>

namespace sim
{
class Dispatcher : public QAbstractEventDispatcher
{
public:
    ~Dispatcher() override; // nothing may be registered any more
    bool processEvents(QEventLoop::ProcessEventsFlags flags) override;
    bool hasPendingEvents() override;
    void registerSocketNotifier(QSocketNotifier* notifier) override;
    void unregisterSocketNotifier(QSocketNotifier* notifier) override;
    void registerTimer(int id, int interval, Qt::TimerType type, QObject* object) override;
    bool unregisterTimer(int id) override;
    bool unregisterTimers(QObject* object) override;
    QList<TimerInfo> registeredTimers(QObject* object) const override;
    int remainingTime(int id) override;
    void wakeUp() override { m_bWoken = true; }
    void interrupt() override
    {
        m_bInterrupted = true;
        wakeUp();
    }
    void flush() override { }

private:
    struct Timer {
        int nId;
        Time interval;
        Qt::TimerType type;
        QObject* object;
        Time due;
        bool bFiring;
    };

    static bool isReady(const QSocketNotifier& notifier);
    void sleep(bool bTimers, bool bNotifiers);
    Time nextTimer() const;
    Time dueAfter(Time from, const Timer& timer) const;
    int fireTimers();
    int fireNotifiers();

    std::vector<Timer> m_timers;
    std::vector<QSocketNotifier*> m_notifiers;
    std::vector<QSocketNotifier*> m_ready; // still to be told
    bool m_bWoken = false;
    bool m_bInterrupted = false;
};
} // namespace sim
