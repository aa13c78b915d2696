// Private: questions about the process and its ends.
#pragma once

#include <string>

namespace Nuvika::Process
{
bool isDebuggerAttached();
void debugBreak();
[[noreturn]] void fatalExit();
std::string effectiveUserName(); // UTF-8; empty when the system does not answer
int usableCpus(); // CPUs that this process may run on, at least 1
} // namespace Nuvika::Process
