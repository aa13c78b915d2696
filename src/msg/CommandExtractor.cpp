#include "msg/CommandExtractor_p.h"

#include "core/Log_p.h"

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
    m_bOverfull = qint64(m_nSize) + size > kMaxCapacity;
    if (m_bOverfull)
        return false;
    m_pFed = data;
    m_nFed = size;
    return true;
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

// The first frame once more, where some of it is held, or none is whole.
bool CommandExtractor::joinFirstCommand(Command* command)
{
    const bool bHeld = m_nSize > 0;
    bool bRoom = !bHeld || completeFrame();
    const Look look = bHeld ? lookAt(m_pBuffer.get(), m_nSize, command) : lookAt(m_pFed, m_nFed, command);
    if (bRoom && look == eFrame) {
        m_nFirstCmdSize = command->nSize;
        m_outstanding = bHeld ? eHeld : eFed;
        return true;
    }
    if (look == eWrongMagic)
        NUVIKA_WARNING(lcMsg, "BufferSocket: Invalid MAGIC_KEY");
    if (look == eWrongLength)
        NUVIKA_WARNING(lcMsg, "BufferSocket: Invalid datagram size");
    if (bRoom && look == eIncomplete && m_nFed > 0)
        bRoom = append(m_pFed, std::exchange(m_nFed, 0));
    if (!bRoom || look != eIncomplete)
        clear();
    m_bOverfull = !bRoom;
    return false;
}

void CommandExtractor::removeHeldCommand()
{
    if (m_outstanding == eNone)
        return;
    m_outstanding = eNone;
    NUVIKA_ASSERT(m_nFirstCmdSize + 8 <= m_nSize);
    const int frame = m_nFirstCmdSize + kHeadSize;
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
    m_outstanding = eNone;
    m_bOverfull = false;
    return std::exchange(m_pBuffer, nullptr);
}
