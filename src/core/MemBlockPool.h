#pragma once

#include <KepNuvikaUtil/Export.h>

#include <QtCore/QMutex>

#include <cstddef>
#include <cstring>

/// A recycling allocator of equal blocks, carved from chunks.
///
///     chunk: | 16 bytes, first word: next chunk | block | block | ... |
///
/// A freed block is the next one handed out (warm memory first). Chunks are kept until freeAll() or
/// destruction, so a pool only grows. Blocks lie back to back at a distance of the block size, but never less
/// than a pointer, which a free block holds in its first bytes.
///
/// Threads: one at a time; MemBlockPoolMT is the locked form.
/// Errors: memory that cannot be had ends the process with a critical record.
class KEPNUVIKAUTIL_EXPORT MemBlockPool
{
public:
    /// Allocates nothing yet. A \a blockSize below 4 becomes 4, a \a blocksPerChunk of 0 becomes 1.
    MemBlockPool(unsigned int blockSize, unsigned int blocksPerChunk);
    /// As freeAll().
    virtual ~MemBlockPool();
    MemBlockPool(const MemBlockPool&) = delete;
    MemBlockPool& operator=(const MemBlockPool&) = delete;

    /// A block of getBlockSize() bytes, not initialised.
    void* allocBuf()
    {
        if (m_pFreeList == nullptr)
            return allocFresh();
        void* block = m_pFreeList;
        std::memcpy(&m_pFreeList, block, sizeof m_pFreeList); // blocks of odd sizes are not aligned
        return block;
    }
    /// Takes a block of this pool back; null is ignored. Nothing checks that the block came from here.
    void freeBuf(void* p)
    {
        if (Q_UNLIKELY(!push(p)))
            assertBlocks();
    }
    /// Frees every chunk: each block handed out becomes invalid.
    void freeAll();
    unsigned int getBlockSize() const { return m_nBlockSize; }

private:
    friend class MemBlockPoolMT;
    struct FreeNode;
    // False for a pool that has no blocks yet.
    bool push(void* p)
    {
        if (p != nullptr) {
            std::memcpy(p, &m_pFreeList, sizeof m_pFreeList);
            m_pFreeList = static_cast<FreeNode*>(p);
        }
        return m_pBlocks != nullptr;
    }
    std::size_t stride() const;
    void addChunk();
    void* allocFresh();
    void assertBlocks() const;

    unsigned int m_nBlockSize;
    unsigned int m_nBlocksPerChunk;
    unsigned int m_nReserved1 = 0; // kept for the layout; not maintained
    unsigned int m_nReserved2 = 0;
    void* m_pBlocks = nullptr;
    FreeNode* m_pFreeList = nullptr;
    // The part of the newest chunk that was never handed out: it counts as the end of the free list, but is
    // not touched before it is needed, so that a pool costs no more memory than its use.
    char* m_pFresh = nullptr;
    char* m_pFreshEnd = nullptr;
};

/// MemBlockPool behind a mutex: its operations may be called from any thread.
class KEPNUVIKAUTIL_EXPORT MemBlockPoolMT : public MemBlockPool
{
public:
    MemBlockPoolMT(unsigned int blockSize, unsigned int blocksPerChunk);
    ~MemBlockPoolMT() override;

    void* allocBuf();
    void freeBuf(void* p);
    void freeAll();

private:
    QMutex m_mutex;
};
