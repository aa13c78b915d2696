#pragma once

#include <KepNuvikaUtil/Buffer.h>
#include <KepNuvikaUtil/Export.h>
#include <KepNuvikaUtil/MemBlockPool.h>

#include <deque>

#include <sys/uio.h>

/// One chunk of a DynamicByteFifo: a block of the pool with a read and a write position.
///
///     m_pBegin        m_pRead            m_pWrite          m_pEnd
///        |--- read ------|===== queued =====|---- room -------|
///
/// A chunk owns its block; a copy takes a block of its own.
class KEPNUVIKAUTIL_EXPORT DynamicByteFifoChunk
{
public:
    explicit DynamicByteFifoChunk(MemBlockPool* pool);
    DynamicByteFifoChunk(const DynamicByteFifoChunk& other);
    DynamicByteFifoChunk& operator=(const DynamicByteFifoChunk& other);
    ~DynamicByteFifoChunk();

    /// Copies in as many of the \a n bytes as there is room for, and returns that count.
    unsigned int put(const unsigned char* p, unsigned int n);
    /// Copies out and removes at most \a n bytes, and returns their count.
    unsigned int get(unsigned char* p, unsigned int n);
    /// As get(), without copying.
    unsigned int consume(unsigned int n);
    /// Describes at most \a n queued bytes.
    void peek(iovec* v, unsigned int n) const;
    bool empty() const { return m_pWrite == m_pRead; }
    bool full() const { return m_pEnd == m_pWrite; }
    unsigned int size() const { return static_cast<unsigned int>(m_pWrite - m_pRead); }
    void reset();

private:
    void takeBlock(MemBlockPool* pool);
    void copyQueued(const DynamicByteFifoChunk& other);

    unsigned char* m_pBegin;
    unsigned char* m_pEnd;
    unsigned char* m_pWrite;
    unsigned char* m_pRead;
    MemBlockPool* m_pPool;
};

/// A first-in first-out queue of bytes in a chain of equal chunks: copied in once, then sent in place.
///
///     front                                     back
///     [..=====] -> [=======] -> [=======] -> [===....]
///      read here    always full               written here
///
/// The limit is counted in chunks and tested at the start of a put and before each further chunk, so that a
/// put without force may leave one chunk more than the limit; the queue is full then. Queued bytes never
/// move: what peek() described stays where it is until it is consumed.
///
/// Threads: one at a time.
/// Errors: input beyond the limit is logged and not taken; the result says how much was.
class KEPNUVIKAUTIL_EXPORT DynamicByteFifo
{
public:
    /// One empty chunk of \a chunkSize bytes (at least 4); \a maxChunks is the limit.
    DynamicByteFifo(unsigned int chunkSize, unsigned int maxChunks);
    ~DynamicByteFifo();
    DynamicByteFifo(const DynamicByteFifo&) = delete;
    DynamicByteFifo& operator=(const DynamicByteFifo&) = delete;

    /// Queues \a n bytes and returns how many were taken. \a bForce lets a put that has begun pass the
    /// limit; a queue that is full already refuses it all the same.
    unsigned int put(const unsigned char* data, unsigned int n, bool bForce);
    /// Queues \a count ranges in order.
    unsigned int put(const KepNuvikaUtil::BUFFER* buffers, int count, bool bForce);
    /// Copies out and removes at most \a n bytes.
    unsigned int get(unsigned char* dst, unsigned int n);
    /// Removes at most \a n bytes without copying.
    unsigned int consume(unsigned int n);
    /// Describes at most \a maxBytes queued bytes from the front. \a count holds the room in \a vec on entry
    /// and the number of entries filled afterwards. Nothing is removed.
    unsigned int peek(iovec* vec, int* count, unsigned int maxBytes) const;
    bool isEmpty() const { return m_nChunks == 1 && m_chunks.front().empty(); }
    /// The limit is reached: the next put takes nothing.
    bool isFull() const
    {
        return m_nChunks > m_nMaxChunks || (m_nChunks == m_nMaxChunks && m_chunks.back().full());
    }
    /// Drops everything; the memory stays with the queue.
    void clear();

private:
    void addChunk();
    unsigned int append(const unsigned char* data, unsigned int n, bool bForce);
    template <class Take>
    unsigned int takeFromFront(unsigned int n, Take take);

    unsigned int m_nMaxChunks;
    std::deque<DynamicByteFifoChunk> m_chunks; // never empty
    MemBlockPool m_pool;
    unsigned int m_nChunks = 0; // asked for with each put, and a deque computes its size
};
