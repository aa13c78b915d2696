#include <KepNuvikaUtil/Allocation.h>

#include <cstddef>
#include <cstdlib>

namespace
{
constexpr std::size_t kAlignment = 16;
constexpr std::size_t kSpareBytes = 16;

void* allocateAligned(std::size_t size)
{
    void* p = nullptr;
    return posix_memalign(&p, kAlignment, size) == 0 ? p : nullptr;
}
} // namespace

void* NuvikaMalloc(unsigned int size) { return allocateAligned(std::size_t{size} + kSpareBytes); }

void* NuvikaMallocNoExtending(unsigned int size) { return allocateAligned(size); }

void NuvikaFree(void* p) { std::free(p); }
