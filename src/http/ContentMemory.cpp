#include "http/ContentMemory_p.h"

#include "core/OutOfMemory_p.h"
#include "http/HttpLimits_p.h"

#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

using namespace Nuvika;

namespace
{
constexpr std::size_t kAhead = 1 << 20; // of what has come, however long the content is said to be
constexpr std::size_t kSpareSize = HttpLimits::kKeptContent; // of a block that the next content may have
constexpr std::size_t kSpares = 16; // of a thread; of a block only what was written costs memory

thread_local bool t_bThreadEnds = false; // objects with static storage go later than the spares

struct Spares {
    std::vector<Bytes> blocks;
    ~Spares() { t_bThreadEnds = true; }
};

std::vector<Bytes>& spares()
{
    thread_local Spares t_spares;
    return t_spares.blocks;
}

// A large block grows by moving its pages, without a copy.
void resize(Bytes& bytes, std::size_t size)
{
    auto* moved = static_cast<char*>(std::realloc(bytes.get(), size));
    if (moved == nullptr)
        endWithoutMemory("ContentMemory", size);
    static_cast<void>(bytes.release()); // it has gone
    bytes.reset(moved);
}

Bytes allocated(std::size_t size)
{
    Bytes bytes;
    resize(bytes, size);
    return bytes;
}

Bytes takeSpare()
{
    if (spares().empty())
        return allocated(kSpareSize);
    Bytes bytes = std::move(spares().back());
    spares().pop_back();
    return bytes;
}
} // namespace

ContentMemory& ContentMemory::operator=(ContentMemory&& other) noexcept
{
    std::swap(m_pBytes, other.m_pBytes);
    std::swap(m_nCapacity, other.m_nCapacity);
    std::swap(m_nSize, other.m_nSize);
    std::swap(m_nExpected, other.m_nExpected);
    return *this;
}

void ContentMemory::reserve(std::size_t size)
{
    if (size <= m_nCapacity)
        return;
    const std::size_t ahead = std::min(m_nExpected, m_nSize + kAhead);
    const std::size_t twice = m_nExpected > 0 ? std::min(2 * m_nCapacity, m_nExpected) : 2 * m_nCapacity;
    const std::size_t capacity = std::max({size, ahead, twice, kSpareSize});
    if (m_nCapacity > kSpareSize) {
        resize(m_pBytes, capacity);
    } else {
        Bytes bytes = capacity == kSpareSize ? takeSpare() : allocated(capacity);
        if (m_nSize > 0)
            std::memcpy(bytes.get(), m_pBytes.get(), m_nSize);
        giveBack();
        m_pBytes.swap(bytes);
    }
    m_nCapacity = capacity;
} // NOLINT(clang-analyzer-unix.Malloc): m_pBytes has it

void ContentMemory::giveBack()
{
    if (m_nCapacity == kSpareSize && !t_bThreadEnds && spares().size() < kSpares)
        spares().push_back(std::move(m_pBytes));
    m_pBytes.reset();
    m_nCapacity = 0;
}

void ContentMemory::append(const char* data, std::size_t size)
{
    if (size == 0)
        return;
    reserve(m_nSize + size);
    std::memcpy(m_pBytes.get() + m_nSize, data, size);
    m_nSize += size;
}

iovec ContentMemory::room(std::size_t most)
{
    if (m_nSize == m_nCapacity)
        reserve(m_nSize + 1);
    return {m_pBytes.get() + m_nSize, std::min(most, m_nCapacity - m_nSize)};
}

void ContentMemory::clear()
{
    giveBack();
    m_nSize = 0;
    m_nExpected = 0;
}
