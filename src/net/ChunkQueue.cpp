#include "net/ChunkQueue_p.h"

#include <algorithm>
#include <cstring>

void Nuvika::ChunkQueue::append(const char* data, int size)
{
    while (size > 0) {
        if (m_chunks.empty() || m_chunks.back().nUsed == kChunkSize)
            m_chunks.push_back({std::unique_ptr<char[]>(new char[kChunkSize]), 0});
        Chunk& last = m_chunks.back();
        const int step = std::min(size, kChunkSize - last.nUsed);
        std::memcpy(last.pData.get() + last.nUsed, data, static_cast<std::size_t>(step));
        last.nUsed += step;
        data += step;
        size -= step;
    }
}
