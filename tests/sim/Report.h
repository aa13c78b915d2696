// What a run tells: a trace of one line for each system call and decision, and why it failed. Lies in memory
// that the process which started the run shares, so that nothing is lost when the run crashes or hangs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <functional>

namespace sim
{
struct Report {
    static constexpr std::size_t kLast = 40;

    char lines[kLast][512]; // the last ones, in a ring
    std::uint64_t nLines; // of the whole trace
    std::uint64_t nHash; // of all lines
    std::uint64_t nTime; // virtual, ns
    char failure[2048];

    static Report* current; // of this process
    static std::FILE* text; // where each line goes besides, or null
    static std::function<void()> onFailure; // in a process that nobody waits for
};

[[gnu::format(printf, 1, 2)]] void trace(const char* format, ...);
// Ends the run at once: what was broken is not to be run any further.
[[noreturn, gnu::format(printf, 1, 2)]] void fail(const char* format, ...);
} // namespace sim
