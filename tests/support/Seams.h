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

// The stream sockets that are opened next get this port on loopback, so that one may be asked to connect to
// itself; 0 leaves it to the system.
extern std::atomic<int> streamPort;

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
extern Fault threadCreation, accepting, sending, sendingTo, receiving, receivingMany, settingOptions, opening;
extern Fault registering, portCreation; // of ports, and with them
extern Fault sendingRuns; // calls that begin with a run of datagrams
extern Fault growing, allocating; // of blocks of memory, and such that may not be had

// Of all calls that the system may refuse (descriptors, registrations, threads, options, addresses), the Nth
// from now on fails once, with an error that is usual for it. 0: none.
void refuseNth(int n);
// The call that was refused, or null.
const char* refusedCall();
// The calls of a test's own peers, on this thread, are not counted.
struct Exempt {
    Exempt();
    ~Exempt();
    Exempt(const Exempt&) = delete;
    Exempt& operator=(const Exempt&) = delete;
};

extern std::atomic<long long> hexDigitsRead; // counted where texts are decoded
// Steps of the crypto library, by the name of its function.
Fault& crypto(const char* function);
} // namespace seams
