#include "platform/Clock_p.h"

#include <cerrno>
#include <ctime>

std::uint64_t Nuvika::Clock::monotonicNs()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000U + static_cast<std::uint64_t>(now.tv_nsec);
}

std::uint64_t Nuvika::Clock::cycles() { return __builtin_ia32_rdtsc(); }

std::uint32_t Nuvika::Clock::monotonicMs() { return static_cast<std::uint32_t>(monotonicNs() / 1'000'000U); }

std::uint64_t Nuvika::Clock::wallClockMs()
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1000U
        + static_cast<std::uint64_t>(now.tv_nsec) / 1'000'000U;
}

void Nuvika::Clock::sleepMs(std::uint32_t ms)
{
    timespec left{static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1'000'000};
    while (clock_nanosleep(CLOCK_MONOTONIC, 0, &left, &left) == EINTR) { }
}
