#include <KepNuvikaUtil/KepNuvikaUtil.h>

#include "core/Log_p.h"
#include "net/HostLookup_p.h"
#include "platform/WorkerPool_p.h"

#include <memory>
#include <utility>

using namespace Nuvika;

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
    auto thread = std::make_unique<HostLookupManagerThread>();
    if (thread->startAndWait())
        s_pLookupThread = thread.release();
    else
        NUVIKA_CRITICAL(lcCore, "KepNuvikaUtilInit(): no thread can be had");
}

void KepNuvikaUtilCleanup()
{
    const std::unique_ptr<HostLookupManagerThread> thread(std::exchange(s_pLookupThread, nullptr));
    if (thread) {
        thread->quit();
        thread->wait();
    }
    WorkerPool::endSocketCallWorkers(kWorkerPatience);
}
