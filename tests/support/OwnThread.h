// A QThread whose end the thread sanitizer sees: Qt's own is not instrumented, so QThread::wait() orders
// nothing for it.
#pragma once

#include <QtCore/QThread>

#include <atomic>
#include <functional>
#include <memory>
#include <thread>

// Runs the body in a QThread, and waits for the end of all that the thread does, its finished() and its
// thread-local objects included.
inline void inOwnThread(const std::function<void()>& body)
{
    struct End {
        std::atomic<bool>* pEnded = nullptr;
        ~End() { *pEnded = true; }
    };
    std::atomic<bool> bEnded{false};
    const std::unique_ptr<QThread> thread(QThread::create([&] {
        thread_local End t_end; // made first, so it ends last
        t_end.pEnded = &bEnded;
        body();
    }));
    thread->start();
    thread->wait();
    while (!bEnded)
        std::this_thread::yield();
}
