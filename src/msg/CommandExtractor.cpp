#include "msg/CommandExtractor_p.h"

#include "core/Log_p.h"

#include <QtCore/QtEndian>

#include <algorithm>
#include <cstring>
#include <utility>

// --- what is held ----------------------------------------------------------------------------------------

bool CommandExtractor::reallocate(int capacity)
{
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
    }
    std::memcpy(m_pBuffer.get() + m_nSize, data, static_cast<std::size_t>(size));
    m_nSize += size;
    return true;
}

void CommandExtractor::shrink()
{
    if (m_nSize < kShrinkBelow && m_nCapacity > kShrunkCapacity)
        reallocate(kShrunkCapacity);
}

// --- frames ----------------------------------------------------------------------------------------------

bool CommandExtractor::feed(const char* data, int size)
{
    NUVIKA_ASSERT(m_nFed == 0);
    if (qint64(m_nSize) + size > kMaxCapacity)
        return false;
    m_pFed = data;
    m_nFed = size;
    return true;
}

CommandExtractor::Look CommandExtractor::lookAt(const char* data, int size, Command* command)
{
    if (size <= kHeadSize)
        return eIncomplete;
    const auto magic = qFromBigEndian<quint32>(data);
    const auto length = qFromBigEndian<quint32>(data + 4);
    *command = {data + kHeadSize, static_cast<int>(length), magic == kMagicCrypted};
    if (magic != kMagicUncrypted && magic != kMagicCrypted) {
        NUVIKA_WARNING(lcMsg, "BufferSocket: Invalid MAGIC_KEY");
        return eInvalid;
    }
    if (length >= kMaxCommand) {
        NUVIKA_WARNING(lcMsg, "BufferSocket: Invalid datagram size");
        return eInvalid;
    }
    return static_cast<quint32>(size) < length + kHeadSize ? eIncomplete : eFrame;
}

// Moves what the held frame lacks behind it: the head and a byte first, which tell how much that is.
bool CommandExtractor::completeFrame()
{
    for (;;) {
        const qint64 wanted = m_nSize <= kHeadSize
            ? kHeadSize + 1
            : qint64(kHeadSize) + std::min(qFromBigEndian<quint32>(m_pBuffer.get() + 4), kMaxCommand);
        const int count = static_cast<int>(std::min<qint64>(wanted - m_nSize, m_nFed));
        if (count <= 0)
            return true;
        if (!append(m_pFed, count))
            return false;
        m_pFed += count;
        m_nFed -= count;
    }
}

bool CommandExtractor::getFirstCommand(Command* command)
{
    m_bHeld = m_nSize > 0;
    if (m_bHeld && !completeFrame()) {
        clear();
        return false;
    }
    const char* data = m_bHeld ? m_pBuffer.get() : m_pFed;
    const Look look = lookAt(data, m_bHeld ? m_nSize : m_nFed, command);
    if (look == eFrame) {
        m_nFirstCmdSize = command->nSize;
        m_bOutstanding = true;
        return true;
    }
    if (look == eInvalid || (m_nFed > 0 && !append(m_pFed, std::exchange(m_nFed, 0))))
        clear();
    return false;
}

void CommandExtractor::removeFirstCommand()
{
    if (!m_bOutstanding)
        return;
    const int frame = m_nFirstCmdSize + kHeadSize;
    m_bOutstanding = false;
    if (!m_bHeld) {
        m_pFed += frame;
        m_nFed -= frame;
        return;
    }
    NUVIKA_ASSERT(m_nFirstCmdSize + 8 <= m_nSize);
    m_nFirstCmdSize = 0;
    m_nSize -= frame; // the byte that made an empty frame visible may be left
    std::memmove(m_pBuffer.get(), m_pBuffer.get() + frame, static_cast<std::size_t>(m_nSize));
    shrink();
}

CommandExtractor::Storage CommandExtractor::clear()
{
    m_nFed = 0;
    m_nSize = 0;
    m_nCapacity = 0;
    m_nFirstCmdSize = 0;
    m_bOutstanding = false;
    return std::exchange(m_pBuffer, nullptr);
}
