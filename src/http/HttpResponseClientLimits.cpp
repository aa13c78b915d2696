// How long a server-side HTTP connection waits for its peer.
#include "http/HttpResponseClient_p.h"
#include "platform/Clock_p.h"
#include "platform/ErrorCodes_p.h"

#include <utility>

using namespace Nuvika;

namespace
{
constexpr int kTickMs = 250;

QString within(const char* what, int ms)
{
    return QStringLiteral("%1 within %2 ms").arg(QLatin1String(what)).arg(ms);
}
} // namespace

// --- a connection whose end has begun ----------------------------------------------------------------------

void HttpResponseClient::Private::startLimit(unsigned int ms)
{
    m_nLimitMs = ms;
    m_nSinceMs = Clock::monotonicMs();
    m_nProgress = m_writer.progress();
    m_timer.start(kTickMs);
}

void HttpResponseClient::Private::tick()
{
    const unsigned int now = Clock::monotonicMs();
    const quint64 progress = m_writer.progress();
    if (isOpen() && std::exchange(m_nProgress, progress) != progress)
        m_nSinceMs = now;
    if (m_nLimitMs > 0 && now - m_nSinceMs >= m_nLimitMs) {
        timeUp();
        return;
    }
    const HttpServerWait wait = waitsFor();
    if (isOpen() && m_watch.look(wait, now))
        waitIsOver(wait.kind);
}

void HttpResponseClient::Private::timeUp()
{
    if (!m_exchanges.isEmpty() && !m_exchanges.front().bAnswered && m_exchanges.back().bAnswered) {
        m_exchanges.keepLast(); // the owner is silent: a bad request has waited for its answers
        startLimit(m_nLimitMs);
        advance();
        return;
    }
    if (isOpen())
        note(HttpFailure::eTimeLimit, ErrorCodes::kTimedOut,
            within("the connection made no progress", static_cast<int>(m_nLimitMs)));
    m_bNoMoreRequests = true;
    lost(0);
}

// --- one that is in use ------------------------------------------------------------------------------------

void HttpResponseClient::Private::setTimeLimits(const HttpServerTimeLimits& limits)
{
    m_watch.setLimits(limits);
    if (m_nLimitMs > 0 || !isOpen())
        return;
    if (m_watch.interval() > 0)
        m_timer.start(m_watch.interval());
    else
        m_timer.stop();
}

// Where nothing is read because the owner has not answered, or is in a handler, it is the owner who is waited
// for.
HttpServerWait HttpResponseClient::Private::waitsFor() const
{
    if (m_writer.isBehind() || m_nFinishing > 0)
        return {HttpServerWait::eAnswer, 0, m_pTransport->bytesSent()};
    if (m_input.isReading() || m_bInputEnded || isBehindLastRequest() || !mayDeliver())
        return {};
    if (m_state != eConnected)
        return {HttpServerWait::eBody, m_nRequests, m_nReceived};
    if (m_reader.isInHead())
        return {HttpServerWait::eHead, m_nRequests, 0};
    return {m_exchanges.isEmpty() ? HttpServerWait::eRequest : HttpServerWait::eOwner, m_nRequests, 0};
}

void HttpResponseClient::Private::waitIsOver(HttpServerWait::Kind kind)
{
    const int ms = m_watch.limit(kind);
    switch (kind) {
    case HttpServerWait::eRequest:
        note(HttpFailure::eTimeLimit, ErrorCodes::kTimedOut, within("no request came", ms));
        m_bNoMoreRequests = true;
        endIfDue();
        break;
    case HttpServerWait::eHead:
        m_exchanges.push();
        rejectRequest(HttpFailure::eTimeLimit, within("a request's head did not come", ms));
        break;
    case HttpServerWait::eBody:
        rejectRequest(HttpFailure::eTimeLimit, within("a request's body did not go on", ms));
        break;
    case HttpServerWait::eAnswer:
        note(HttpFailure::eTimeLimit, ErrorCodes::kTimedOut, within("the peer did not read on", ms));
        lost(ErrorCodes::kTimedOut);
        break;
    case HttpServerWait::eOwner:
        break;
    }
}
