// The request engine's connection: its beginning, its loss, and the uploads that end it.
#include "http/HttpRequestEngine_p.h"

#include "core/Log_p.h"
#include "platform/ErrorCodes_p.h"

#include <algorithm>
#include <iterator>
#include <utility>

using namespace Nuvika;

namespace
{
constexpr int kMaxLosses = 3;
constexpr int kUploadEndMs = 5000;

bool isIdempotent(const QString& method)
{
    constexpr const char* kMethods[] = {"GET", "HEAD", "PUT", "DELETE", "OPTIONS", "TRACE"};
    return std::any_of(std::begin(kMethods), std::end(kMethods),
        [&](const char* name) { return method == QLatin1String(name); });
}
} // namespace

void HttpRequestEngine::connected()
{
    NUVIKA_ASSERT(m_state == eConnecting);
    m_deadlines.clear(HttpWaits::eConnect);
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
    m_input.reset();
    for (const auto kind : {HttpWaits::eConnect, HttpWaits::eFirstByte, HttpWaits::eSilence})
        m_deadlines.clear(kind);
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
    m_firstPieceUs = 0;
    m_bRetry401 = false;
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
    const bool bFailed = code != eAnnounced && code != eUnannounced;
    const HttpFailure failure = failureOfEnd(bFailed ? code : 0, std::exchange(m_endProblem, QString()));
    if (bFailed) {
        NUVIKA_DEBUG(lcHttp, "%s::slotSockError: code:%d", m_traceName, code);
        m_problem = failure.text;
        const Watched::Watch watch = m_connection.watch();
        m_listener.socketError(code);
        if (!watch.holds())
            return;
    }
    if (m_state == eUploadEnded) {
        endUpload(!bFailed && !m_bUploadSent);
        return;
    }
    connectionLost(code != eAnnounced, failure);
}

// `code`: of the socket; 0 for the peer's end, which has no problem in words.
HttpFailure HttpRequestEngine::failureOfEnd(int code, const QString& problem) const
{
    const bool bCertificate = code == ErrorCodes::kAccessDenied && m_transport.isTls();
    if (bCertificate)
        return {HttpFailure::eCertificate, code, problem};
    if (code == 0)
        return {HttpFailure::eLost, code,
            m_state == eWaitingHeader ? QStringLiteral("the server ended the connection without an answer")
                                      : QStringLiteral("the server ended the connection in its answer")};
    if (m_state != eConnecting)
        return {HttpFailure::eLost, code, problem};
    const bool bTls = m_transport.isTls()
        && (code == ErrorCodes::kConnectionAborted || code == ErrorCodes::kHandshakeTimeout);
    return {bTls                                ? HttpFailure::eTls
            : code >= ErrorCodes::kHostNotFound ? HttpFailure::eLookup
                                                : HttpFailure::eConnect,
        code, problem};
}

void HttpRequestEngine::connectionLost(bool bUnannounced, const HttpFailure& failure)
{
    const bool bComplete = isExchanging() && m_state != eWaitingHeader && m_reader.endOfStream();
    const bool bRetry = isExchanging() && m_bRetry401; // whatever became of its body
    if (!bComplete && !bRetry && (m_state == eConnecting || isExchanging())) {
        countLoss(failure);
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

bool HttpRequestEngine::isGivenUp(Request& request, const HttpFailure& failure) const
{
    if (m_retryPolicy.nStreamedMs > 0 && m_firstPieceUs > 0
        && m_lastPieceUs - m_firstPieceUs >= m_retryPolicy.nStreamedMs * 1000LL)
        request.m_requestFailedCounter = 0;
    if (++request.m_requestFailedCounter >= kMaxLosses || request.bUploadStarted)
        return true;
    if (m_retryPolicy.kind != HttpRetryPolicy::eIdempotent)
        return m_retryPolicy.kind == HttpRetryPolicy::eNever;
    const bool bStays = failure.reason == HttpFailure::eCertificate
        || (failure.reason == HttpFailure::eTls && failure.code != ErrorCodes::kHandshakeTimeout);
    const bool bNobodyCanTell = !request.bPending || isIdempotent(request.header.method());
    return bStays || !bNobodyCanTell || request.bHandedOut;
}

// The front request has lost its connection.
void HttpRequestEngine::countLoss(const HttpFailure& failure)
{
    m_problem = failure.text;
    const Watched::Watch watch = m_session.watch();
    if (m_requests.empty()) {
        connectionEnded();
    } else {
        Request& front = m_requests.front();
        const bool bGivenUp = isGivenUp(front, failure);
        front.bPending = false;
        const int id = front.nId;
        if (bGivenUp) {
            NUVIKA_DEBUG(lcHttp, "%s::slotSockDisconnected(): req->m_requestFailedCounter >= 3; id:%d",
                m_traceName, id);
            takeFront();
        }
        connectionEnded();
        if (bGivenUp)
            tellFailed(id, failure);
        if (!watch.holds())
            return;
    }
    NUVIKA_DEBUG(lcHttp, "%s::slotSockDisconnected(): triggerNextRequest()", m_traceName);
    triggerNextRequest();
}

// --- uploads ---------------------------------------------------------------------------------------------

bool HttpRequestEngine::sendUploadContentChunk(int id, const char* data, int size, bool bLast)
{
    if (m_requests.empty() || m_requests.front().nId != id || !isExchanging() || size < 0)
        return false;
    Request& front = m_requests.front();
    if (!front.bUpload || !front.bPending || front.bUploadComplete)
        return false;
    if (!front.bUploadChunked && size > front.nUploadLeft)
        return false; // it would be read as the next request
    front.bUploadStarted = true;
    front.bUploadComplete = bLast;
    limitExchange();
    if (!front.bUploadChunked) {
        front.nUploadLeft -= size;
        return m_transport.sendData(data, size);
    }
    QByteArray framed;
    if (size > 0)
        framed = QByteArray::number(size, 16) + "\r\n" + QByteArray(data, size) + "\r\n";
    if (bLast)
        framed += "0\r\n\r\n";
    return m_transport.sendData(framed.constData(), framed.size());
}

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
        takeFront();
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
