// Private: monotonic and wall-clock time, and sleeping.
#pragma once

#include <cstdint>

namespace Nuvika::Clock
{
// Milliseconds cut to 32 bits: they wrap every 49.7 days. Differences are taken unsigned.
std::uint32_t monotonicMs();
std::uint64_t monotonicNs();
// The processor's counter, one to five each nanosecond: costs little, and tells when the clock is worth a
// look.
std::uint64_t cycles();
// Since 1970, UTC.
std::uint64_t wallClockMs();
void sleepMs(std::uint32_t ms);
} // namespace Nuvika::Clock
