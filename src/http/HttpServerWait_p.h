// Private: for what a server's connection waits, and since when. It is asked now and then and not told of
// every byte: a wait is the same one while nothing of it has changed between two looks.
#pragma once

#include <KepNuvikaUtil/HttpServerTimeLimits.h>

#include <QtCore/QtGlobal>

#include <algorithm>

namespace Nuvika
{
struct HttpServerWait {
    enum Kind { eOwner, eRequest, eHead, eBody, eAnswer };
    Kind kind = eOwner;
    quint64 nRequest = 0; // which one
    quint64 nProgress = 0; // bytes, of what comes or leaves in pieces
};

class HttpServerWatch
{
public:
    void setLimits(const HttpServerTimeLimits& limits)
    {
        m_limits = limits;
        m_wait = {};
    }
    // Between two looks, in milliseconds; 0 where nothing is limited.
    int interval() const
    {
        int shortest = 0;
        for (const int limit : {m_limits.nIdle, m_limits.nHead, m_limits.nBody, m_limits.nAnswer}) {
            if (limit > 0)
                shortest = shortest == 0 ? limit : std::min(shortest, limit);
        }
        return shortest == 0 ? 0 : std::max(shortest / 4, 1);
    }
    int limit(HttpServerWait::Kind kind) const
    {
        const int limits[] = {0, m_limits.nIdle, m_limits.nHead, m_limits.nBody, m_limits.nAnswer};
        return limits[kind];
    }
    // True when that wait has lasted too long.
    bool look(const HttpServerWait& wait, quint32 nowMs)
    {
        if (wait.kind != m_wait.kind || wait.nRequest != m_wait.nRequest
            || wait.nProgress - m_wait.nProgress >= kLeastProgress) {
            m_wait = wait;
            m_nSinceMs = nowMs;
        }
        const int most = limit(wait.kind);
        return most > 0 && nowMs - m_nSinceMs >= static_cast<quint32>(most);
    }

private:
    static constexpr quint64 kLeastProgress = 1024;

    HttpServerTimeLimits m_limits;
    HttpServerWait m_wait;
    quint32 m_nSinceMs = 0;
};
} // namespace Nuvika
