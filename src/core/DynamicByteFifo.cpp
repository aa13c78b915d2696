#include <KepNuvikaUtil/DynamicByteFifo.h>

#include "core/Log_p.h"

#include <algorithm>
#include <cstring>

using namespace Nuvika;

DynamicByteFifoChunk::DynamicByteFifoChunk(MemBlockPool* pool) { takeBlock(pool); }

DynamicByteFifoChunk::DynamicByteFifoChunk(const DynamicByteFifoChunk& other)
{
    takeBlock(other.m_pPool);
    copyQueued(other);
}

DynamicByteFifoChunk& DynamicByteFifoChunk::operator=(const DynamicByteFifoChunk& other)
{
    if (this != &other) {
        m_pPool->freeBuf(m_pBegin);
        takeBlock(other.m_pPool);
        copyQueued(other);
    }
    return *this;
}

DynamicByteFifoChunk::~DynamicByteFifoChunk() { m_pPool->freeBuf(m_pBegin); }

void DynamicByteFifoChunk::takeBlock(MemBlockPool* pool)
{
    m_pPool = pool;
    m_pBegin = static_cast<unsigned char*>(pool->allocBuf());
    m_pEnd = m_pBegin + pool->getBlockSize();
    reset();
}

void DynamicByteFifoChunk::copyQueued(const DynamicByteFifoChunk& other)
{
    m_pRead = m_pBegin + (other.m_pRead - other.m_pBegin);
    m_pWrite = m_pRead + other.size();
    std::memcpy(m_pRead, other.m_pRead, other.size());
}

unsigned int DynamicByteFifoChunk::put(const unsigned char* p, unsigned int n)
{
    n = std::min(n, static_cast<unsigned int>(m_pEnd - m_pWrite));
    std::memcpy(m_pWrite, p, n);
    m_pWrite += n;
    return n;
}

unsigned int DynamicByteFifoChunk::get(unsigned char* p, unsigned int n)
{
    n = std::min(n, size());
    std::memcpy(p, m_pRead, n);
    m_pRead += n;
    return n;
}

unsigned int DynamicByteFifoChunk::consume(unsigned int n)
{
    n = std::min(n, size());
    m_pRead += n;
    return n;
}

void DynamicByteFifoChunk::peek(iovec* v, unsigned int n) const
{
    v->iov_base = m_pRead;
    v->iov_len = std::min(n, size());
}

void DynamicByteFifoChunk::reset()
{
    m_pRead = m_pBegin;
    m_pWrite = m_pBegin;
}

DynamicByteFifo::DynamicByteFifo(unsigned int chunkSize, unsigned int maxChunks)
    : m_nMaxChunks(maxChunks), m_pool(chunkSize, std::max(maxChunks / 100, 10U))
{
    addChunk();
}

// The chunks return their blocks before the pool, which is declared behind them, frees its memory.
DynamicByteFifo::~DynamicByteFifo() { m_chunks.clear(); }

void DynamicByteFifo::addChunk()
{
    m_chunks.emplace_back(&m_pool);
    ++m_nChunks;
}

unsigned int DynamicByteFifo::append(const unsigned char* data, unsigned int n, bool bForce)
{
    unsigned int taken = 0;
    while (bForce || m_nChunks <= m_nMaxChunks) {
        taken += m_chunks.back().put(data + taken, n - taken);
        if (taken == n)
            break;
        addChunk();
    }
    return taken;
}

namespace
{
void logNotTaken()
{
    NUVIKA_CRITICAL(lcCore, "DynamicByteFifo::put: max buffer size exceeded --> data not taken");
}
} // namespace

unsigned int DynamicByteFifo::put(const unsigned char* data, unsigned int n, bool bForce)
{
    if (n == 0)
        return 0;
    const unsigned int taken = isFull() ? 0 : append(data, n, bForce);
    if (taken < n)
        logNotTaken();
    return taken;
}

unsigned int DynamicByteFifo::put(const KepNuvikaUtil::BUFFER* buffers, int count, bool bForce)
{
    // The expected total counts negative lengths as they stand: a range list that adds up to nothing is
    // never reported as cut short.
    qint64 expected = 0;
    qint64 taken = 0;
    const bool bFull = isFull();
    for (int i = 0; i < count; ++i) {
        expected += buffers[i].nLen;
        if (!bFull && buffers[i].nLen > 0)
            taken += append(reinterpret_cast<const unsigned char*>(buffers[i].pData),
                static_cast<unsigned int>(buffers[i].nLen), bForce);
    }
    if (taken < expected)
        logNotTaken();
    return static_cast<unsigned int>(taken);
}

template <class Take>
unsigned int DynamicByteFifo::takeFromFront(unsigned int n, Take take)
{
    unsigned int taken = 0;
    while (taken < n) {
        DynamicByteFifoChunk& front = m_chunks.front();
        taken += take(front, taken);
        if (!front.empty())
            break;
        if (m_nChunks == 1) {
            front.reset();
            break;
        }
        m_chunks.pop_front();
        --m_nChunks;
    }
    return taken;
}

unsigned int DynamicByteFifo::get(unsigned char* dst, unsigned int n)
{
    return takeFromFront(n, [dst, n](DynamicByteFifoChunk& chunk, unsigned int taken) {
        return chunk.get(dst + taken, n - taken);
    });
}

unsigned int DynamicByteFifo::consume(unsigned int n)
{
    return takeFromFront(
        n, [n](DynamicByteFifoChunk& chunk, unsigned int taken) { return chunk.consume(n - taken); });
}

unsigned int DynamicByteFifo::peek(iovec* vec, int* count, unsigned int maxBytes) const
{
    unsigned int described = 0;
    int filled = 0;
    for (const DynamicByteFifoChunk& chunk : m_chunks) {
        if (chunk.empty() || described == maxBytes || filled == *count)
            break;
        chunk.peek(&vec[filled], maxBytes - described);
        described += static_cast<unsigned int>(vec[filled].iov_len);
        ++filled;
    }
    *count = filled;
    return described;
}

void DynamicByteFifo::clear()
{
    std::deque<DynamicByteFifoChunk>().swap(m_chunks);
    m_nChunks = 0;
    addChunk();
}
