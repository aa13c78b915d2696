#include <KepNuvikaUtil/KepNuvikaUtil.h>

#include "net/HostLookup_p.h"
#include "platform/WorkerPool_p.h"

#include <memory>
#include <utility>

namespace
{
constexpr std::chrono::milliseconds kWorkerPatience{2000};

// Owned between start-up and clean-up; a process that ends without the clean-up leaves it running.
HostLookupManagerThread* s_pLookupThread = nullptr;
} // namespace

void KepNuvikaUtilInit()
{
    if (s_pLookupThread != nullptr)
        return;
    qRegisterMetaType<QHostInfo>("QHostInfo");
    s_pLookupThread = std::make_unique<HostLookupManagerThread>().release();
    s_pLookupThread->startAndWait();
}

void KepNuvikaUtilCleanup()
{
    const std::unique_ptr<HostLookupManagerThread> thread(std::exchange(s_pLookupThread, nullptr));
    if (thread) {
        thread->quit();
        thread->wait();
    }
    Nuvika::WorkerPool::endSocketCallWorkers(kWorkerPatience);
}
