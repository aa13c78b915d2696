#pragma once

#include <KepNuvikaUtil/Export.h>
#include <KepNuvikaUtil/VariableBuffer.h>

#include <QtCore/QMetaType>
#include <QtCore/QMutex>

#include <atomic>

class QDebug;
class SharedPoolBuffer;

/// A pool of reference-counted buffers.
///
///     SharedPoolBuffer (handle) --> record { next, pool, VariableBuffer, count } --> SharedBufferPool
///
/// When the last handle to a record lets go, the record returns to its pool with its memory, and is the next
/// one handed out: a steady flow of like-sized bodies allocates nothing after warm-up. A record is never
/// freed while the pool lives.
///
/// Lifetime: made with new and never deleted by its users. release() is the owner's farewell; the pool ends
/// itself once that was called and no record is out, on whichever thread comes last. Handles may outlive
/// release(); a released pool that still lives goes on serving getBuffer().
/// Threads: any.
class KEPNUVIKAUTIL_EXPORT SharedBufferPool
{
public:
    SharedBufferPool();
    SharedBufferPool(const SharedBufferPool&) = delete;
    SharedBufferPool& operator=(const SharedBufferPool&) = delete;

    /// A handle to an empty buffer, which keeps the memory of its earlier use.
    SharedPoolBuffer getBuffer();
    /// Ends the pool as soon as no record is out: at once, or with the last handle.
    void release();

private:
    friend class SharedPoolBuffer;
    struct BUFFER;

    ~SharedBufferPool();
    void returnBuffer(BUFFER* pBuffer);

    QMutex m_mutex;
    bool m_bReleased = false;
    qint32 m_outstandigBuffers = 0;
    BUFFER* m_pFreeList = nullptr;
};

/// A handle to a pooled buffer. All handles to one record see the same bytes, there is no copy on write:
/// writers fill the buffer before they share it. Registered with Qt's meta-type system as "SharedPoolBuffer"
/// when the library loads, so that handles travel through queued signals.
///
/// Threads: handles to one record may be copied and dropped on different threads; one handle object is used
/// by one thread at a time, and the bytes are not guarded.
class KEPNUVIKAUTIL_EXPORT SharedPoolBuffer
{
public:
    /// An empty handle.
    SharedPoolBuffer() = default;
    SharedPoolBuffer(const SharedPoolBuffer& other);
    SharedPoolBuffer& operator=(const SharedPoolBuffer& other);
    ~SharedPoolBuffer();

    /// The bytes; null for an empty handle.
    const void* getBuffer() const;
    /// Size in bytes; 0 for an empty handle.
    int getBufferSize() const;
    /// True for an empty handle and for an empty buffer.
    bool isEmpty() const;
    /// The buffer itself, for writing in place; null for an empty handle.
    VariableBuffer* getVariableBuffer();
    const VariableBuffer* getVariableBuffer() const;
    /// Replaces the bytes. An empty handle reports it and writes nothing.
    void setData(const void* p, int n);

    /// Moving leaves \a other empty, and counts nothing.
    SharedPoolBuffer(SharedPoolBuffer&& other) noexcept;
    SharedPoolBuffer& operator=(SharedPoolBuffer&& other) noexcept;

private:
    friend class SharedBufferPool;
    explicit SharedPoolBuffer(SharedBufferPool::BUFFER* pBuffer);
    void deref();

    SharedBufferPool::BUFFER* m_pBuffer = nullptr;
};

/// For logs: the size.
KEPNUVIKAUTIL_EXPORT QDebug operator<<(QDebug debug, const SharedPoolBuffer& buffer);

Q_DECLARE_METATYPE(SharedPoolBuffer)
