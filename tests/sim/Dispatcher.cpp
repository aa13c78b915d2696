#include "sim/Dispatcher.h"

#include "sim/Kernel.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QSocketNotifier>

#include <algorithm>

#include <sys/epoll.h>

extern uint qGlobalPostedEventsCount(); // of QtCore, for dispatchers

namespace sim
{
Dispatcher::~Dispatcher()
{
    if (!m_timers.empty() || !m_notifiers.empty())
        fail("%zu timers and %zu notifiers are left", m_timers.size(), m_notifiers.size());
}

bool Dispatcher::processEvents(QEventLoop::ProcessEventsFlags flags)
{
    Kernel::get().enter("ppoll");
    m_bInterrupted = false;
    emit awake();
    m_bWoken = false;
    QCoreApplication::sendPostedEvents();
    // As Qt's: it says that it is about to block, unless an event was posted meanwhile.
    const bool bWait = (flags & QEventLoop::WaitForMoreEvents) != 0 && !m_bWoken && !m_bInterrupted;
    const bool bTimers = (flags & QEventLoop::X11ExcludeTimers) == 0;
    const bool bNotifiers = (flags & QEventLoop::ExcludeSocketNotifiers) == 0;
    if (bWait)
        emit aboutToBlock();
    if (m_bInterrupted)
        return false;
    if (bWait && !m_bWoken)
        sleep(bTimers, bNotifiers);
    const int told = (bNotifiers ? fireNotifiers() : 0) + (bTimers ? fireTimers() : 0);
    return told > 0;
}

void Dispatcher::sleep(bool bTimers, bool bNotifiers)
{
    const auto isOver = [&] {
        return m_bWoken
            || (bNotifiers && std::any_of(m_notifiers.begin(), m_notifiers.end(), [](const auto* n) {
                   return isReady(*n);
               }));
    };
    Scheduler::get().wait("an event loop", isOver, bTimers ? nextTimer() : kNever);
}

bool Dispatcher::hasPendingEvents() { return qGlobalPostedEventsCount() > 0; }

// --- socket notifiers ----------------------------------------------------------------------------------

bool Dispatcher::isReady(const QSocketNotifier& notifier)
{
    const unsigned int state = Kernel::get().file(static_cast<int>(notifier.socket()), "ppoll")->poll();
    switch (notifier.type()) {
    case QSocketNotifier::Read:
        return (state & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0;
    case QSocketNotifier::Write:
        return (state & (EPOLLOUT | EPOLLERR)) != 0;
    default:
        return (state & (EPOLLPRI | EPOLLHUP | EPOLLERR)) != 0;
    }
}

void Dispatcher::registerSocketNotifier(QSocketNotifier* notifier) { m_notifiers.push_back(notifier); }

void Dispatcher::unregisterSocketNotifier(QSocketNotifier* notifier)
{
    for (auto* list : {&m_notifiers, &m_ready})
        list->erase(std::remove(list->begin(), list->end(), notifier), list->end());
}

int Dispatcher::fireNotifiers()
{
    for (QSocketNotifier* notifier : m_notifiers) {
        if (std::find(m_ready.begin(), m_ready.end(), notifier) == m_ready.end() && isReady(*notifier))
            m_ready.push_back(notifier);
    }
    int told = 0;
    for (; !m_ready.empty(); ++told) {
        QSocketNotifier* notifier = m_ready.front();
        m_ready.erase(m_ready.begin());
        QEvent event(QEvent::SockAct);
        QCoreApplication::sendEvent(notifier, &event);
    }
    return told;
}

// --- timers --------------------------------------------------------------------------------------------

// A coarse timer may be five in a hundred early or late, and every timer a little late.
Time Dispatcher::dueAfter(Time from, const Timer& timer) const
{
    Random& random = Kernel::get().random();
    Time interval = timer.interval;
    if (timer.type != Qt::PreciseTimer && interval >= 20 * kMs)
        interval = interval - interval / 20 + random.below(interval / 10);
    return from + interval + (interval > 0 ? random.below(100000) : 0);
}

void Dispatcher::registerTimer(int id, int interval, Qt::TimerType type, QObject* object)
{
    m_timers.push_back({id, static_cast<Time>(interval) * kMs, type, object, 0, false});
    m_timers.back().due = dueAfter(Scheduler::get().now(), m_timers.back());
}

bool Dispatcher::unregisterTimer(int id)
{
    const auto found
        = std::find_if(m_timers.begin(), m_timers.end(), [=](const Timer& t) { return t.nId == id; });
    if (found == m_timers.end())
        return false;
    m_timers.erase(found);
    return true;
}

bool Dispatcher::unregisterTimers(QObject* object)
{
    const auto end = std::remove_if(
        m_timers.begin(), m_timers.end(), [=](const Timer& timer) { return timer.object == object; });
    const bool bAny = end != m_timers.end();
    m_timers.erase(end, m_timers.end());
    return bAny;
}

QList<QAbstractEventDispatcher::TimerInfo> Dispatcher::registeredTimers(QObject* object) const
{
    QList<TimerInfo> list;
    for (const Timer& timer : m_timers) {
        if (timer.object == object)
            list.append(TimerInfo(timer.nId, static_cast<int>(timer.interval / kMs), timer.type));
    }
    return list;
}

int Dispatcher::remainingTime(int id)
{
    const Time now = Scheduler::get().now();
    for (const Timer& timer : m_timers) {
        if (timer.nId == id)
            return timer.due <= now ? 0 : static_cast<int>((timer.due - now + kMs - 1) / kMs);
    }
    return -1;
}

Time Dispatcher::nextTimer() const
{
    Time next = kNever;
    for (const Timer& timer : m_timers) {
        if (!timer.bFiring)
            next = std::min(next, timer.due);
    }
    return next;
}

// Each that is due now fires once, and none within itself.
int Dispatcher::fireTimers()
{
    const Time now = Scheduler::get().now();
    std::vector<std::pair<Time, int>> due;
    for (const Timer& timer : m_timers) {
        if (timer.due <= now && !timer.bFiring)
            due.emplace_back(timer.due, timer.nId);
    }
    std::stable_sort(due.begin(), due.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    const auto find = [this](int id) {
        return std::find_if(m_timers.begin(), m_timers.end(), [=](const Timer& t) { return t.nId == id; });
    };
    int fired = 0;
    for (const auto& [time, id] : due) {
        auto timer = find(id);
        if (timer == m_timers.end() || timer->bFiring || timer->due > now)
            continue;
        timer->due = std::max(dueAfter(timer->due, *timer), Scheduler::get().now());
        timer->bFiring = true;
        QTimerEvent event(id);
        QCoreApplication::sendEvent(timer->object, &event);
        ++fired;
        timer = find(id);
        if (timer != m_timers.end())
            timer->bFiring = false;
    }
    return fired;
}
} // namespace sim
