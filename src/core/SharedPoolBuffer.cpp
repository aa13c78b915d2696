#include <KepNuvikaUtil/SharedPoolBuffer.h>

#include "core/Log_p.h"
#include "core/MutexGuard_p.h"
#include "core/OutOfMemory_p.h"

#include <memory>
#include <new>
#include <utility>

using namespace Nuvika;

struct SharedBufferPool::BUFFER {
    BUFFER* pNext = nullptr;
    SharedBufferPool* pPool = nullptr;
    VariableBuffer payload{16};
    std::atomic<qint32> nRefs{0};
};

namespace
{
[[maybe_unused]] const int kMetaTypeId = qRegisterMetaType<SharedPoolBuffer>("SharedPoolBuffer");
} // namespace

SharedBufferPool::SharedBufferPool() = default;

SharedBufferPool::~SharedBufferPool()
{
    NUVIKA_ASSERT(m_outstandigBuffers == 0);
    while (m_pFreeList != nullptr) {
        const std::unique_ptr<BUFFER> record(m_pFreeList);
        m_pFreeList = record->pNext;
    }
}

SharedPoolBuffer SharedBufferPool::getBuffer()
{
    const MutexGuard lock(m_mutex);
    BUFFER* pBuffer = m_pFreeList;
    if (pBuffer == nullptr) {
        pBuffer = new (std::nothrow) BUFFER; // owned by its handles, then by the free list
        if (pBuffer == nullptr)
            endWithoutMemory("SharedBufferPool::getBuffer", sizeof(BUFFER));
        pBuffer->pPool = this;
    } else {
        m_pFreeList = pBuffer->pNext;
    }
    pBuffer->nRefs.store(1, std::memory_order_relaxed);
    ++m_outstandigBuffers;
    pBuffer->payload.clear();
    return SharedPoolBuffer(pBuffer);
}

void SharedBufferPool::returnBuffer(BUFFER* pBuffer)
{
    bool bLast = false;
    bool bTaken = false;
    {
        const MutexGuard lock(m_mutex);
        pBuffer->pNext = m_pFreeList;
        m_pFreeList = pBuffer;
        bTaken = m_outstandigBuffers > 0;
        bLast = m_outstandigBuffers == 1 && m_bReleased;
        --m_outstandigBuffers;
    }
    if (!bTaken) // told outside of the lock: a log handler may use the pool
        nuvikaAssertPrint("m_outstandigBuffers > 0", baseName(__FILE__), __LINE__);
    if (bLast)
        delete this;
}

void SharedBufferPool::release()
{
    bool bLast = false;
    bool bTwice = false;
    {
        const MutexGuard lock(m_mutex);
        bTwice = m_bReleased;
        m_bReleased = true;
        bLast = m_outstandigBuffers == 0;
    }
    if (bTwice)
        nuvikaAssertPrint("m_bReleased == false", baseName(__FILE__), __LINE__);
    if (bLast)
        delete this;
}

SharedPoolBuffer::SharedPoolBuffer(SharedBufferPool::BUFFER* pBuffer) : m_pBuffer(pBuffer) { }

SharedPoolBuffer::SharedPoolBuffer(const SharedPoolBuffer& other) : m_pBuffer(other.m_pBuffer)
{
    if (m_pBuffer != nullptr)
        m_pBuffer->nRefs.fetch_add(1, std::memory_order_relaxed);
}

SharedPoolBuffer& SharedPoolBuffer::operator=(const SharedPoolBuffer& other)
{
    SharedBufferPool::BUFFER* pOther = other.m_pBuffer;
    if (pOther != nullptr)
        pOther->nRefs.fetch_add(1, std::memory_order_relaxed); // first, for self-assignment
    deref();
    m_pBuffer = pOther;
    return *this;
}

SharedPoolBuffer::SharedPoolBuffer(SharedPoolBuffer&& other) noexcept
    : m_pBuffer(std::exchange(other.m_pBuffer, nullptr))
{
}

SharedPoolBuffer& SharedPoolBuffer::operator=(SharedPoolBuffer&& other) noexcept
{
    SharedBufferPool::BUFFER* pOther = std::exchange(other.m_pBuffer, nullptr); // first, for self-assignment
    deref();
    m_pBuffer = pOther;
    return *this;
}

SharedPoolBuffer::~SharedPoolBuffer() { deref(); }

void SharedPoolBuffer::deref()
{
    SharedBufferPool::BUFFER* pBuffer = m_pBuffer;
    m_pBuffer = nullptr;
    if (pBuffer != nullptr && pBuffer->nRefs.fetch_sub(1, std::memory_order_acq_rel) == 1)
        pBuffer->pPool->returnBuffer(pBuffer);
}

const void* SharedPoolBuffer::getBuffer() const
{
    return m_pBuffer == nullptr ? nullptr : m_pBuffer->payload.constData();
}

int SharedPoolBuffer::getBufferSize() const
{
    return m_pBuffer == nullptr ? 0 : static_cast<int>(m_pBuffer->payload.getSize());
}

bool SharedPoolBuffer::isEmpty() const { return getBufferSize() == 0; }

VariableBuffer* SharedPoolBuffer::getVariableBuffer()
{
    return m_pBuffer == nullptr ? nullptr : &m_pBuffer->payload;
}

const VariableBuffer* SharedPoolBuffer::getVariableBuffer() const
{
    return m_pBuffer == nullptr ? nullptr : &m_pBuffer->payload;
}

void SharedPoolBuffer::setData(const void* p, int n)
{
    NUVIKA_ASSERT(m_pBuffer);
    if (m_pBuffer == nullptr) {
        NUVIKA_CRITICAL(lcCore, "SharedPoolBuffer::setData() not from pool taken");
        return;
    }
    m_pBuffer->payload.setData(p, n);
}
