#include <KepNuvikaUtil/Assertion.h>

#include "core/Log_p.h"
#include "platform/Process_p.h"

#include <array>
#include <cstdio>

namespace
{
constexpr char kFormat[] = "ASSERT: \"%s\" in file %s, line %d";
constexpr std::size_t kMaxText = 1024;
} // namespace

void nuvikaAssertPrint(const char* expression, const char* file, int line)
{
    NUVIKA_CRITICAL(lcCore, kFormat, expression, file, line);
}

void nuvikaAssertStop(const char* expression, const char* file, int line)
{
    std::array<char, kMaxText> text;
    std::snprintf(text.data(), text.size(), kFormat, expression, file, line);
    const bool bDebugger = Nuvika::Process::isDebuggerAttached();
    NUVIKA_CRITICAL(lcCore, "%s", text.data());
    if (bDebugger)
        Nuvika::Process::debugBreak();
    else
        Nuvika::Process::fatalExit();
}
