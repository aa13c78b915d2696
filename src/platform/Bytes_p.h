// Private: blocks of bytes that may not be had. Not initialised; of a large one only what is written costs
// memory.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <memory>

namespace Nuvika
{
struct FreeBytes {
    void operator()(char* bytes) const { std::free(bytes); }
};
using Bytes = std::unique_ptr<char[], FreeBytes>;

// Empty when there is no memory.
Bytes tryAllocate(std::size_t size);
} // namespace Nuvika
