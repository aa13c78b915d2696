// What shared libraries call: symbols of this program come before those of the C library. Clocks, waiting,
// threads and randomness; before a run begins they are the real system's.
#include "sim/Kernel.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <list>
#include <utility>

#include <linux/futex.h>
#include <sys/syscall.h>
#include <sys/time.h>

using namespace sim;

namespace
{
constexpr Time kEpoch = 1700000000000 * kMs; // when the clock of the wall stood at 0 on the other

// Of either clock, told by its size, in our time.
Time deadlineOf(const timespec& time)
{
    const Time value = timeOf(time);
    return value >= kEpoch ? value - kEpoch : value;
}

// Who waits for a condition or for a word of memory, in the order of coming.
struct Waiter {
    const void* what;
    bool bWoken;
};
std::list<Waiter>& waiters()
{
    static std::list<Waiter> list;
    return list;
}

bool waitOn(const void* what, const char* where, Time deadline)
{
    const auto self = waiters().insert(waiters().end(), {what, false});
    const bool bWoken = Scheduler::get().wait(
        where, [&] { return self->bWoken; }, deadline);
    waiters().erase(self);
    return bWoken;
}

int wakeUp(const void* what, int most)
{
    int woken = 0;
    for (Waiter& waiter : waiters()) {
        if (waiter.what == what && woken < most)
            woken += std::exchange(waiter.bWoken, true) ? 0 : 1;
    }
    return woken;
}

int waitForCondition(pthread_cond_t* condition, pthread_mutex_t* mutex, Time deadline)
{
    pthread_mutex_unlock(mutex);
    const bool bWoken = waitOn(condition, "a condition variable", deadline);
    while (pthread_mutex_trylock(mutex) == EBUSY)
        Scheduler::get().yield();
    return bWoken ? 0 : ETIMEDOUT;
}

long waitForWord(const int* word, int value, Time deadline)
{
    const bool bIsSo = __atomic_load_n(word, __ATOMIC_SEQ_CST) == value;
    if (bIsSo && waitOn(word, "a futex", deadline))
        return 0;
    errno = bIsSo ? ETIMEDOUT : EAGAIN;
    return -1;
}

long futex(int* word, int operation, int value, const timespec* time, int* word2, unsigned int code)
{
    switch (operation & FUTEX_CMD_MASK) {
    case FUTEX_WAIT:
        return waitForWord(word, value, time == nullptr ? kNever : Scheduler::get().now() + timeOf(*time));
    case FUTEX_WAIT_BITSET:
        return waitForWord(word, value, time == nullptr ? kNever : deadlineOf(*time));
    case FUTEX_WAKE_OP: // of a QSemaphore, which does not change the second word
        if (code >> 28U != FUTEX_OP_OR || (code >> 12U & 0xfffU) != 0)
            fail("futex operation %x on the second word is not simulated", code);
        return wakeUp(word, value) + wakeUp(word2, INT_MAX);
    case FUTEX_WAKE:
        return wakeUp(word, value);
    default:
        fail("futex operation %d is not simulated", operation);
    }
}
} // namespace

// The processor's counter: it would tell one run from another.
namespace Nuvika::Clock
{
std::uint64_t wrapCycles() __asm__("__wrap__ZN6Nuvika5Clock6cyclesEv");
std::uint64_t wrapCycles() { return Scheduler::get().now() * 3; }
} // namespace Nuvika::Clock

extern "C" {
// --- clocks --------------------------------------------------------------------------------------------

int clock_gettime(clockid_t clock, timespec* time)
{
    if (!Scheduler::isActive())
        return real(&clock_gettime, "clock_gettime")(clock, time);
    Scheduler::get().pass(30); // so that who waits for the time sees it pass
    const bool bWall = clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE;
    const Time now = Scheduler::get().now() + (bWall ? kEpoch : 0);
    *time = {static_cast<time_t>(now / (1000 * kMs)), static_cast<long>(now % (1000 * kMs))};
    return 0;
}

int gettimeofday(timeval* time, void*) noexcept
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    *time = {now.tv_sec, now.tv_nsec / 1000};
    return 0;
}

time_t time(time_t* out) noexcept
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    if (out != nullptr)
        *out = now.tv_sec;
    return now.tv_sec;
}

int clock_nanosleep(clockid_t clock, int flags, const timespec* wanted, timespec* left)
{
    if (!Scheduler::isActive())
        return real(&clock_nanosleep, "clock_nanosleep")(clock, flags, wanted, left);
    const Time now = Scheduler::get().now();
    const bool bAbsolute = (flags & TIMER_ABSTIME) != 0;
    Scheduler::get().wait(
        "a sleep", [] { return false; }, bAbsolute ? deadlineOf(*wanted) : now + timeOf(*wanted));
    return 0;
}

int nanosleep(const timespec* wanted, timespec* left)
{
    return clock_nanosleep(CLOCK_MONOTONIC, 0, wanted, left);
}

// --- threads -------------------------------------------------------------------------------------------

int pthread_create(
    pthread_t* thread, const pthread_attr_t* attributes, void* (*run)(void*), void* argument) noexcept
{
    if (!Scheduler::isActive())
        return real(&pthread_create, "pthread_create")(thread, attributes, run, argument);
    Kernel& kernel = Kernel::get();
    if (kernel.chance(kernel.weather.noThread)) {
        trace("pthread_create() = EAGAIN");
        return EAGAIN;
    }
    return Scheduler::get().createThread(thread, run, argument);
}

int pthread_join(pthread_t thread, void** result)
{
    if (!Scheduler::isActive())
        return real(&pthread_join, "pthread_join")(thread, result);
    Scheduler::get().joinThread(thread); // nobody asks for a result
    return 0;
}

int sched_yield() noexcept
{
    if (Scheduler::isActive())
        Scheduler::get().yield();
    return 0;
}

// Nobody waits for a condition before a run begins, nor between runs.
int pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex)
{
    return waitForCondition(condition, mutex, kNever);
}

int pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex, const timespec* deadline)
{
    return waitForCondition(condition, mutex, deadlineOf(*deadline));
}

int pthread_cond_clockwait(
    pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t, const timespec* deadline)
{
    return waitForCondition(condition, mutex, deadlineOf(*deadline));
}

int pthread_cond_signal(pthread_cond_t* condition) noexcept
{
    wakeUp(condition, 1);
    return 0;
}

int pthread_cond_broadcast(pthread_cond_t* condition) noexcept
{
    wakeUp(condition, INT_MAX);
    return 0;
}

long syscall(long number, ...) noexcept
{
    va_list list;
    va_start(list, number);
    long a[6];
    for (long& argument : a)
        argument = va_arg(list, long);
    va_end(list);
    if (number == SYS_futex && Scheduler::isActive())
        return futex(reinterpret_cast<int*>(a[0]), static_cast<int>(a[1]), static_cast<int>(a[2]),
            reinterpret_cast<const timespec*>(a[3]), reinterpret_cast<int*>(a[4]),
            static_cast<unsigned int>(a[5]));
    return real(&syscall, "syscall")(number, a[0], a[1], a[2], a[3], a[4], a[5]);
}

// --- randomness ----------------------------------------------------------------------------------------

int getentropy(void* out, std::size_t size)
{
    if (!Scheduler::isActive())
        return real(&getentropy, "getentropy")(out, size);
    auto* bytes = static_cast<unsigned char*>(out);
    std::generate(
        bytes, bytes + size, [] { return static_cast<unsigned char>(Kernel::get().random().next()); });
    return 0;
}
}
