#include "core/OutOfMemory_p.h"

#include "core/Log_p.h"
#include "platform/Process_p.h"

void Nuvika::endWithoutMemory(const char* function, std::size_t bytes)
{
    NUVIKA_CRITICAL(lcCore, "%s: out of memory: %zu bytes", function, bytes);
    Process::fatalExit();
}
