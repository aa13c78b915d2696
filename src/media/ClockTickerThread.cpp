#include <KepNuvikaUtil/ClockTickerThread.h>

#include <KepNuvikaUtil/DateTimeExt.h>

#include "core/Log_p.h"
#include "platform/Thread_p.h"

#include <algorithm>

ClockTickerThread::ClockTickerThread(QObject* parent) : QThread(parent) { }

ClockTickerThread::~ClockTickerThread() { ClockTickerThread::stop(); }

void ClockTickerThread::start(unsigned int tickIntervalMs)
{
    if (QThread::currentThread() == this) {
        NUVIKA_WARNING(lcMedia, "ClockTickerThread::start(): called from inside onTick()");
        return;
    }
    stop();
    m_nTickIntervalMs = tickIntervalMs;
    if (Nuvika::Threads::start(*this))
        m_running.acquire();
    else
        NUVIKA_CRITICAL(lcMedia, "ClockTickerThread::start(): no thread can be had");
}

void ClockTickerThread::stop()
{
    m_bStopRequest = true;
    if (QThread::currentThread() != this)
        wait();
}

void ClockTickerThread::onTick(unsigned int) { }

void ClockTickerThread::run()
{
    m_bStopRequest = false;
    quint32 t = DateTimeExt::getMonotonicTimeMs();
    m_running.release();
    while (!m_bStopRequest) {
        const quint32 now = DateTimeExt::getMonotonicTimeMs();
        const quint64 interval = std::max(m_nTickIntervalMs.load(), 1U);
        // Within a sixteenth of an interval before a boundary counts as having reached it. A clock that went
        // back further gives a negative difference, and so a sleep without measure.
        const auto difference = static_cast<quint64>(qint64(static_cast<qint32>(now - t)));
        const quint64 elapsed = (difference * 1000 + interval * 1000 / 16) / (interval * 1000);
        t += static_cast<quint32>(interval * (elapsed + 1));
        quint32 sleep = t - now;
        if (sleep > 5 * interval) {
            NUVIKA_WARNING(lcMedia,
                "ClockTickerThread::run(): unexpected time measure sleep = %u, ticks = %u", sleep,
                static_cast<unsigned int>(elapsed + 1));
            t = now + static_cast<quint32>(interval);
            sleep = static_cast<quint32>(interval);
        }
        DateTimeExt::msleep(sleep);
        onTick(t);
    }
}
