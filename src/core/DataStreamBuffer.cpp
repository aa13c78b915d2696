#include <KepNuvikaUtil/DataStreamBuffer.h>

#include "core/OutOfMemory_p.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <memory>
#include <new>

namespace
{
constexpr qint32 kWrite = 0;
constexpr qint32 kReadInPlace = 1;
constexpr qint32 kReadCopy = 2;
constexpr qint64 kMaxSize = std::numeric_limits<quint32>::max();
} // namespace

DataStreamBuffer::DataStreamBuffer() : m_mode(kWrite), m_pTarget(&m_ownBuffer) { openAsConstructed(); }

DataStreamBuffer::DataStreamBuffer(VariableBuffer* buffer) : m_mode(kWrite), m_pTarget(buffer)
{
    m_pTarget->getBuffer(0);
    openAsConstructed();
}

DataStreamBuffer::DataStreamBuffer(const char* data, int size, bool copy)
    : m_mode(copy ? kReadCopy : kReadInPlace), m_pRaw(data), m_rawSize(std::max(size, 0)), m_bOwnsRaw(copy)
{
    if (copy) {
        const auto bytes = static_cast<std::size_t>(m_rawSize);
        std::unique_ptr<char[]> block(new (std::nothrow) char[bytes]);
        if (!block)
            Nuvika::endWithoutMemory("DataStreamBuffer::DataStreamBuffer", bytes);
        if (m_rawSize > 0)
            std::memcpy(block.get(), data, bytes);
        m_pRaw = block.release();
    }
    openAsConstructed();
}

DataStreamBuffer::~DataStreamBuffer()
{
    if (m_bOwnsRaw)
        std::unique_ptr<const char[]> owner(m_pRaw);
}

void DataStreamBuffer::openAsConstructed()
{
    QIODevice::open((isWriting() ? QIODevice::WriteOnly : QIODevice::ReadOnly) | QIODevice::Unbuffered);
}

bool DataStreamBuffer::open(OpenMode /*mode*/)
{
    if (!isOpen())
        openAsConstructed();
    return true;
}

const char* DataStreamBuffer::getBuffer() const
{
    if (size() <= 0)
        return nullptr;
    return isWriting() ? m_pTarget->constData() : m_pRaw;
}

qint64 DataStreamBuffer::size() const { return isWriting() ? qint64{m_pTarget->getSize()} : m_rawSize; }

bool DataStreamBuffer::seek(qint64 pos)
{
    if (pos < 0 || pos > size())
        return false;
    m_pos = pos;
    if (isWriting())
        m_pTarget->getBuffer(static_cast<unsigned int>(pos));
    return QIODevice::seek(pos);
}

void DataStreamBuffer::resetAndSqueeze(int capacity)
{
    reset();
    if (isWriting())
        m_pTarget->clearAndSqueeze(static_cast<unsigned int>(std::max(capacity, 0)));
}

qint64 DataStreamBuffer::readData(char* dst, qint64 max)
{
    if (isWriting())
        return 0;
    const qint64 n = std::min<qint64>(m_rawSize - m_pos, max);
    if (n <= 0)
        return 0;
    std::memcpy(dst, m_pRaw + m_pos, static_cast<std::size_t>(n));
    m_pos += n;
    return n;
}

qint64 DataStreamBuffer::writeData(const char* src, qint64 len)
{
    if (!isWriting() || len < 0 || len > kMaxSize - m_pos)
        return -1;
    auto* p = static_cast<char*>(m_pTarget->getBuffer(static_cast<unsigned int>(m_pos + len)));
    if (len > 0)
        std::memcpy(p + m_pos, src, static_cast<std::size_t>(len));
    m_pos += len;
    return len;
}
