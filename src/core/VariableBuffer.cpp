#include <KepNuvikaUtil/VariableBuffer.h>

#include "core/Log_p.h"
#include "core/OutOfMemory_p.h"

#include <QtCore/QDataStream>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <limits>
#include <utility>

using namespace Nuvika;

VariableBuffer::VariableBuffer(unsigned int alignment) : m_alignment(alignment) { }

VariableBuffer::VariableBuffer(const VariableBuffer& other) : m_alignment(other.m_alignment)
{
    *this = other;
}

VariableBuffer& VariableBuffer::operator=(const VariableBuffer& other)
{
    if (this == &other)
        return *this;
    getBuffer(other.m_size);
    if (m_size != 0)
        std::memcpy(m_pData, other.m_pData, m_size);
    return *this;
}

VariableBuffer::VariableBuffer(VariableBuffer&& other) noexcept
    : m_pAlloc(std::exchange(other.m_pAlloc, nullptr)), m_pData(std::exchange(other.m_pData, nullptr)),
      m_capacity(std::exchange(other.m_capacity, 0)), m_size(std::exchange(other.m_size, 0)),
      m_alignment(other.m_alignment)
{
}

VariableBuffer& VariableBuffer::operator=(VariableBuffer&& other) noexcept
{
    if (m_alignment != other.m_alignment)
        return *this = std::as_const(other);
    VariableBuffer taken(std::move(other)); // first, for self-assignment
    std::swap(m_pAlloc, taken.m_pAlloc);
    std::swap(m_pData, taken.m_pData);
    std::swap(m_capacity, taken.m_capacity);
    std::swap(m_size, taken.m_size);
    return *this;
}

VariableBuffer::~VariableBuffer() { std::free(m_pAlloc); }

bool VariableBuffer::operator==(const VariableBuffer& other) const
{
    return m_size == other.m_size && (m_size == 0 || std::memcmp(m_pData, other.m_pData, m_size) == 0);
}

char* VariableBuffer::alignedStart() const
{
    const auto address = reinterpret_cast<std::uintptr_t>(m_pAlloc);
    const std::uintptr_t rest = address % m_alignment;
    return rest == 0 ? m_pAlloc : m_pAlloc + (m_alignment - rest);
}

void VariableBuffer::reallocate(unsigned int capacity)
{
    const std::size_t bytes = std::size_t{capacity} + 2 * std::size_t{m_alignment};
    auto* p = static_cast<char*>(std::realloc(m_pAlloc, bytes));
    if (p == nullptr)
        endWithoutMemory("VariableBuffer::getBuffer", bytes);
    m_pAlloc = p;
    m_capacity = capacity;
}

void* VariableBuffer::getBuffer(unsigned int size)
{
    if (size > m_capacity) {
        const std::ptrdiff_t oldDistance = m_pData - m_pAlloc;
        reallocate(size);
        m_pData = alignedStart();
        if (m_pData - m_pAlloc != oldDistance && m_size != 0)
            std::memmove(m_pData, m_pAlloc + oldDistance, m_size);
    }
    m_size = size;
    return m_pData;
}

void VariableBuffer::clearAndSqueeze(unsigned int capacity)
{
    if (capacity < m_capacity) {
        reallocate(capacity);
        m_pData = alignedStart();
    }
    m_size = 0;
}

void VariableBuffer::setData(const void* p, int n)
{
    getBuffer(static_cast<unsigned int>(std::max(n, 0)));
    if (m_size != 0)
        std::memmove(m_pData, p, m_size);
}

// A size beyond 32 bits is one that cannot be had.
void VariableBuffer::grow(unsigned long long size)
{
    if (size > std::numeric_limits<unsigned int>::max())
        endWithoutMemory("VariableBuffer::getBuffer", size);
    getBuffer(static_cast<unsigned int>(size));
}

bool VariableBuffer::ownsByte(const void* p) const
{
    const std::less<const void*> before;
    return m_size != 0 && !before(p, m_pData) && before(p, m_pData + m_size);
}

void VariableBuffer::append(const void* p, int n)
{
    if (n > 0)
        appendBytes(p, static_cast<unsigned int>(n));
}

void VariableBuffer::append(const VariableBuffer& other) { appendBytes(other.m_pData, other.m_size); }

void VariableBuffer::appendBytes(const void* p, unsigned int n)
{
    if (n == 0)
        return;
    const unsigned int oldSize = m_size;
    const auto* source = static_cast<const char*>(p);
    const bool bOwnBytes = ownsByte(p);
    const std::ptrdiff_t ownOffset = bOwnBytes ? source - m_pData : 0;
    grow(quint64{oldSize} + n);
    std::memcpy(m_pData + oldSize, bOwnBytes ? m_pData + ownOffset : source, n);
}

void VariableBuffer::remove(unsigned int pos, unsigned int count)
{
    if (count == 0 || pos >= m_size)
        return;
    const quint64 end = quint64{pos} + count;
    if (end > m_size) {
        NUVIKA_WARNING(lcCore,
            "VariableBuffer::remove: Requested to remove more bytes than are contained in the buffer: "
            "%lld bytes > %u bytes; please check you pointer/buffer arithmetic",
            static_cast<long long>(end), m_size);
    }
    if (end < m_size)
        std::memmove(m_pData + pos, m_pData + end, m_size - end);
    m_size -= static_cast<unsigned int>(std::min<quint64>(count, m_size - pos));
}

void VariableBuffer::replace(const char* before, const char* after)
{
    replace(before, before == nullptr ? 0 : static_cast<int>(std::strlen(before)), after,
        after == nullptr ? 0 : static_cast<int>(std::strlen(after)));
}

void VariableBuffer::replace(const char* before, int nBefore, const char* after, int nAfter)
{
    const char* found = find(before, nBefore);
    if (found == nullptr)
        return;
    VariableBuffer own; // of this buffer's own bytes, which are about to move
    nAfter = std::max(nAfter, 0);
    if (nAfter > 0 && ownsByte(after)) {
        own.setData(after, nAfter);
        after = own.constData();
    }
    const auto at = static_cast<std::size_t>(found - m_pData);
    const std::size_t tailFrom = at + static_cast<unsigned int>(nBefore);
    const std::size_t tailSize = m_size - tailFrom;
    if (nAfter > nBefore)
        grow(quint64{m_size} + static_cast<unsigned int>(nAfter - nBefore));
    std::memmove(m_pData + at + nAfter, m_pData + tailFrom, tailSize);
    if (nAfter > 0)
        std::memcpy(m_pData + at, after, static_cast<std::size_t>(nAfter));
}

const char* VariableBuffer::find(const void* p, int n) const
{
    if (n <= 0 || m_size == 0 || static_cast<unsigned int>(n) > m_size)
        return nullptr;
    return static_cast<const char*>(memmem(m_pData, m_size, p, static_cast<std::size_t>(n)));
}

int VariableBuffer::indexOf(const void* p, int n) const
{
    const char* found = find(p, n);
    const std::ptrdiff_t offset = found == nullptr ? -1 : found - m_pData;
    return offset > std::numeric_limits<int>::max() ? -1 : static_cast<int>(offset);
}

QDataStream& operator<<(QDataStream& stream, const VariableBuffer& buffer)
{
    return stream.writeBytes(buffer.constData(), buffer.getSize());
}

QDataStream& operator>>(QDataStream& stream, VariableBuffer& buffer)
{
    constexpr quint32 kNullMarker = 0xFFFFFFFF;
    constexpr quint32 kStep = 1U << 20;

    quint32 length = 0;
    stream >> length;
    if (stream.status() != QDataStream::Ok)
        return stream;
    if (length == kNullMarker)
        length = 0;

    // The length is the sender's claim: the buffer grows only as far as bytes arrive.
    quint32 done = 0;
    quint32 step = kStep;
    while (done < length) {
        const quint32 want = std::min(step, length - done);
        auto* p = static_cast<char*>(buffer.getBuffer(done + want));
        const int got = stream.readRawData(p + done, static_cast<int>(want));
        if (got != static_cast<int>(want)) {
            buffer.getBuffer(0);
            stream.setStatus(QDataStream::ReadPastEnd);
            return stream;
        }
        done += want;
        step = std::max(kStep, std::min(done, quint32{1U << 30}));
    }
    buffer.getBuffer(length);
    return stream;
}
