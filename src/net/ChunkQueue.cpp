#include "net/ChunkQueue_p.h"

#include "core/OutOfMemory_p.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace
{
std::unique_ptr<char[]> newChunk()
{
    std::unique_ptr<char[]> bytes(new (std::nothrow) char[Nuvika::ChunkQueue::kChunkSize]);
    if (!bytes)
        Nuvika::endWithoutMemory("ChunkQueue::append", Nuvika::ChunkQueue::kChunkSize);
    return bytes;
}
} // namespace

void Nuvika::ChunkQueue::append(const char* data, int size)
{
    while (size > 0) {
        if (m_chunks.empty() || m_chunks.back().nUsed == kChunkSize)
            m_chunks.push_back({newChunk(), 0});
        Chunk& last = m_chunks.back();
        const int step = std::min(size, kChunkSize - last.nUsed);
        std::memcpy(last.pData.get() + last.nUsed, data, static_cast<std::size_t>(step));
        last.nUsed += step;
        m_nSize += step;
        data += step;
        size -= step;
    }
}
