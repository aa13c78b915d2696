// Private: threads for calls that may block.
//
// Three pools, so that what cannot block never waits for what does: one for wrapped socket calls that return
// at once, one for those that may block, one for name lookups. A pool starts on first use, grows with need up
// to its bound, and a worker that was idle for a while ends. An idle worker spins briefly before it sleeps.
// An item that is submitted from one of the pool's own workers runs at once on that worker: a full pool
// cannot wait for itself.
//
// A child of fork() starts with empty pools: the items and the workers stay the parent's.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <vector>

#include <pthread.h>

namespace Nuvika
{
class WorkerPool
{
public:
    using Function = void (*)(void* argument);

    static WorkerPool& promptCalls();
    static WorkerPool& blockingCalls();
    static WorkerPool& lookups();
    // Ends the idle workers of both pools of wrapped calls.
    static void endSocketCallWorkers(std::chrono::milliseconds patience);

    WorkerPool(std::size_t maxWorkers, std::chrono::milliseconds idleTime);
    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;

    // Runs function(argument) soon. False when there is no worker and the system gives no thread: nothing
    // runs then. `pSpinning`: whether a worker that was spinning takes the item, which is soon indeed.
    bool submit(Function function, void* argument, bool* pSpinning = nullptr);

    // Ends the idle workers, and those that become idle within the time; a worker that hangs in a call is
    // left behind. The pool starts again with the next item.
    void endWorkers(std::chrono::milliseconds patience);

private:
    struct Item {
        Function function;
        void* argument;
    };

    struct Pools;

    static void* threadMain(void* pool);
    void work();
    bool startWorker();
    bool takeItem(std::unique_lock<std::mutex>& lock, Item* item);
    void forget();

    const std::size_t m_nMaxWorkers;
    const std::chrono::milliseconds m_idleTime;
    std::mutex m_mutex; // guards what follows
    std::condition_variable m_itemWaits;
    std::condition_variable m_workerEnded;
    std::deque<Item> m_items;
    std::vector<pthread_t> m_ended; // threads to be joined: by the next worker that ends, or by endWorkers()
    std::size_t m_nWorkers = 0;
    std::size_t m_nSpinning = 0;
    std::size_t m_nSleeping = 0;
    bool m_bEnding = false;
    std::atomic<std::size_t> m_nItems{0}; // what spinning workers look at without the mutex
};
} // namespace Nuvika
