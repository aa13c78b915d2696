// What the programs of the idle rows share: connections are opened one after the other; with the variant's
// "used" each then sends a message and gets it back, once. What all of them but the first added to the memory
// of the process is reported for each; the first one's part is the library's own.
//   near_idle_PEER idle|tls PORT 0 CONNECTIONS [PROFILE][ used]
#pragma once

#include "Common.h"

#include <functional>

namespace bench
{
[[noreturn]] inline void reportIdle(double before, int count)
{
    std::printf("0 0 %.2f 0\n", (residentKiB() - before) / count);
    std::fflush(stdout);
    std::_Exit(0);
}

class IdleRow
{
public:
    // connectNext() ends in connected(), use(i) in used().
    IdleRow(const Arguments& a, std::function<void()> connectNext, std::function<void(int)> use)
        : m_count(a.connections), m_bUse(a.variant.find("used") != std::string::npos),
          m_connectNext(std::move(connectNext)), m_use(std::move(use))
    {
    }
    void connected()
    {
        if (++m_connected == 1 && m_bUse)
            m_use(0);
        else
            goOn();
    }
    void used()
    {
        ++m_used;
        goOn();
    }

private:
    void goOn()
    {
        if (m_connected == 1)
            m_before = residentKiB();
        if (m_connected <= m_count)
            m_connectNext();
        else if (m_bUse && m_used <= m_count)
            m_use(m_used);
        else
            reportIdle(m_before, m_count);
    }
    int m_count;
    bool m_bUse;
    std::function<void()> m_connectNext;
    std::function<void(int)> m_use;
    int m_connected = 0;
    int m_used = 0;
    double m_before = 0;
};

inline const std::string idleMessage(kEchoSize, 'm');
} // namespace bench
