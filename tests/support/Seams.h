// Time and faults for the tests. The linker routes a few system calls of the library through here (--wrap),
// so that the shipped library carries no hook for them.
#pragma once

#include <atomic>
#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace seams
{
// Added to every clock.
extern std::atomic<long long> clockOffsetMs;
// Sleeping moves the clock instead of taking time.
extern std::atomic<bool> bVirtualSleep;

// Names that the resolver knows; any other is asked of the system.
struct Resolver {
    std::mutex mutex;
    std::condition_variable changed;
    std::map<std::string, std::vector<std::string>> names; // an empty list: not found
    bool bHold = false; // lookups wait until released
    int nCalls = 0;
};
Resolver& resolver();
void setName(const std::string& name, const std::vector<std::string>& addresses);
void holdLookups(bool bHold);
int lookupCalls();

// The next calls of that kind fail with this errno, as many times.
struct Fault {
    std::atomic<int> nTimes{0};
    std::atomic<int> nErrno{0};
    std::atomic<int> nCalls{0};
    void arm(int times, int error)
    {
        nErrno = error;
        nTimes = times;
    }
    bool fires();
};
extern Fault threadCreation;
extern Fault accepting;
extern Fault sending;
extern Fault receiving;
extern Fault settingOptions;
extern Fault opening;
extern Fault receivingMany;
extern Fault growing; // of blocks of memory
extern std::atomic<long long> hexDigitsRead; // counted where texts are decoded
// Steps of the crypto library, by the name of its function.
Fault& crypto(const char* function);
} // namespace seams
