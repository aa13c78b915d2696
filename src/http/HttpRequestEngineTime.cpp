// The request engine's time limits.
#include "http/HttpRequestEngine_p.h"

#include "platform/ErrorCodes_p.h"

#include <algorithm>

using namespace Nuvika;

namespace
{
QString textOf(HttpWaits::Kind kind, const HttpTimeLimits& limits)
{
    const auto within = [](const char* what, int ms) {
        return QLatin1String(what) + QString::number(ms / 1000.0) + QLatin1String(" s");
    };
    switch (kind) {
    case HttpWaits::eConnect:
        return within("no connection within ", limits.nConnect);
    case HttpWaits::eFirstByte:
        return within("no answer within ", limits.nFirstByte);
    case HttpWaits::eSilence:
        return within("the server was silent for ", limits.nSilence);
    case HttpWaits::eRequest:
    case HttpWaits::eCount:
        break;
    }
    return within("the request took more than ", limits.nRequest);
}
} // namespace

// The request has been handed over; what of it has not left counts as progress once it does.
void HttpRequestEngine::limitExchange()
{
    m_nLastToSend = 0;
    noteProgress();
    m_deadlines.setLimit(HttpWaits::eFirstByte, m_timeLimits.nFirstByte);
    m_deadlines.setLimit(HttpWaits::eSilence, m_timeLimits.nSilence);
}

void HttpRequestEngine::deadlinePassed()
{
    const Watched::Watch watch = m_session.watch();
    for (auto kind = m_deadlines.takeDue(); kind != HttpWaits::eCount; kind = m_deadlines.takeDue()) {
        if (!hasPassed(kind))
            continue;
        m_uploadEndTimer.stop();
        failFront({HttpFailure::eTimeLimit, ErrorCodes::kTimedOut, textOf(kind, m_timeLimits)}, true);
        if (!watch.holds())
            return;
    }
}

// Bytes move no moment; that they did is seen here. Then, and while the next step is the caller's (the rest
// of an upload, a handler that runs a loop), the limit begins anew.
bool HttpRequestEngine::hasPassed(HttpWaits::Kind kind)
{
    if (m_requests.empty())
        return false;
    if (kind != HttpWaits::eFirstByte && kind != HttpWaits::eSilence)
        return true;
    const qint64 toSend = m_transport.bytesToSend();
    const bool bCallersTurn = m_input.isReading() || (toSend == 0 && m_requests.front().owesBody());
    const bool bMoves = toSend != std::exchange(m_nLastToSend, toSend) || bCallersTurn;
    if (kind == HttpWaits::eFirstByte) {
        if (!bMoves && toSend == 0)
            return true;
        m_deadlines.setLimit(kind, m_timeLimits.nFirstByte);
        return false;
    }
    if (bMoves)
        m_lastProgressUs = monotonicUs();
    const qint64 dueUs = m_lastProgressUs + m_timeLimits.nSilence * 1000LL;
    if (dueUs <= monotonicUs())
        return true;
    m_deadlines.setAt(kind, dueUs);
    return false;
}
