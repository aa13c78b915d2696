// Private: threads for calls that may block.
//
// Two pools, so that slow lookups never hold up a bind or a send: one for the wrapped socket calls, one for
// name lookups. A pool starts on first use and grows with need up to its bound. An idle worker spins briefly
// before it sleeps. An item that is submitted from one of the pool's own workers runs at once on that worker:
// a full pool cannot wait for itself.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <vector>

#include <atomic>

#include <pthread.h>

namespace Nuvika
{
class WorkerPool
{
public:
    using Function = void (*)(void* argument);

    static WorkerPool& socketCalls();
    static WorkerPool& lookups();

    // Runs function(argument) soon. False when there is no worker and the system gives no thread: nothing
    // runs then.
    bool submit(Function function, void* argument);

    // Ends the idle workers, and those that become idle within the time; a worker that hangs in a call is
    // left behind. The pool starts again with the next item.
    void endWorkers(std::chrono::milliseconds patience);

private:
    struct Item {
        Function function;
        void* argument;
    };

    explicit WorkerPool(std::size_t maxWorkers) : m_nMaxWorkers(maxWorkers) { }
    static void* threadMain(void* pool);
    void work();
    bool startWorker();
    bool takeItem(std::unique_lock<std::mutex>& lock, Item* item);

    const std::size_t m_nMaxWorkers;
    std::mutex m_mutex; // guards what follows
    std::condition_variable m_itemWaits;
    std::condition_variable m_workerEnded;
    std::deque<Item> m_items;
    std::vector<pthread_t> m_ended; // threads to be joined
    std::size_t m_nWorkers = 0;
    std::size_t m_nSpinning = 0;
    std::size_t m_nSleeping = 0;
    bool m_bEnding = false;
    std::atomic<std::size_t> m_nItems{0}; // what spinning workers look at without the mutex
};
} // namespace Nuvika
