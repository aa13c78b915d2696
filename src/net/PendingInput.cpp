#include "net/PendingInput_p.h"

#include <utility>

using namespace Nuvika;

void PendingInput::received(const char* data, int size)
{
    if (!m_bReading && !m_bHeld && isEmpty()) {
        read(data, size);
        return;
    }
    m_arrived.append(data, size);
    lookAtBacklog();
}

void PendingInput::ended(int code)
{
    m_end = code;
    if (!m_bReading)
        read(nullptr, 0);
}

void PendingInput::release()
{
    m_bHeld = false;
    if (!m_bReading)
        read(nullptr, 0);
}

// Reads the bytes in place, then what waits, then the end. The last statement of its callers.
void PendingInput::read(const char* data, int size)
{
    m_bReading = true;
    if (data != nullptr) {
        const int n = m_reader.readInput(data, size);
        if (n == InputReader::kOver)
            return;
        m_front = QByteArray(data + n, size - n);
        m_nRead = 0;
    }
    if (!readWaiting())
        return;
    m_bReading = false;
    if (m_end && isEmpty() && !m_bHeld)
        m_reader.readEnd(*std::exchange(m_end, std::nullopt));
}

// False when the session is over.
bool PendingInput::readWaiting()
{
    while (!m_bHeld && !isEmpty()) {
        if (m_nRead == m_front.size()) {
            m_front = std::exchange(m_arrived, QByteArray());
            m_nRead = 0;
        }
        const QByteArray kept = m_front; // stays in place when a handler resets
        const int n = m_reader.readInput(kept.constData() + m_nRead, kept.size() - m_nRead);
        if (n == InputReader::kOver)
            return false;
        m_nRead += n;
        lookAtBacklog();
    }
    if (isEmpty()) {
        m_front.clear();
        m_nRead = 0;
    }
    return true;
}

void PendingInput::reset()
{
    m_front.clear();
    m_nRead = 0;
    m_arrived.clear();
    m_end.reset();
    m_bReading = false;
    m_bHeld = false;
    setStalls(m_stalls & eByOwner);
}

// --- stalls ----------------------------------------------------------------------------------------------

void PendingInput::setStalled(Stall reason, bool bStalled)
{
    setStalls(bStalled ? m_stalls | reason : m_stalls & ~static_cast<unsigned>(reason));
}

void PendingInput::lookAtBacklog() { setStalled(eByBacklog, waiting() > kMaxWaiting); }

void PendingInput::setStalls(unsigned stalls)
{
    const bool bBefore = std::exchange(m_stalls, stalls) != 0;
    if (bBefore != (stalls != 0))
        m_reader.stallSource(stalls != 0);
}
