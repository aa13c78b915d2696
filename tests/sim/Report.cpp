#include "sim/Report.h"

#include "sim/Scheduler.h"

#include <cstdarg>

#include <unistd.h>

namespace sim
{
static Report s_beforeAnyRun;
Report* Report::current = &s_beforeAnyRun;
std::FILE* Report::text = nullptr;
std::function<void()> Report::onFailure;

void trace(const char* format, ...)
{
    Report& report = *Report::current;
    auto& line = report.lines[report.nLines++ % Report::kLast];
    const Scheduler& scheduler = Scheduler::get();
    const int size = std::snprintf(line, sizeof line, "%16.6f %d ",
        static_cast<double>(scheduler.now()) / kMs, scheduler.threadNumber());
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line + size, sizeof line - static_cast<std::size_t>(size), format, arguments);
    va_end(arguments);
    for (const char* letter = line; *letter != '\0'; ++letter)
        report.nHash = (report.nHash ^ static_cast<unsigned char>(*letter)) * 0x100000001b3U; // FNV-1a
    if (Report::text != nullptr)
        std::fprintf(Report::text, "%s\n", line);
}

void fail(const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(Report::current->failure, sizeof Report::failure, format, arguments);
    va_end(arguments);
    trace("FAILED: %s", Report::current->failure);
    if (Report::text != nullptr)
        std::fflush(Report::text);
    if (Report::onFailure)
        Report::onFailure();
    _exit(1);
}
} // namespace sim
