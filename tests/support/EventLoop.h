// Running the event loop until something is true.
#pragma once

#include <QtCore/QCoreApplication>
#include <QtCore/QElapsedTimer>
#include <QtCore/QEventLoop>
#include <QtCore/QTimer>

template <class Condition>
bool waitFor(Condition condition, int timeoutMs = 10000)
{
    QTimer wake; // raw peers have no events of ours: their side is looked at now and then
    wake.start(2);
    QElapsedTimer time;
    time.start();
    while (!condition()) {
        if (time.elapsed() > timeoutMs)
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents);
    }
    return true;
}

// Lets everything that is due happen: for the proof that something did not.
inline void settle(int ms = 40)
{
    QElapsedTimer time;
    time.start();
    waitFor([&] { return time.elapsed() >= ms; });
}
