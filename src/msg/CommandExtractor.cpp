#include "msg/CommandExtractor_p.h"

#include "core/Log_p.h"

#include <QtCore/QtEndian>

#include <algorithm>
#include <cstring>
#include <utility>

void CommandExtractor::moveToFront()
{
    if (m_nOffset > 0 && m_nSize > 0)
        std::memmove(m_pBuffer.get(), m_pBuffer.get() + m_nOffset, static_cast<std::size_t>(m_nSize));
    m_nOffset = 0;
}

bool CommandExtractor::reallocate(int capacity)
{
    moveToFront();
    auto* storage = static_cast<char*>(std::realloc(m_pBuffer.get(), static_cast<std::size_t>(capacity)));
    if (storage == nullptr)
        return false;
    static_cast<void>(m_pBuffer.release()); // realloc has freed or kept it
    m_pBuffer.reset(storage);
    m_nCapacity = capacity;
    return true;
}

bool CommandExtractor::append(const char* data, int size)
{
    const qint64 needed = qint64(m_nSize) + size;
    if (needed > m_nCapacity) {
        const qint64 capacity
            = std::min<qint64>(std::max<qint64>(2 * qint64(m_nCapacity), needed), kMaxCapacity);
        if (capacity < needed || !reallocate(static_cast<int>(capacity)))
            return false;
    } else if (m_nOffset + needed > m_nCapacity) {
        moveToFront();
    }
    std::memcpy(m_pBuffer.get() + m_nOffset + m_nSize, data, static_cast<std::size_t>(size));
    m_nSize += size;
    return true;
}

bool CommandExtractor::getFirstCommand(Command* command)
{
    if (m_nSize <= kHeadSize)
        return false;
    const char* head = m_pBuffer.get() + m_nOffset;
    const auto magic = qFromBigEndian<quint32>(head);
    const auto length = qFromBigEndian<quint32>(head + 4);
    if (magic != kMagicUncrypted && magic != kMagicCrypted) {
        NUVIKA_WARNING(lcMsg, "BufferSocket: Invalid MAGIC_KEY");
        clear();
        return false;
    }
    if (length >= kMaxCommand) {
        NUVIKA_WARNING(lcMsg, "BufferSocket: Invalid datagram size");
        clear();
        return false;
    }
    if (static_cast<quint32>(m_nSize) < length + kHeadSize)
        return false;
    m_nFirstCmdSize = static_cast<int>(length);
    m_bOutstanding = true;
    *command = {head + kHeadSize, m_nFirstCmdSize, magic == kMagicCrypted};
    return true;
}

void CommandExtractor::removeFirstCommand()
{
    if (!m_bOutstanding)
        return;
    NUVIKA_ASSERT(m_nFirstCmdSize + 8 <= m_nSize);
    m_nOffset += m_nFirstCmdSize + kHeadSize;
    m_nSize -= m_nFirstCmdSize + kHeadSize;
    m_nFirstCmdSize = 0;
    m_bOutstanding = false;
    if (m_nSize == 0)
        m_nOffset = 0;
    if (m_nSize < kShrinkBelow && m_nCapacity > kShrunkCapacity)
        reallocate(kShrunkCapacity);
}

CommandExtractor::Storage CommandExtractor::clear()
{
    m_nSize = 0;
    m_nCapacity = 0;
    m_nFirstCmdSize = 0;
    m_nOffset = 0;
    m_bOutstanding = false;
    return std::exchange(m_pBuffer, nullptr);
}
