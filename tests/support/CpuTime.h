// The calling thread's processor time: what costs too much is seen beside any load.
#pragma once

#include <cstdint>
#include <ctime>

inline std::int64_t cpuTimeNs()
{
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return time.tv_sec * std::int64_t{1000000000} + time.tv_nsec;
}
