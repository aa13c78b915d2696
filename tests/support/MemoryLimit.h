// No more address space than is in use now and a little, while this object lives.
#pragma once

#include <cstddef>
#include <fstream>
#include <sys/resource.h>
#include <unistd.h>

class MemoryLimit
{
public:
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    static constexpr bool kWorks = false; // the sanitizers take what they need
#else
    static constexpr bool kWorks = true;
#endif

    explicit MemoryLimit(std::size_t little = 16 << 20)
    {
        std::size_t pages = 0;
        std::ifstream("/proc/self/statm") >> pages;
        getrlimit(RLIMIT_AS, &m_before);
        rlimit limit = m_before;
        limit.rlim_cur = pages * static_cast<std::size_t>(sysconf(_SC_PAGESIZE)) + little;
        setrlimit(RLIMIT_AS, &limit);
    }
    ~MemoryLimit() { setrlimit(RLIMIT_AS, &m_before); }
    MemoryLimit(const MemoryLimit&) = delete;
    MemoryLimit& operator=(const MemoryLimit&) = delete;

private:
    rlimit m_before{};
};
