#pragma once

#include <KepNuvikaUtil/Export.h>

class QDataStream;
class QDebug;

/// A growable byte buffer on an aligned block.
///
///     m_pAlloc        m_pData (aligned)          m_pData + m_size         m_pData + m_capacity
///        |-- padding --|======== content ==========|------- spare -----------|-- padding --|
///
/// Growth fits the request exactly (no doubling), and nothing but clearAndSqueeze() ever shrinks the block,
/// so that a steady stream of like-sized packets allocates once. A pointer into the buffer holds until the
/// next call that may grow it.
///
/// Threads: one at a time; nothing is locked.
/// Errors: a block that cannot be had ends the process with a critical record.
class KEPNUVIKAUTIL_EXPORT VariableBuffer
{
public:
    /// An empty buffer without a block; \a alignment is that of the data, in bytes, any value above 0.
    explicit VariableBuffer(unsigned int alignment = 16);
    /// Takes the alignment and copies the bytes of \a other.
    VariableBuffer(const VariableBuffer& other);
    /// Copies the bytes of \a other; keeps its own alignment and block.
    VariableBuffer& operator=(const VariableBuffer& other);
    virtual ~VariableBuffer();

    /// Equal sizes and equal bytes.
    bool operator==(const VariableBuffer& other) const;
    bool operator!=(const VariableBuffer& other) const { return !(*this == other); }

    /// Sets the size, growing the block when needed, and returns the data for writing. New bytes are not
    /// initialised.
    void* getBuffer(unsigned int size);
    /// The data; null before the first growth.
    const void* getBuffer() const { return m_pData; }
    const char* constData() const { return m_pData; }
    unsigned int getSize() const { return m_size; }
    unsigned int size() const { return m_size; }
    bool isEmpty() const { return m_size == 0; }

    /// Size 0; the block stays.
    void clear() { m_size = 0; }
    /// Size 0, and the block shrunk to \a capacity bytes when it is larger.
    void clearAndSqueeze(unsigned int capacity);
    /// Replaces the content by \a n bytes; a negative \a n counts as 0.
    void setData(const void* p, int n);
    /// Adds \a n bytes behind the content, which may be bytes of this buffer; a negative \a n counts as 0.
    void append(const void* p, int n);
    void append(const VariableBuffer& other);
    /// Cuts \a count bytes out at \a pos. A count past the end is warned of and cuts the buffer to \a pos.
    void remove(unsigned int pos, unsigned int count);
    /// Zero-terminated form of the next; a null pointer counts as length 0.
    void replace(const char* before, const char* after);
    /// Replaces the first occurrence of \a before. A shorter replacement moves the tail but deliberately
    /// keeps the size: the last bytes are stale then.
    void replace(const char* before, int nBefore, const char* after, int nAfter);
    /// Offset of the first occurrence of the \a n bytes at \a p, or -1; also -1 when an int does not hold it.
    int indexOf(const void* p, int n) const;

    /// Takes the alignment and the block of \a other, which is left as if just constructed.
    VariableBuffer(VariableBuffer&& other) noexcept;
    /// The same between equal alignments, this buffer's own block being released; otherwise copies.
    VariableBuffer& operator=(VariableBuffer&& other) noexcept;

private:
    char* alignedStart() const;
    void reallocate(unsigned int capacity);
    void grow(unsigned long long size);
    void appendBytes(const void* p, unsigned int n);
    bool ownsByte(const void* p) const;
    const char* find(const void* p, int n) const;

    char* m_pAlloc = nullptr;
    char* m_pData = nullptr;
    unsigned int m_capacity = 0;
    unsigned int m_size = 0;
    unsigned int m_alignment;
};

/// Writes a 32-bit length in the stream's byte order, then the bytes (as QDataStream::writeBytes does).
KEPNUVIKAUTIL_EXPORT QDataStream& operator<<(QDataStream& stream, const VariableBuffer& buffer);

/// Reads what operator<< wrote. Length 0xFFFFFFFF counts as 0. A stream that ends early leaves an empty
/// buffer and the status QDataStream::ReadPastEnd; memory grows only with bytes that have arrived.
KEPNUVIKAUTIL_EXPORT QDataStream& operator>>(QDataStream& stream, VariableBuffer& buffer);

/// For logs: the size.
KEPNUVIKAUTIL_EXPORT QDebug operator<<(QDebug debug, const VariableBuffer& buffer);
