// Virtual time, what happens in it, and the threads, of which one runs at a time.
//
// A thread keeps the baton until it waits, or yields within a system call. Then the seed chooses among the
// threads that can go on. Where none can, the clock moves to the next event or deadline: nothing ever waits
// in real time. Threads that all wait without a deadline are a deadlock, which ends the run.
#pragma once

#include "sim/Random.h"

#include <cstdint>
#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <utility>
#include <vector>

#include <dlfcn.h>
#include <pthread.h>

namespace sim
{
using Time = std::uint64_t; // ns
constexpr Time kNever = ~Time{0};
constexpr Time kMs = 1000000;
inline Time timeOf(const timespec& time)
{
    return static_cast<Time>(time.tv_sec) * 1000 * kMs + static_cast<Time>(time.tv_nsec);
}

// What the next library calls by that name.
template <class Function>
Function real(Function, const char* name)
{
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

class Scheduler
{
public:
    static Scheduler& get();
    static bool isActive() { return s_bActive; }

    // The calling thread is the first one.
    void start(std::uint64_t seed);
    Random& random() { return m_random; }

    Time now() const { return m_nNow; }
    void pass(Time ns) { m_nNow += ns; }
    // Runs in the kernel: on no thread of the library's, and so without calling it.
    void at(Time due, std::function<void()> event);
    void after(Time ns, std::function<void()> event) { at(m_nNow + ns, std::move(event)); }
    void runDueEvents();

    // Waits until `ready`, which is looked at whenever something has happened, or the deadline; true when
    // ready. `where` is told by a deadlock.
    bool wait(const char* where, const std::function<bool()>& ready, Time deadline = kNever);
    void yield();

    int createThread(pthread_t* thread, void* (*run)(void*), void* argument);
    void joinThread(pthread_t thread);
    int threadNumber() const;
    std::size_t threads() const { return m_threads.size(); } // that run

private:
    struct Thread;

    static void* threadMain(void* thread);
    static void threadEnds(void* rounds);
    Thread& choose();
    void handOver(Thread& next);
    void joinEnded();
    [[noreturn]] void deadlock();

    static bool s_bActive;
    static thread_local Thread* t_self;

    Random m_random{0};
    Time m_nNow = 0;
    std::uint64_t m_nEvents = 0;
    int m_nThreads = 0;
    std::map<std::pair<Time, std::uint64_t>, std::function<void()>> m_events;
    std::vector<std::unique_ptr<Thread>> m_threads; // in the order of their starts
    std::unique_ptr<Thread> m_pEnded; // still to be joined in earnest
    pthread_key_t m_endKey{};
};
} // namespace sim
