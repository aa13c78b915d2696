// Every failure point of a scenario: its first refusable call fails, then its second, until it passes without
// a failure.
#pragma once

#include "platform/WorkerPool_p.h"
#include "support/EventLoop.h"
#include "support/LogCapture.h"
#include "support/OwnThread.h"
#include "support/RawPeer.h"
#include "support/Seams.h"

#include <functional>
#include <gtest/gtest.h>

namespace refused
{
struct Outcome {
    bool bWorked;
    bool bTold; // by a result, a signal or the log
};
using Scenario = std::function<Outcome(const LogCapture& log)>;

inline void endWorkers()
{
    Nuvika::WorkerPool::endSocketCallWorkers(std::chrono::milliseconds(2000));
    Nuvika::WorkerPool::lookups().endWorkers(std::chrono::milliseconds(2000));
}

// On a thread of its own, so that the port and the workers are made anew. Waiting in the scenario is bounded:
// what hangs has neither worked nor told.
inline void eachCall(const Scenario& scenario)
{
    constexpr int kMostCalls = 200;
    int n = 1;
    for (bool bRefused = true; bRefused && n < kMostCalls; ++n) {
        endWorkers();
        const int descriptors = openDescriptors();
        const int threads = runningThreads();
        inOwnThread([&] {
            const auto run = [&scenario] { return scenario(LogCapture()); };
            seams::refuseNth(n);
            const Outcome outcome = run();
            const char* call = seams::refusedCall();
            seams::refuseNth(0);
            bRefused = call != nullptr;
            const std::string where
                = bRefused ? "call " + std::to_string(n) + ", " + call : std::string("without a failure");
            EXPECT_TRUE(outcome.bWorked || (bRefused && outcome.bTold)) << "nothing is told: " << where;
            EXPECT_TRUE(run().bWorked) << "does not work again behind " << where;
        });
        endWorkers();
        EXPECT_TRUE(waitFor([&] { return openDescriptors() <= descriptors && runningThreads() <= threads; }))
            << "left over after call " << n << ": descriptors " << openDescriptors() - descriptors
            << ", threads " << runningThreads() - threads;
    }
    EXPECT_GT(n, 2) << "nothing could be refused";
    EXPECT_LT(n, kMostCalls);
}
} // namespace refused
