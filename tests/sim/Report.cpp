#include "sim/Report.h"

#include "sim/Scheduler.h"

#include <algorithm>
#include <cstdarg>
#include <cstring>

#include <unistd.h>

namespace sim
{
Report* Report::current = nullptr;
std::FILE* Report::text = nullptr;

namespace
{
void append(const char* line, std::size_t size)
{
    Report& report = *Report::current;
    for (std::size_t i = 0; i < size; ++i) {
        report.nHash = (report.nHash ^ static_cast<unsigned char>(line[i])) * 0x100000001b3U; // FNV-1a
        report.ring[report.nWritten++ % Report::kRing] = line[i];
    }
    ++report.nLines;
    if (Report::text != nullptr)
        std::fwrite(line, 1, size, Report::text);
}
} // namespace

void trace(const char* format, ...)
{
    if (Report::current == nullptr)
        return;
    char line[512];
    const std::uint64_t now = Scheduler::get().now();
    int size
        = std::snprintf(line, sizeof line, "%9llu.%06u %d ", static_cast<unsigned long long>(now / 1000000),
            static_cast<unsigned int>(now % 1000000), Scheduler::get().threadNumber());
    va_list arguments;
    va_start(arguments, format);
    size += std::vsnprintf(line + size, sizeof line - static_cast<std::size_t>(size), format, arguments);
    va_end(arguments);
    const std::size_t length = std::min(static_cast<std::size_t>(size), sizeof line - 1);
    line[length] = '\n';
    append(line, length + 1);
}

void fail(const char* format, ...)
{
    char text[sizeof Report::failure];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    trace("FAILED: %.400s", text);
    if (Report::current != nullptr)
        std::memcpy(Report::current->failure, text, sizeof text);
    if (Report::text != nullptr)
        std::fflush(Report::text);
    _exit(1);
}
} // namespace sim
