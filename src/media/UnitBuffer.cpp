#include "media/UnitBuffer_p.h"

#include <QtCore/QtEndian>

#include <algorithm>
#include <cstring>

using Nuvika::UnitBuffer;

bool UnitBuffer::append(const unsigned char* data, std::size_t size)
{
    if (!reserve(size))
        return false;
    if (size > 0)
        std::memcpy(m_memory.get() + m_nSize, data, size);
    m_nSize += size;
    return true;
}

bool UnitBuffer::append(const QByteArray& bytes)
{
    return append(
        reinterpret_cast<const unsigned char*>(bytes.constData()), static_cast<std::size_t>(bytes.size()));
}

bool UnitBuffer::appendZeros(std::size_t count)
{
    if (!reserve(count))
        return false;
    if (count > 0)
        std::memset(m_memory.get() + m_nSize, 0, count);
    m_nSize += count;
    return true;
}

void UnitBuffer::write32(std::size_t at, quint32 value) { qToBigEndian<quint32>(value, m_memory.get() + at); }

bool UnitBuffer::reserve(std::size_t more)
{
    constexpr std::size_t kLeast = 2048;
    if (more > m_nMost - m_nSize)
        return false;
    const std::size_t needed = m_nSize + more;
    if (needed <= m_nCapacity)
        return true;
    const std::size_t capacity = std::min(m_nMost, std::max({needed, 2 * m_nCapacity, kLeast}));
    auto* memory = static_cast<unsigned char*>(std::realloc(m_memory.get(), capacity));
    if (memory == nullptr)
        return false;
    (void)m_memory.release(); // realloc took it
    m_memory.reset(memory);
    m_nCapacity = capacity;
    return true;
}
