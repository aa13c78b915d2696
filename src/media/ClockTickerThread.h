#pragma once

#include <KepNuvikaUtil/Export.h>

#include <QtCore/QSemaphore>
#include <QtCore/QThread>

#include <atomic>

/// A thread that calls onTick() at a fixed interval without drift: ticks lie on multiples of the interval
/// from the start, whatever a tick takes. Ticks that were missed are skipped, never delivered in a burst; a
/// clock that jumps by more than five intervals is warned of, and the ticks start afresh from there.
///
/// Threads: one controlling thread calls start() and stop(); onTick() runs in the ticking thread, and hands
/// on what belongs elsewhere.
///
/// Lifetime: the destructor stops, but by then the subclass is gone: a subclass calls stop() in its own.
class KEPNUVIKAUTIL_EXPORT ClockTickerThread : public QThread
{
    Q_OBJECT
public:
    explicit ClockTickerThread(QObject* parent = nullptr);
    ~ClockTickerThread() override;

    /// Starts, or starts again with another interval; returns when the thread runs. 0 counts as 1 ms. Refused
    /// with a warning from inside onTick(). When the system gives no thread, a critical record says so and
    /// isRunning() is false.
    void start(unsigned int tickIntervalMs);
    /// Returns when the thread has ended, up to one interval later. From inside onTick() it returns at once,
    /// and the thread ends behind that tick.
    void stop();
    unsigned int getTickIntervalMSec() const { return m_nTickIntervalMs; }

protected:
    void run() override;
    /// \a scheduledTimeMs: the boundary that this tick belongs to, in monotonic milliseconds.
    virtual void onTick(unsigned int scheduledTimeMs);
    void setTickIntervalMSec(unsigned int intervalMs) { m_nTickIntervalMs = intervalMs; }

private:
    std::atomic<bool> m_bStopRequest{false};
    std::atomic<quint32> m_nTickIntervalMs{0};
    QSemaphore m_running;
};
