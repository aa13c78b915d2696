#include <KepNuvikaUtil/VariableBuffer.h>

#include "core/Log_p.h"

#include <QtCore/QDataStream>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>

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
    if (p == nullptr) {
        NUVIKA_CRITICAL(lcCore, "VariableBuffer::getBuffer: out of memory: %zu bytes", bytes);
        std::abort();
    }
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

void VariableBuffer::append(const void* p, int n)
{
    if (n <= 0)
        return;
    const unsigned int oldSize = m_size;
    const quint64 newSize = quint64{oldSize} + static_cast<unsigned int>(n);
    if (newSize > std::numeric_limits<unsigned int>::max()) {
        NUVIKA_CRITICAL(lcCore, "VariableBuffer::append: out of memory: %llu bytes",
            static_cast<unsigned long long>(newSize));
        std::abort();
    }
    const auto* source = static_cast<const char*>(p);
    const bool bOwnBytes = m_pData != nullptr && source >= m_pData && source < m_pData + oldSize;
    const std::ptrdiff_t ownOffset = bOwnBytes ? source - m_pData : 0;
    getBuffer(static_cast<unsigned int>(newSize));
    std::memcpy(m_pData + oldSize, bOwnBytes ? m_pData + ownOffset : source, static_cast<std::size_t>(n));
}

void VariableBuffer::append(const VariableBuffer& other)
{
    append(other.m_pData,
        static_cast<int>(std::min<unsigned int>(other.m_size, std::numeric_limits<int>::max())));
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
    const int found = indexOf(before, nBefore);
    if (found < 0)
        return;
    nAfter = std::max(nAfter, 0);
    const auto at = static_cast<unsigned int>(found);
    const auto tailFrom = at + static_cast<unsigned int>(nBefore);
    const unsigned int tailSize = m_size - tailFrom;
    if (nAfter > nBefore)
        getBuffer(m_size + static_cast<unsigned int>(nAfter - nBefore));
    std::memmove(m_pData + at + nAfter, m_pData + tailFrom, tailSize);
    if (nAfter > 0)
        std::memcpy(m_pData + at, after, static_cast<std::size_t>(nAfter));
}

int VariableBuffer::indexOf(const void* p, int n) const
{
    if (n <= 0 || m_size == 0 || static_cast<unsigned int>(n) > m_size)
        return -1;
    const void* found = memmem(m_pData, m_size, p, static_cast<std::size_t>(n));
    return found == nullptr ? -1 : static_cast<int>(static_cast<const char*>(found) - m_pData);
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
