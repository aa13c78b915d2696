// Private: the end of the process where memory that is needed cannot be had. Nothing is thrown at callers.
#pragma once

#include <cstddef>

namespace Nuvika
{
// Writes a critical record that names the function and what it asked for.
[[noreturn]] void endWithoutMemory(const char* function, std::size_t bytes);
} // namespace Nuvika
