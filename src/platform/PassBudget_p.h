// Private: the time that a pass of the completion port may take, cheap enough to be asked after every
// handler.
#pragma once

#include "platform/Clock_p.h"

#include <cstdint>

namespace Nuvika
{
class PassBudget
{
public:
    PassBudget() : m_nDeadline(readClock() + kNs) { }

    std::uint64_t readClock()
    {
        m_nCycles = Clock::cycles();
        return m_nNow = Clock::monotonicNs();
    }
    // The last reading.
    std::uint64_t now() const { return m_nNow; }
    bool isSpent()
    {
        if (Clock::cycles() - m_nCycles >= kCyclesPerReading)
            readClock();
        return m_nNow >= m_nDeadline;
    }

private:
    static constexpr std::uint64_t kNs = 3'000'000;
    static constexpr std::uint64_t kCyclesPerReading = 100'000; // 20 to 100 us

    std::uint64_t m_nCycles = 0;
    std::uint64_t m_nNow = 0;
    const std::uint64_t m_nDeadline;
};
} // namespace Nuvika
