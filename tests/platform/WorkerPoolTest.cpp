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
    std::atomic<int> ran{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&ran] {
            for (int i = 0; i < 2000; ++i) {
                struct Call {
                    std::atomic<int>* pRan;
                    WaitableEvent done;
                } call{&ran, {}};
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
    static WaitableEvent all;
    inner = 0;
    for (int i = 0; i < 64; ++i) {
        WorkerPool::promptCalls().submit(
            [](void*) {
                WorkerPool::promptCalls().submit(
                    [](void*) {
                        if (++inner == 64)
                            all.set();
                    },
                    nullptr);
            },
            nullptr);
    }
    all.wait();
    EXPECT_EQ(inner, 64);
}

TEST(WorkerPool, AHundredHangingLookupsDoNotHoldUpTheNext)
{
    static WaitableEvent release;
    static std::atomic<int> ended{0};
    constexpr int kHanging = 200;
    for (int i = 0; i < kHanging; ++i)
        WorkerPool::lookups().submit(
            [](void*) {
                release.wait();
                ++ended;
            },
            nullptr);
    static std::atomic<bool> bRan{false};
    WorkerPool::lookups().submit([](void*) { bRan = true; }, nullptr);
    EXPECT_TRUE(waitFor([] { return bRan.load(); }, 3000));
    release.set();
    EXPECT_TRUE(waitFor([] { return ended == kHanging; }));
}

TEST(WorkerPool, WorkersThatStayIdleEnd)
{
    static WorkerPool& pool = *new WorkerPool(8, std::chrono::milliseconds(10)); // workers outlive this frame
    const int before = runningThreads();
    std::atomic<int> ran{0};
    for (int i = 0; i < 8; ++i)
        ASSERT_TRUE(pool.submit([](void* p) { ++*static_cast<std::atomic<int>*>(p); }, &ran));
    EXPECT_TRUE(waitFor([&] { return ran == 8 && runningThreads() == before; })) << runningThreads();
    EXPECT_TRUE(pool.submit([](void* p) { ++*static_cast<std::atomic<int>*>(p); }, &ran));
    EXPECT_TRUE(waitFor([&] { return ran == 9; })) << "the next item finds a new one";
    pool.endWorkers(std::chrono::milliseconds(2000));
}

TEST(WorkerPool, RefusesOnlyWithoutAnyThreadAndStartsAgainAfterItsEnd)
{
    WorkerPool& pool = WorkerPool::promptCalls();
    pool.endWorkers(std::chrono::milliseconds(2000));
    seams::threadCreation.arm(1, EAGAIN);
    static std::atomic<int> ran{0};
    ran = 0;
    const auto item = [](void* done) {
        ++ran;
        static_cast<WaitableEvent*>(done)->set();
    };
    static WaitableEvent done;
    EXPECT_FALSE(pool.submit(item, &done));
    EXPECT_TRUE(pool.submit(item, &done)) << "the next one finds a thread";
    done.wait();
    EXPECT_EQ(ran, 1) << "a refused item never runs";
}
