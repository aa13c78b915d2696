#include "platform/WaitableEvent_p.h"
#include "platform/WorkerPool_p.h"
#include "support/EventLoop.h"
#include "support/RawPeer.h"
#include "support/Seams.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <thread>

using namespace Nuvika;

TEST(WorkerPool, RunsManyItemsOfManyThreadsOnce)
{
    struct Call {
        std::atomic<int>* pRan;
        WaitableEvent done;
    };
    std::atomic<int> ran{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&ran] {
            for (int i = 0; i < 2000; ++i) {
                Call call{&ran, {}};
                ASSERT_TRUE(WorkerPool::promptCalls().submit(
                    [](void* p) {
                        ++*static_cast<Call*>(p)->pRan;
                        static_cast<Call*>(p)->done.set();
                    },
                    &call));
                call.done.wait();
                std::this_thread::yield(); // the worker may still be inside set()
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(ran, 8000);
}

TEST(WorkerPool, AnItemMaySubmitToItsOwnFullPool)
{
    static std::atomic<int> inner{0};
    constexpr auto item = [](void*) { WorkerPool::promptCalls().submit([](void*) { ++inner; }, nullptr); };
    for (int i = 0; i < 64; ++i)
        WorkerPool::promptCalls().submit(item, nullptr);
    EXPECT_TRUE(waitFor([] { return inner == 64; }));
}

TEST(WorkerPool, AHundredHangingLookupsDoNotHoldUpTheNext)
{
    static WaitableEvent release;
    static std::atomic<int> ended{0};
    static std::atomic<bool> bRan{false};
    constexpr int kHanging = 200;
    constexpr auto hang = [](void*) {
        release.wait();
        ++ended;
    };
    for (int i = 0; i < kHanging; ++i)
        WorkerPool::lookups().submit(hang, nullptr);
    WorkerPool::lookups().submit([](void*) { bRan = true; }, nullptr);
    EXPECT_TRUE(waitFor([] { return bRan.load(); }, 3000));
    release.set();
    EXPECT_TRUE(waitFor([] { return ended == kHanging; }));
}

TEST(WorkerPool, WorkersThatStayIdleEnd)
{
    static WorkerPool& pool = *new WorkerPool(8, std::chrono::milliseconds(10)); // workers outlive this frame
    static std::atomic<int> ran{0};
    const int before = runningThreads();
    int items = 0;
    for (const int count : {8, 9}) { // the last one finds no worker
        for (; items < count; ++items)
            ASSERT_TRUE(pool.submit([](void*) { ++ran; }, nullptr));
        EXPECT_TRUE(waitFor([&] { return ran == count && runningThreads() == before; })) << runningThreads();
    }
    pool.endWorkers(std::chrono::milliseconds(2000));
}

TEST(WorkerPool, RefusesOnlyWithoutAnyThreadAndStartsAgainAfterItsEnd)
{
    WorkerPool& pool = WorkerPool::promptCalls();
    pool.endWorkers(std::chrono::milliseconds(2000));
    seams::threadCreation.arm(1, EAGAIN);
    static std::atomic<int> ran{0};
    constexpr auto item = [](void*) { ++ran; };
    EXPECT_FALSE(pool.submit(item, nullptr));
    EXPECT_TRUE(pool.submit(item, nullptr)) << "the next one finds a thread";
    EXPECT_TRUE(waitFor([] { return ran == 1; }));
    settle(5);
    EXPECT_EQ(ran, 1) << "a refused item never runs";
}
