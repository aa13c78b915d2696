#include "platform/WorkerPool_p.h"

#include "platform/Thread_p.h"
#include "platform/WaitableEvent_p.h"

#include <memory>
#include <new>

namespace
{
constexpr std::size_t kMaxPromptWorkers = 16;
constexpr std::size_t kMaxBlockingWorkers = 256;
constexpr std::size_t kMaxLookupWorkers = 256;
constexpr std::chrono::milliseconds kIdleTime{10'000};
constexpr std::size_t kStackSize = 512UL * 1024; // plenty for the resolver's plug-ins

thread_local const Nuvika::WorkerPool* t_pPool = nullptr;
} // namespace

// Never destroyed: a worker that hangs in a call may outlive everything else.
struct Nuvika::WorkerPool::Pools {
    WorkerPool prompt{kMaxPromptWorkers, kIdleTime};
    WorkerPool blocking{kMaxBlockingWorkers, kIdleTime};
    WorkerPool lookups{kMaxLookupWorkers, kIdleTime};

    Pools()
    {
        pthread_atfork([] { all().forEach([](WorkerPool& pool) { pool.m_mutex.lock(); }); },
            [] { all().forEach([](WorkerPool& pool) { pool.m_mutex.unlock(); }); },
            [] { all().forEach([](WorkerPool& pool) { pool.forget(); }); });
    }
    template <class Function>
    void forEach(Function function)
    {
        for (WorkerPool* pool : {&prompt, &blocking, &lookups})
            function(*pool);
    }
    static Pools& all()
    {
        static Pools& pools = *std::make_unique<Pools>().release();
        return pools;
    }
};

Nuvika::WorkerPool& Nuvika::WorkerPool::promptCalls() { return Pools::all().prompt; }

Nuvika::WorkerPool& Nuvika::WorkerPool::blockingCalls() { return Pools::all().blocking; }

Nuvika::WorkerPool& Nuvika::WorkerPool::lookups() { return Pools::all().lookups; }

void Nuvika::WorkerPool::endSocketCallWorkers(std::chrono::milliseconds patience)
{
    promptCalls().endWorkers(patience);
    blockingCalls().endWorkers(patience);
}

Nuvika::WorkerPool::WorkerPool(std::size_t maxWorkers, std::chrono::milliseconds idleTime)
    : m_nMaxWorkers(maxWorkers), m_idleTime(idleTime)
{
}

bool Nuvika::WorkerPool::submit(Function function, void* argument, bool* pSpinning)
{
    if (t_pPool == this) {
        function(argument);
        return true;
    }
    std::unique_lock<std::mutex> lock(m_mutex);
    const std::size_t waiting = m_items.size() + 1;
    if (waiting > m_nSpinning + m_nSleeping && m_nWorkers < m_nMaxWorkers && !startWorker()
        && m_nWorkers == 0)
        return false;
    m_items.push_back({function, argument});
    m_nItems.store(waiting, std::memory_order_release);
    const bool bSpinning = waiting <= m_nSpinning;
    lock.unlock();
    if (!bSpinning)
        m_itemWaits.notify_one();
    if (pSpinning != nullptr)
        *pSpinning = bSpinning;
    return true;
}

bool Nuvika::WorkerPool::startWorker()
{
    pthread_t thread{};
    const bool bStarted = Threads::start(&thread, kStackSize, &WorkerPool::threadMain, this);
    m_nWorkers += bStarted ? 1 : 0;
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
    std::vector<pthread_t> endedBefore{pthread_self()};
    endedBefore.swap(m_ended);
    --m_nWorkers;
    m_workerEnded.notify_all();
    lock.unlock();
    for (const pthread_t thread : endedBefore)
        pthread_join(thread, nullptr);
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
    m_itemWaits.wait_for(lock, m_idleTime, [this] { return !m_items.empty() || m_bEnding; });
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

// In the child of a fork: no worker came along, and what the condition variables know of them is not true
// here.
void Nuvika::WorkerPool::forget()
{
    new (&m_itemWaits) std::condition_variable;
    new (&m_workerEnded) std::condition_variable;
    m_items.clear();
    m_ended.clear();
    m_nWorkers = m_nSpinning = m_nSleeping = 0;
    m_bEnding = false;
    m_nItems.store(0, std::memory_order_release);
    m_mutex.unlock();
}
