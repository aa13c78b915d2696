// The request engine's connection: its beginning, its loss, and the uploads that end it.
#include "http/HttpRequestEngine_p.h"

#include "core/Log_p.h"
#include "platform/ErrorCodes_p.h"

#include <algorithm>
#include <utility>

using namespace Nuvika;

namespace
{
constexpr int kMaxLosses = 3;
constexpr int kUploadEndMs = 5000;
} // namespace

void HttpRequestEngine::connected()
{
    NUVIKA_ASSERT(m_state == eConnecting);
    m_lastLocalAddress = m_transport.localAddress();
    m_lastPeerAddress = m_transport.peerAddress();
    m_state = eConnected;
    m_bUsed = false;
    triggerNextRequest();
}

// Whoever reads from the connection sees it, and leaves.
void HttpRequestEngine::closeConnection()
{
    m_connection.endSession();
    m_continueTimer.stop();
    m_uploadTimer.stop();
    m_input.reset();
    m_endProblem.clear();
    m_state = eDisconnected;
    m_transport.close();
}

void HttpRequestEngine::stallSource(bool bStall)
{
    if (bStall)
        m_transport.stallRecv();
    else
        m_transport.resumeRecv();
}

void HttpRequestEngine::clearReceiveState()
{
    m_reader.reset();
    m_content.clear();
    m_nStreamed = 0;
    m_nExpectedContentLength = -1;
    m_bRetry = false;
    m_bCloseAfterResponse = false;
    m_challenge.clear();
}

// --- its end ---------------------------------------------------------------------------------------------

void HttpRequestEngine::disconnected(End end)
{
    NUVIKA_ASSERT(m_state != eDisconnected);
    m_input.ended(end);
}

void HttpRequestEngine::socketError(int code, const QString& problem)
{
    if (m_state == eDisconnected)
        return;
    m_endProblem = problem;
    m_input.ended(code);
}

void HttpRequestEngine::readEnd(int code)
{
    QString reason = std::exchange(m_endProblem, QString());
    const bool bFailed = code != eAnnounced && code != eUnannounced;
    if (bFailed) {
        NUVIKA_DEBUG(lcHttp, "%s::slotSockError: code:%d", m_traceName, code);
        m_problem = reason;
        const Watched::Watch watch = m_connection.watch();
        m_listener.socketError(code);
        if (!watch.holds())
            return;
    } else {
        reason = lossReason();
    }
    if (m_state == eUploadEnded) {
        endUpload(!bFailed && !m_bUploadSent);
        return;
    }
    connectionLost(code != eAnnounced, reason);
}

QString HttpRequestEngine::lossReason() const
{
    return m_state == eWaitingHeader ? QStringLiteral("the server ended the connection without an answer")
                                     : QStringLiteral("the server ended the connection in its answer");
}

void HttpRequestEngine::connectionLost(bool bUnannounced, const QString& reason)
{
    const bool bComplete = isExchanging() && m_state != eWaitingHeader && m_reader.endOfStream();
    const bool bRetry = isExchanging() && m_bRetry; // whatever became of its body
    if (!bComplete && !bRetry && (m_state == eConnecting || isExchanging())) {
        countLoss(reason);
        return;
    }
    const bool bUntilEnd = m_nExpectedContentLength == -1 && m_state == eWaitingContent;
    if (bUntilEnd) {
        NUVIKA_DEBUG(lcHttp,
            "%s::slotSockDisconnected(): if (m_state == eWaitingContent && m_nExpectedContentLength == -1)",
            m_traceName);
        NUVIKA_ASSERT(!m_requests.empty());
        NUVIKA_ASSERT(m_nResponseContentOffset >= 4);
    }
    if (bRetry) {
        if (m_pResponseHeader->statusCode() == 401)
            NUVIKA_DEBUG(lcHttp,
                "%s::slotSockDisconnected(): if (m_responseHeader.statusCode() == 401 && "
                "m_requests.front().m_authFailedCounter <= 1)",
                m_traceName);
        prepareRetry();
    } else if (bComplete) {
        NUVIKA_DEBUG(
            lcHttp, "%s::slotSockDisconnected: remove request; id:%d", m_traceName, m_requests.front().nId);
        m_bMayBeCut = bUnannounced && bUntilEnd;
        if (!finishFront())
            return;
    }
    connectionEnded();
    NUVIKA_DEBUG(lcHttp, "%s::slotSockDisconnected(): triggerNextRequest()", m_traceName);
    triggerNextRequest();
}

void HttpRequestEngine::connectionEnded()
{
    closeConnection();
    NUVIKA_DEBUG(lcHttp, "%s::slotSockDisconnected(): eDisconnected", m_traceName);
    clearReceiveState();
}

// The front request has lost its connection.
void HttpRequestEngine::countLoss(const QString& reason)
{
    m_problem = reason;
    const Watched::Watch watch = m_session.watch();
    if (m_requests.empty()) {
        connectionEnded();
    } else {
        Request& front = m_requests.front();
        front.bPending = false;
        const bool bGivenUp = ++front.m_requestFailedCounter >= kMaxLosses || !front.canRepeat();
        const int id = front.nId;
        if (bGivenUp) {
            NUVIKA_DEBUG(lcHttp, "%s::slotSockDisconnected(): req->m_requestFailedCounter >= 3; id:%d",
                m_traceName, id);
            m_requests.pop_front();
        }
        connectionEnded();
        if (bGivenUp)
            m_listener.failed(id);
        if (!watch.holds())
            return;
    }
    NUVIKA_DEBUG(lcHttp, "%s::slotSockDisconnected(): triggerNextRequest()", m_traceName);
    triggerNextRequest();
}

// --- uploads ---------------------------------------------------------------------------------------------

// The other ending of an upload: the server's answer is not awaited.
void HttpRequestEngine::sendEndOfUploadContent()
{
    if (m_requests.empty() || !m_requests.front().bPending || !isExchanging())
        return;
    m_state = eUploadEnded;
    m_bUploadSent = !m_transport.notifyWhenAllSent();
    m_transport.sendEndOfData();
    if (m_bUploadSent)
        m_uploadEndTimer.start(kUploadEndMs);
}

void HttpRequestEngine::allSent()
{
    if (m_state != eUploadEnded || m_bUploadSent)
        return;
    m_bUploadSent = true;
    m_uploadEndTimer.start(kUploadEndMs);
}

void HttpRequestEngine::endUpload(bool bCut)
{
    m_uploadEndTimer.stop();
    if (m_state != eUploadEnded)
        return;
    if (!m_requests.empty())
        m_requests.pop_front();
    closeConnection();
    clearReceiveState();
    const Watched::Watch watch = m_session.watch();
    if (bCut) {
        m_problem = QStringLiteral("the server ended the connection before the upload had left");
        m_listener.socketError(ErrorCodes::kConnectionAborted);
        if (!watch.holds())
            return;
    }
    m_listener.uploadEnded();
    if (watch.holds())
        triggerNextRequest();
}
