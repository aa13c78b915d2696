// In place of the library's own: a wrapped call runs where its caller waits, a lookup on a thread of its own.
#include "platform/WorkerPool_p.h"

#include "sim/Kernel.h"

#include "platform/Thread_p.h"

#include <memory>

using namespace sim;

namespace Nuvika
{
struct WorkerPool::Pools {
    WorkerPool calls{1, {}};
    WorkerPool lookups{256, {}};
    static Pools& all()
    {
        static Pools& pools = *std::make_unique<Pools>().release();
        return pools;
    }
};

WorkerPool& WorkerPool::promptCalls() { return Pools::all().calls; }
WorkerPool& WorkerPool::blockingCalls() { return Pools::all().calls; }
WorkerPool& WorkerPool::lookups() { return Pools::all().lookups; }
void WorkerPool::endSocketCallWorkers(std::chrono::milliseconds) { }

WorkerPool::WorkerPool(std::size_t maxWorkers, std::chrono::milliseconds idleTime)
    : m_nMaxWorkers(maxWorkers), m_idleTime(idleTime)
{
}

bool WorkerPool::submit(Function function, void* argument, bool*)
{
    if (this == &Pools::all().calls) {
        Kernel& kernel = Kernel::get();
        if (kernel.chance(kernel.weather.noThread))
            return false;
        function(argument);
        return true;
    }
    m_items.push_back({function, argument});
    pthread_t thread{};
    const bool bStarted = Threads::start(&thread, 0x80000, &WorkerPool::threadMain, this);
    if (!bStarted)
        m_items.pop_back();
    m_nWorkers += bStarted ? 1 : 0;
    return bStarted;
}

void* WorkerPool::threadMain(void* pool)
{
    auto& lookups = *static_cast<WorkerPool*>(pool);
    const Item item = lookups.m_items.front();
    lookups.m_items.pop_front();
    item.function(item.argument);
    --lookups.m_nWorkers;
    return nullptr;
}

void WorkerPool::endWorkers(std::chrono::milliseconds patience)
{
    Scheduler& scheduler = Scheduler::get();
    scheduler.wait(
        "the end of lookups", [this] { return m_nWorkers == 0; },
        scheduler.now() + static_cast<Time>(patience.count()) * kMs);
}
} // namespace Nuvika
