#include "platform/WorkerPool_p.h"

#include "platform/WaitableEvent_p.h"

#include <memory>

#include <csignal>

namespace
{
constexpr std::size_t kMaxSocketCallWorkers = 16;
constexpr std::size_t kMaxLookupWorkers = 32;

thread_local const Nuvika::WorkerPool* t_pPool = nullptr;
} // namespace

// Never destroyed: a worker that hangs in a call may outlive everything else.
Nuvika::WorkerPool& Nuvika::WorkerPool::socketCalls()
{
    static WorkerPool& pool = *std::unique_ptr<WorkerPool>(new WorkerPool(kMaxSocketCallWorkers)).release();
    return pool;
}

Nuvika::WorkerPool& Nuvika::WorkerPool::lookups()
{
    static WorkerPool& pool = *std::unique_ptr<WorkerPool>(new WorkerPool(kMaxLookupWorkers)).release();
    return pool;
}

bool Nuvika::WorkerPool::submit(Function function, void* argument)
{
    if (t_pPool == this) {
        function(argument);
        return true;
    }
    const std::lock_guard<std::mutex> lock(m_mutex);
    const std::size_t waiting = m_items.size() + 1;
    if (waiting > m_nSpinning + m_nSleeping && m_nWorkers < m_nMaxWorkers && !startWorker()
        && m_nWorkers == 0)
        return false;
    m_items.push_back({function, argument});
    m_nItems.store(waiting, std::memory_order_release);
    if (waiting > m_nSpinning)
        m_itemWaits.notify_one();
    return true;
}

bool Nuvika::WorkerPool::startWorker()
{
    // Signals are the host's affair: workers take none.
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    pthread_t thread{};
    const bool bStarted = pthread_create(&thread, nullptr, &WorkerPool::threadMain, this) == 0;
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (bStarted)
        ++m_nWorkers;
    return bStarted;
}

void* Nuvika::WorkerPool::threadMain(void* pool)
{
    t_pPool = static_cast<WorkerPool*>(pool);
    static_cast<WorkerPool*>(pool)->work();
    return nullptr;
}

void Nuvika::WorkerPool::work()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    for (Item item{}; takeItem(lock, &item);) {
        lock.unlock();
        item.function(item.argument);
        lock.lock();
    }
    --m_nWorkers;
    m_ended.push_back(pthread_self());
    m_workerEnded.notify_all();
}

bool Nuvika::WorkerPool::takeItem(std::unique_lock<std::mutex>& lock, Item* item)
{
    if (m_items.empty() && !m_bEnding) {
        ++m_nSpinning;
        lock.unlock();
        WaitableEvent::spinUntil([this] { return m_nItems.load(std::memory_order_acquire) != 0; });
        lock.lock();
        --m_nSpinning;
    }
    ++m_nSleeping;
    m_itemWaits.wait(lock, [this] { return !m_items.empty() || m_bEnding; });
    --m_nSleeping;
    if (m_items.empty())
        return false;
    *item = m_items.front();
    m_items.pop_front();
    m_nItems.store(m_items.size(), std::memory_order_release);
    return true;
}

void Nuvika::WorkerPool::endWorkers(std::chrono::milliseconds patience)
{
    std::vector<pthread_t> ended;
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_bEnding = true;
        m_itemWaits.notify_all();
        m_workerEnded.wait_for(lock, patience, [this] { return m_nWorkers == 0; });
        m_bEnding = false;
        ended.swap(m_ended);
    }
    for (const pthread_t thread : ended)
        pthread_join(thread, nullptr);
}
