// Private: an unbounded queue of bytes in chunks of 1 MiB, for what a socket cannot take at once.
#pragma once

#include <QtCore/QtGlobal>

#include <list>
#include <memory>

namespace Nuvika
{
class ChunkQueue
{
public:
    static constexpr int kChunkSize = 1048576;

    bool isEmpty() const { return m_chunks.empty(); }
    qint64 size() const { return m_nSize; }
    void append(const char* data, int size);
    void clear()
    {
        m_chunks.clear();
        m_nSize = 0;
    }

    // Hands whole chunks to send(data, size) while canSend() is true.
    template <class CanSend, class Send>
    void drain(CanSend canSend, Send send)
    {
        while (!m_chunks.empty() && canSend()) {
            const Chunk chunk = std::move(m_chunks.front());
            m_chunks.pop_front();
            m_nSize -= chunk.nUsed;
            send(chunk.pData.get(), chunk.nUsed);
        }
    }

private:
    struct Chunk {
        std::unique_ptr<char[]> pData;
        int nUsed = 0;
    };
    std::list<Chunk> m_chunks; // which holds no memory while it is empty
    qint64 m_nSize = 0;
};
} // namespace Nuvika
