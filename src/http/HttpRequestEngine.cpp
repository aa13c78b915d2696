#include "http/HttpRequestEngine_p.h"

#include "core/Log_p.h"
#include "http/HttpCredentials_p.h"
#include "http/HttpLimits_p.h"

#include <algorithm>

using namespace Nuvika;

namespace
{
constexpr int kBodyWithHead = 1024; // shorter bodies leave in one write with the head
constexpr int kMaxLosses = 3;
constexpr qint64 kFreshMs = 2; // a connection that was just heard of is not looked at again
constexpr int kUploadEndMs = 5000;
} // namespace

HttpRequestEngine::HttpRequestEngine(const char* traceName, HttpTransport& transport,
    HttpRequestListener& listener, const QString& host, unsigned short port)
    : m_traceName(traceName), m_transport(transport), m_listener(listener), m_host(host), m_nPort(port)
{
    m_transport.setPlacer(*this);
    m_idle.start();
    m_uploadEndTimer.setSingleShot(true);
    QObject::connect(&m_uploadEndTimer, &QTimer::timeout, &m_uploadEndTimer, [this] { endUpload(); });
}

// No port on 80, the port everywhere else, 443 included.
QString HttpRequestEngine::hostField() const
{
    return m_nPort == 80 ? m_host : m_host + QLatin1Char(':') + QString::number(m_nPort);
}

// --- the queue -----------------------------------------------------------------------------------------

int HttpRequestEngine::request(const HttpRequestHeader& header, bool bStream, const SharedPoolBuffer* body,
    const QString& user, const QString& password, int nAuthMode)
{
    Request request;
    request.nId = ++m_nLastId;
    request.header = header;
    request.bStream = bStream;
    if (body != nullptr)
        request.body = *body;
    request.user = user;
    request.password = password;
    request.bOwnAuthorization = nAuthMode == eOwnAuthorization;
    if (request.bOwnAuthorization)
        m_authenticator.reset();
    else if (!user.isEmpty() && !password.isEmpty())
        setAuthorization(request.header, HttpCredentials::basic(user, password));
    request.bUploadChunked = header.value(QStringLiteral("transfer-encoding")) == QLatin1String("chunked")
        && request.body.isEmpty();
    request.bUpload = request.bUploadChunked
        || (header.hasContentLength()
            && header.contentLength() > static_cast<unsigned int>(request.body.getBufferSize()));
    const int id = request.nId;
    m_requests.push_back(std::move(request));
    triggerNextRequest();
    return id;
}

int HttpRequestEngine::request(
    const HttpRequestHeader& header, const QByteArray& content, const QString& user, const QString& password)
{
    SharedPoolBuffer body;
    if (!content.isEmpty()) {
        body = m_pPool->getBuffer();
        body.setData(content.constData(), content.size());
    }
    return request(header, false, &body, user, password, 0);
}

// A Connection value with a line end of its own ends the head: what stands behind it is lost.
void HttpRequestEngine::setAuthorization(HttpRequestHeader& header, const QByteArray& value)
{
    const QString connection = QStringLiteral("Connection");
    const QString ending = header.value(connection);
    const bool bEndsHead = ending.endsWith(QLatin1Char('\n'));
    if (bEndsHead)
        header.removeValue(connection);
    header.setValue(HttpCredentials::field(), QString::fromLatin1(value));
    if (bEndsHead)
        header.addValue(connection, ending);
}

void HttpRequestEngine::discardNonePendingRequest(int id)
{
    const auto found
        = std::find_if(m_requests.begin(), m_requests.end(), [id](const Request& r) { return r.nId == id; });
    if (found == m_requests.end() || found->bPending)
        return;
    NUVIKA_DEBUG(lcHttp, "%s::discardNonePendingRequest: remove request; id:%d", m_traceName, id);
    m_requests.erase(found);
}

void HttpRequestEngine::shutdown(bool bTell)
{
    m_watched.endSession();
    const Watched::Watch watch = m_watched.watch();
    m_uploadEndTimer.stop();
    while (!m_requests.empty()) {
        const int id = m_requests.front().nId;
        m_requests.pop_front();
        // The other client's text differs by two letters.
        NUVIKA_DEBUG(
            lcHttp, "%s::shutdown: %s pending request; id:%d", m_traceName, bTell ? "removed" : "remove", id);
        if (!bTell)
            continue;
        m_listener.cancelled(id);
        if (!watch.holds())
            return;
    }
    clearReceiveState();
    m_sideInput.clear();
    m_bParsing = false; // whoever parses sees the new session and leaves
    m_bEndWaits = false;
    m_state = eDisconnected;
    m_transport.close();
}

void HttpRequestEngine::triggerNextRequest()
{
    if (m_requests.empty())
        return;
    if (m_state == eConnected && m_idle.elapsed() > kFreshMs && m_transport.hasPendingInput()) {
        // The server has ended the idle connection, or talks unasked: the next request takes a new one.
        m_transport.close();
        m_state = eDisconnected;
    }
    if (m_state == eDisconnected) {
        NUVIKA_DEBUG(lcHttp, "%s::triggerNextRequest(): connect to host %s; request id:%d", m_traceName,
            qUtf8Printable(m_host), m_requests.front().nId);
        m_state = eConnecting;
        m_transport.connectToHost(m_host, m_nPort);
        return;
    }
    if (m_state != eConnected)
        return;
    clearReceiveState();
    updateAuthorization(m_requests.front());
    writeRequest(m_requests.front());
}

void HttpRequestEngine::updateAuthorization(Request& request)
{
    const HttpRequestHeader& header = request.header;
    if (!m_authenticator.isNull() && !request.bOwnAuthorization && !request.bAuthorizationReady) {
        const QByteArray body = QByteArray::fromRawData(
            static_cast<const char*>(request.body.getBuffer()), request.body.getBufferSize());
        const QByteArray value = m_authenticator.nextDigestMd5Response(header.method().toLatin1(),
            header.path().toLatin1(), request.user.toLatin1(), request.password.toLatin1(), body);
        setAuthorization(request.header, value);
        NUVIKA_DEBUG(lcHttp, "HttpClient::triggerNextRequest(): id=%d;updated \"Authorization\":%s",
            request.nId, value.constData());
    } else if (header.hasKey(HttpCredentials::field())) {
        NUVIKA_DEBUG(lcHttp, "HttpClient::triggerNextRequest(): id=%d;preset \"Authorization\":%s",
            request.nId, qUtf8Printable(header.value(HttpCredentials::field())));
    }
    request.bAuthorizationReady = false;
}

void HttpRequestEngine::writeRequest(Request& request)
{
    request.bPending = true;
    const bool bHeadCarriesBody = !request.body.isEmpty() && request.body.getBufferSize() < kBodyWithHead;
    const auto* body = static_cast<const char*>(request.body.getBuffer());
    QByteArray head = request.header.toString().toLatin1();
    NUVIKA_DEBUG(
        lcHttp, "%s::triggerNextRequest(): id=%d;header='%s'", m_traceName, request.nId, head.constData());
    if (bHeadCarriesBody)
        head.append(body, request.body.getBufferSize());
    m_state = eWaitingHeader;
    m_transport.sendData(head.constData(), head.size());
    if (!bHeadCarriesBody && !request.body.isEmpty())
        m_transport.sendData(body, request.body.getBufferSize());
}

// --- uploads -------------------------------------------------------------------------------------------

bool HttpRequestEngine::sendUploadContentChunk(int id, const char* data, int size, bool bLast)
{
    if (m_requests.empty() || m_requests.front().nId != id || !m_requests.front().bUpload
        || !m_requests.front().bPending || m_state < eConnected || m_state == eUploadEnded || size < 0)
        return false;
    m_requests.front().bUploadStarted = true;
    if (!m_requests.front().bUploadChunked)
        return m_transport.sendData(data, size);
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
    if (m_requests.empty() || !m_requests.front().bPending || m_state < eConnected || m_state == eUploadEnded)
        return;
    m_state = eUploadEnded;
    m_transport.sendEndOfData();
    m_uploadEndTimer.start(kUploadEndMs);
}

void HttpRequestEngine::endUpload()
{
    m_uploadEndTimer.stop();
    if (m_state != eUploadEnded)
        return;
    m_transport.close();
    m_state = eDisconnected;
    if (!m_requests.empty())
        m_requests.pop_front();
    clearReceiveState();
    const Watched::Watch watch = m_watched.watch();
    m_listener.uploadEnded();
    if (watch.holds())
        triggerNextRequest();
}

// --- the connection ------------------------------------------------------------------------------------

void HttpRequestEngine::connected()
{
    NUVIKA_ASSERT(m_state == eConnecting);
    m_lastLocalAddress = m_transport.localAddress();
    m_lastPeerAddress = m_transport.peerAddress();
    m_state = eConnected;
    m_idle.start();
    triggerNextRequest();
}

void HttpRequestEngine::socketError(int code, const QString& problem)
{
    if (m_state == eDisconnected)
        return;
    NUVIKA_DEBUG(lcHttp, "%s::slotSockError: code:%d", m_traceName, code);
    const Watched::Watch watch = m_watched.watch();
    m_listener.socketError(code, problem);
    if (!watch.holds())
        return;
    m_transport.close(); // out of the error state; its own end is not announced again
    disconnected();
}

void HttpRequestEngine::disconnected()
{
    if (m_bParsing) { // in a loop that a handler runs: the bytes before the end come first
        m_bEndWaits = true;
        return;
    }
    NUVIKA_ASSERT(m_state != eDisconnected);
    connectionLost();
}

void HttpRequestEngine::connectionLost()
{
    if (m_state == eUploadEnded) {
        endUpload();
        return;
    }
    const Watched::Watch watch = m_watched.watch();
    const bool bComplete = isExchanging() && m_state != eWaitingHeader && m_reader.endOfStream();
    if (bComplete || (isExchanging() && m_bRetry401)) { // a 401 is answered whatever became of its body
        if (m_nExpectedContentLength == -1 && m_state == eWaitingContent) {
            NUVIKA_DEBUG(lcHttp,
                "%s::slotSockDisconnected(): if (m_state == eWaitingContent && m_nExpectedContentLength == "
                "-1)",
                m_traceName);
            NUVIKA_ASSERT(!m_requests.empty());
        }
        if (m_bRetry401) {
            NUVIKA_DEBUG(lcHttp,
                "%s::slotSockDisconnected(): if (m_responseHeader.statusCode() == 401 && "
                "m_requests.front().m_authFailedCounter <= 1)",
                m_traceName);
            prepareRetry();
        } else {
            NUVIKA_DEBUG(lcHttp, "%s::slotSockDisconnected: remove request; id:%d", m_traceName,
                m_requests.front().nId);
            if (!deliverContent())
                return;
        }
    } else if (m_state == eConnecting || isExchanging()) {
        if (!countLoss())
            return;
    }
    m_state = eDisconnected;
    NUVIKA_DEBUG(lcHttp, "%s::slotSockDisconnected(): eDisconnected", m_traceName);
    clearReceiveState();
    NUVIKA_DEBUG(lcHttp, "%s::slotSockDisconnected(): triggerNextRequest()", m_traceName);
    triggerNextRequest();
}

// The front request has lost its connection. False when nothing of this engine may be touched any more.
bool HttpRequestEngine::countLoss()
{
    if (m_requests.empty())
        return true;
    Request& front = m_requests.front();
    front.bPending = false;
    ++front.m_requestFailedCounter;
    if (front.m_requestFailedCounter < kMaxLosses && !front.bUploadStarted)
        return true;
    const int id = front.nId;
    NUVIKA_DEBUG(
        lcHttp, "%s::slotSockDisconnected(): req->m_requestFailedCounter >= 3; id:%d", m_traceName, id);
    m_requests.pop_front();
    m_state = eDisconnected;
    const Watched::Watch watch = m_watched.watch();
    m_listener.failed(id);
    // The handler may have queued a request, which found no connection and has begun a new one.
    return watch.holds() && m_state == eDisconnected;
}

void HttpRequestEngine::clearReceiveState()
{
    m_reader.reset();
    m_content.clear();
    if (m_nContent > static_cast<std::size_t>(HttpLimits::kKeptContent))
        m_content.clearAndSqueeze(0); // one large body is no reason to keep its memory for ever
    m_nContent = 0;
    m_pWholeContent = nullptr;
    m_nExpectedContentLength = -1;
    m_bRetry401 = false;
    m_bCloseAfterResponse = false;
    m_challenge.clear();
}
