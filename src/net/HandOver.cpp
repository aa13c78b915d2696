#include "net/HandOver_p.h"

#include "core/Log_p.h"
#include "platform/ErrorCodes_p.h"
#include "platform/WaitableEvent_p.h"
#include "platform/WorkerPool_p.h"

#include <memory>

using namespace Nuvika;

namespace
{
// Lives on the caller's stack while the caller waits. The event is shared, because the worker may still be
// inside set() when the caller has already returned.
struct WorkItem {
    int (*call)(const void*);
    const void* context;
    std::shared_ptr<WaitableEvent> pDone = std::make_shared<WaitableEvent>();
    int nResult = 0;
    int nError = 0;

    void run()
    {
        const std::shared_ptr<WaitableEvent> done = pDone;
        const int nBefore = ErrorCodes::lastError();
        ErrorCodes::setLastError(0);
        nResult = call(context);
        nError = ErrorCodes::lastError();
        ErrorCodes::setLastError(nBefore);
        done->set();
    }
};
} // namespace

std::optional<int> Nuvika::handOver(
    const char* function, WorkerPool& pool, int (*call)(const void*), const void* context)
{
    WorkItem item{call, context};
    bool bSpinning = false;
    if (!pool.submit([](void* p) { static_cast<WorkItem*>(p)->run(); }, &item, &bSpinning)) {
        NUVIKA_CRITICAL(lcNet, "NuvikaLLSock::%s(): QueueUserWorkItem failed", function);
        return std::nullopt;
    }
    item.pDone->wait(bSpinning);
    if (item.nError != 0)
        ErrorCodes::setLastError(item.nError);
    return item.nResult;
}
