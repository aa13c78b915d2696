#include <KepNuvikaUtil/MemBlockPool.h>

#include <KepNuvikaUtil/Allocation.h>

#include "core/Log_p.h"
#include "core/MutexGuard_p.h"
#include "core/OutOfMemory_p.h"

#include <algorithm>
#include <cstring>
#include <limits>

using namespace Nuvika;

struct MemBlockPool::FreeNode {
    FreeNode* pNext;
};

namespace
{
constexpr unsigned int kMinBlockSize = 4;
constexpr std::size_t kChunkHead = 16;
} // namespace

MemBlockPool::MemBlockPool(unsigned int blockSize, unsigned int blocksPerChunk)
    : m_nBlockSize(std::max(blockSize, kMinBlockSize)), m_nBlocksPerChunk(std::max(blocksPerChunk, 1U))
{
}

MemBlockPool::~MemBlockPool() { MemBlockPool::freeAll(); }

std::size_t MemBlockPool::stride() const { return std::max<std::size_t>(m_nBlockSize, sizeof(FreeNode)); }

void MemBlockPool::addChunk()
{
    const std::size_t nSize = stride() * m_nBlocksPerChunk;
    // The blank is part of the text.
    // clang-format off
    NUVIKA_ASSERT(nSize >= sizeof (FreeNode));
    // clang-format on
    void* chunk = nSize + kChunkHead <= std::numeric_limits<unsigned int>::max()
        ? NuvikaMallocNoExtending(static_cast<unsigned int>(nSize + kChunkHead))
        : nullptr;
    if (chunk == nullptr)
        endWithoutMemory("MemBlockPool::allocBuf", nSize + kChunkHead);
    std::memcpy(chunk, &m_pBlocks, sizeof m_pBlocks);
    m_pBlocks = chunk;
    m_pFresh = static_cast<char*>(chunk) + kChunkHead;
    m_pFreshEnd = m_pFresh + nSize;
}

void* MemBlockPool::allocFresh()
{
    if (m_pFresh == m_pFreshEnd)
        addChunk();
    void* block = m_pFresh;
    m_pFresh += stride();
    return block;
}

void MemBlockPool::assertBlocks() const { NUVIKA_ASSERT(m_pBlocks); }

void MemBlockPool::freeAll()
{
    while (m_pBlocks != nullptr) {
        void* chunk = m_pBlocks;
        std::memcpy(&m_pBlocks, chunk, sizeof m_pBlocks);
        NuvikaFree(chunk);
    }
    m_pFreeList = nullptr;
    m_pFresh = nullptr;
    m_pFreshEnd = nullptr;
    m_nReserved1 = 0;
    m_nReserved2 = 0;
}

MemBlockPoolMT::MemBlockPoolMT(unsigned int blockSize, unsigned int blocksPerChunk)
    : MemBlockPool(blockSize, blocksPerChunk)
{
}

MemBlockPoolMT::~MemBlockPoolMT() { MemBlockPoolMT::freeAll(); }

void* MemBlockPoolMT::allocBuf()
{
    const MutexGuard lock(m_mutex);
    return MemBlockPool::allocBuf();
}

void MemBlockPoolMT::freeBuf(void* p)
{
    const auto push = [this, p] {
        const MutexGuard lock(m_mutex);
        return MemBlockPool::push(p);
    };
    if (!push())
        assertBlocks(); // outside of the lock: a log handler may use the pool
}

void MemBlockPoolMT::freeAll()
{
    const MutexGuard lock(m_mutex);
    MemBlockPool::freeAll();
}
