// Pauses between attempts to reach a camera: from one second to thirty, each up to twice the last, with a
// random part, so that cameras that were lost together do not come back together.
#pragma once

#include <QtCore/QRandomGenerator>

#include <algorithm>

class BackOff
{
public:
    static constexpr int kFirstMs = 1000;
    static constexpr int kLongestMs = 30000;

    int nextMs()
    {
        m_ms = std::min(std::max(m_ms * 2, kFirstMs), kLongestMs);
        return m_ms - QRandomGenerator::global()->bounded(m_ms / 3);
    }
    // The camera was reached.
    void reset() { m_ms = 0; }

private:
    int m_ms = 0;
};
