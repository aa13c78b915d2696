// Private: monotonic time.
#pragma once

#include <cstdint>

namespace Nuvika::Clock
{
// Milliseconds cut to 32 bits: they wrap every 49.7 days. Differences are taken unsigned.
std::uint32_t monotonicMs();
std::uint64_t monotonicNs();
} // namespace Nuvika::Clock
