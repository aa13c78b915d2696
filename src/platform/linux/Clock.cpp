#include "platform/Clock_p.h"

#include <ctime>

std::uint64_t Nuvika::Clock::monotonicNs()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000U + static_cast<std::uint64_t>(now.tv_nsec);
}

std::uint32_t Nuvika::Clock::monotonicMs() { return static_cast<std::uint32_t>(monotonicNs() / 1'000'000U); }
