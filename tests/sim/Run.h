// One run: a scenario with a seed, in a process of its own, so that each begins from the same memory and a
// crash ends nobody else.
#pragma once

#include "sim/Report.h"
#include "sim/World.h"

#include <cstdint>

namespace sim
{
// Does not return. The report lies in shared memory.
[[noreturn]] void runHere(const Scenario& scenario, std::uint64_t seed, Report& report);
} // namespace sim
