#include "http/HttpRequestEngine_p.h"

#include "core/Log_p.h"
#include "http/HttpChallenge_p.h"
#include "http/HttpLimits_p.h"
#include "platform/ErrorCodes_p.h"

#include <algorithm>
#include <cstring>

using namespace Nuvika;

namespace
{
const QString& authorizationField()
{
    static const QString name = QStringLiteral("Authorization");
    return name;
}

constexpr int kBodyWithHead = 1024; // shorter bodies leave in one write with the head
constexpr int kMaxLosses = 3;
constexpr int kMax401 = 1;
constexpr qint64 kFreshMs = 2; // a connection that was just heard of is not looked at again
constexpr int kUploadEndMs = 5000;

QByteArray basicCredentials(const QString& user, const QString& password)
{
    return "Basic " + (user + QLatin1Char(':') + password).toLatin1().toBase64();
}

// The values of a field in raw head bytes, as they came.
QList<QByteArray> rawFieldValues(const char* head, int size, const char* name)
{
    const QByteArray prefix = QByteArray(name) + ':';
    QList<QByteArray> values;
    for (const QByteArray& line : QByteArray::fromRawData(head, size).split('\n')) {
        if (line.size() >= prefix.size()
            && qstrnicmp(line.constData(), prefix.constData(), uint(prefix.size())) == 0)
            values.append(line.mid(prefix.size()).trimmed());
    }
    return values;
}

bool hasNoBody(int status) { return status == 204 || status == 304; }
} // namespace

HttpRequestEngine::HttpRequestEngine(const char* traceName, HttpTransport& transport,
    HttpRequestListener& listener, const QString& host, unsigned short port)
    : m_traceName(traceName), m_transport(transport), m_listener(listener), m_host(host), m_nPort(port)
{
    m_idle.start();
    m_uploadEndTimer.setSingleShot(true);
    QObject::connect(&m_uploadEndTimer, &QTimer::timeout, &m_uploadEndTimer, [this] { endUpload(); });
}

// No port on 80, the port everywhere else, 443 included.
QString HttpRequestEngine::hostField() const
{
    return m_nPort == 80 ? m_host : m_host + QLatin1Char(':') + QString::number(m_nPort);
}

SharedPoolBuffer HttpRequestEngine::bodyBuffer(const QByteArray& content)
{
    SharedPoolBuffer buffer = m_pPool->getBuffer();
    buffer.setData(content.constData(), content.size());
    return buffer;
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
        request.header.setValue(authorizationField(), QString::fromLatin1(basicCredentials(user, password)));
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
        request.header.setValue(authorizationField(), QString::fromLatin1(value));
        NUVIKA_DEBUG(lcHttp, "HttpClient::triggerNextRequest(): id=%d;updated \"Authorization\":%s",
            request.nId, value.constData());
    } else if (header.hasKey(authorizationField())) {
        NUVIKA_DEBUG(lcHttp, "HttpClient::triggerNextRequest(): id=%d;preset \"Authorization\":%s",
            request.nId, qUtf8Printable(header.value(authorizationField())));
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

void HttpRequestEngine::socketError(int code)
{
    if (m_state == eDisconnected)
        return;
    NUVIKA_DEBUG(lcHttp, "%s::slotSockError: code:%d", m_traceName, code);
    const Watched::Watch watch = m_watched.watch();
    m_listener.socketError(code);
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
    if (m_nContent > HttpLimits::kHead)
        m_content.clearAndSqueeze(0); // one large body is no reason to keep its memory for ever
    m_nContent = 0;
    m_pWholeContent = nullptr;
    m_nExpectedContentLength = -1;
    m_bRetry401 = false;
    m_bCloseAfterResponse = false;
    m_challenge.clear();
}

// --- receiving -----------------------------------------------------------------------------------------

void HttpRequestEngine::dataReceived(const char* data, int size)
{
    if (m_bParsing) { // a handler runs a loop of its own: order is kept, nothing nests
        m_sideInput.append(data, size);
        if (m_sideInput.size() > HttpLimits::kSideBuffer)
            m_transport.stallRecv();
        return;
    }
    m_idle.start();
    if (!isExchanging())
        return;
    m_reader.feed(data, size);
    if (processInput())
        parseSideInput();
}

bool HttpRequestEngine::parseSideInput()
{
    while (!m_sideInput.isEmpty()) {
        const QByteArray input = m_sideInput;
        m_sideInput.clear();
        m_transport.resumeRecv();
        if (!isExchanging())
            continue;
        m_reader.feed(input.constData(), input.size());
        if (!processInput())
            return false;
    }
    if (m_bEndWaits) {
        m_bEndWaits = false;
        if (m_state != eDisconnected)
            connectionLost();
    }
    return true;
}

// False when nothing of this engine may be touched any more.
bool HttpRequestEngine::processInput()
{
    const Watched::Watch watch = m_watched.watch();
    m_bParsing = true;
    while (isExchanging()) {
        const HttpMessageReader::Event event = m_reader.next();
        if (event == HttpMessageReader::Event::NeedMore)
            break;
        if (!handle(event)) {
            if (watch.holds())
                break;
            return false;
        }
    }
    m_bParsing = false;
    return true;
}

// False when the input was given up, or the engine is gone.
bool HttpRequestEngine::handle(HttpMessageReader::Event event)
{
    switch (event) {
    case HttpMessageReader::Event::Head:
        return handleHead();
    case HttpMessageReader::Event::Content:
        return handleContent();
    case HttpMessageReader::Event::Part:
        return handlePart();
    case HttpMessageReader::Event::PartSkipped:
        NUVIKA_WARNING(lcHttp, "%s::slotSockDataReceived: unexpected multipart header; skipping",
            m_state == eWaitingChunk ? "HttpResponseClient" : m_traceName);
        return true;
    case HttpMessageReader::Event::End:
        return handleEnd();
    case HttpMessageReader::Event::Failed:
        return failFront(true, ErrorCodes::kConnectionAborted);
    case HttpMessageReader::Event::NeedMore:
        break;
    }
    return true;
}

bool HttpRequestEngine::handleHead()
{
    Request& front = m_requests.front();
    m_responseHeader = HttpResponseHeader::fromBytes(m_reader.data(), m_reader.size());
    if (!m_responseHeader.isValid()) {
        NUVIKA_DEBUG(
            lcHttp, "%s::slotSockDataReceived: received invalid header; id:%d", m_traceName, front.nId);
        return failFront(m_bCloseAfterResponse, ErrorCodes::kConnectionAborted);
    }
    const int status = m_responseHeader.statusCode();
    if (status >= 100 && status < 200) { // the real head follows
        m_reader.setBody(HttpBody());
        return true;
    }
    HttpBody body = bodyOf(front);
    if (status == 401) {
        ++front.m_authFailedCounter;
        m_bRetry401 = willRetry401();
        m_challenge = chooseChallenge(rawFieldValues(m_reader.data(), m_reader.size(), "WWW-Authenticate"));
        if (m_bRetry401)
            body.bMultipart = false;
    }
    m_reader.setBody(body);
    if (body.bInvalid)
        return failFront(true, ErrorCodes::kConnectionAborted);
    m_state = body.kind == HttpBody::Chunked ? eWaitingChunk
        : body.bMultipart                    ? eWaitingMultipart
                                             : eWaitingContent;
    if (status == 401)
        return true;
    const Watched::Watch watch = m_watched.watch();
    m_listener.responseHeader(front.nId, m_responseHeader);
    return watch.holds();
}

HttpBody HttpRequestEngine::bodyOf(const Request& request)
{
    const int status = m_responseHeader.statusCode();
    m_bCloseAfterResponse = wantsClose(m_responseHeader);
    if (hasNoBody(status) || request.header.method() == QLatin1String("HEAD")) {
        m_nExpectedContentLength = 0;
        return HttpBody();
    }
    HttpBody body = HttpBody::fromFields(m_responseHeader, HttpBody::UntilEnd);
    m_nExpectedContentLength = body.kind == HttpBody::Length ? body.nLength : -1;
    m_bCloseAfterResponse = m_bCloseAfterResponse || body.bAmbiguous;
    if (!request.bStream)
        body.detectMultipart(m_responseHeader);
    return body;
}

bool HttpRequestEngine::collect(const char* data, int size)
{
    if (m_nContent + static_cast<std::size_t>(size) > HttpLimits::kContent)
        return failFront(true, ErrorCodes::kConnectionAborted);
    if (m_nContent == 0 && size == m_nExpectedContentLength) {
        m_pWholeContent = data; // all of it, in place
        m_nContent = static_cast<std::size_t>(size);
        return true;
    }
    // Grown geometrically, up to a known length but not beyond what has come by much.
    const std::size_t needed = m_nContent + static_cast<std::size_t>(size);
    if (needed > m_content.getSize()) {
        std::size_t capacity = std::max<std::size_t>(needed * 2, 65536);
        if (m_nExpectedContentLength >= 0)
            capacity
                = std::min(capacity, std::max(needed, static_cast<std::size_t>(m_nExpectedContentLength)));
        m_content.getBuffer(static_cast<unsigned int>(std::min(capacity, HttpLimits::kContent)));
    }
    auto* buffer = static_cast<char*>(m_content.getBuffer(m_content.getSize()));
    std::memcpy(buffer + m_nContent, data, static_cast<std::size_t>(size));
    m_nContent = needed;
    return true;
}

bool HttpRequestEngine::handleContent()
{
    const char* data = m_reader.data();
    const int size = m_reader.size();
    if (m_bRetry401)
        return true;
    const Request& front = m_requests.front();
    if (!front.bStream)
        return collect(data, size);
    m_nContent += static_cast<std::size_t>(size);
    if (m_nExpectedContentLength >= 0 && m_nContent == static_cast<std::size_t>(m_nExpectedContentLength)) {
        m_pWholeContent = data; // the last piece, which ends the request
        m_nContent = static_cast<std::size_t>(size);
        return true;
    }
    const Watched::Watch watch = m_watched.watch();
    m_listener.chunk(front.nId, m_responseHeader, data, size);
    return watch.holds();
}

bool HttpRequestEngine::handlePart()
{
    const Watched::Watch watch = m_watched.watch();
    m_listener.part(
        m_requests.front().nId, m_responseHeader, m_reader.contentType(), m_reader.data(), m_reader.size());
    return watch.holds();
}

bool HttpRequestEngine::handleEnd()
{
    if (m_responseHeader.statusCode() >= 100 && m_responseHeader.statusCode() < 200)
        return true;
    if (m_bRetry401)
        prepareRetry();
    else if (!deliverContent())
        return false;
    endExchange();
    return true;
}

// Hands the collected content out; false when the engine is gone or began anew.
bool HttpRequestEngine::deliverContent()
{
    const Request& front = m_requests.front();
    const bool bHandedOut = front.bStream || m_state == eWaitingMultipart;
    if (front.bStream && m_nExpectedContentLength >= 0 && m_state == eWaitingContent
        && front.header.method() != QLatin1String("HEAD") && !hasNoBody(m_responseHeader.statusCode())) {
        NUVIKA_DEBUG(
            lcHttp, "%s::slotSockDataReceived#3: chunk request finished; id:%d", m_traceName, front.nId);
        const int id = front.nId;
        m_requests.pop_front();
        const Watched::Watch watch = m_watched.watch();
        m_listener.chunk(id, m_responseHeader, m_pWholeContent, static_cast<int>(m_nContent));
        return watch.holds();
    }
    if (bHandedOut)
        return finishFront(nullptr, 0);
    return finishFront(
        m_pWholeContent != nullptr ? m_pWholeContent : m_content.constData(), static_cast<int>(m_nContent));
}

bool HttpRequestEngine::finishFront(const char* content, int size)
{
    const int id = m_requests.front().nId;
    m_requests.pop_front();
    const Watched::Watch watch = m_watched.watch();
    m_listener.finished(id, m_responseHeader, content, size);
    return watch.holds();
}

bool HttpRequestEngine::failFront(bool bClose, int nCode)
{
    const int id = m_requests.front().nId;
    m_requests.pop_front();
    m_reader.takeRest();
    if (bClose)
        m_transport.close();
    m_state = bClose ? eDisconnected : eConnected;
    m_bParsing = false;
    const Watched::Watch watch = m_watched.watch();
    m_listener.socketError(nCode);
    if (!watch.holds())
        return false;
    m_listener.failed(id);
    if (!watch.holds())
        return false;
    clearReceiveState();
    triggerNextRequest();
    return false;
}

// A response is complete: the connection is kept or closed, and the next request goes out.
void HttpRequestEngine::endExchange()
{
    const bool bClean = m_reader.hasOnlyLineEndsLeft();
    m_reader.takeRest();
    if (m_bCloseAfterResponse || !bClean) { // an answer that nobody asked for must not meet the next request
        m_transport.close();
        m_state = eDisconnected;
    } else {
        m_state = eConnected;
    }
    triggerNextRequest();
}

// --- 401 -----------------------------------------------------------------------------------------------

bool HttpRequestEngine::willRetry401() const
{
    return m_requests.front().m_authFailedCounter <= kMax401 && !m_requests.front().bUploadStarted;
}

void HttpRequestEngine::prepareRetry()
{
    Request& front = m_requests.front();
    front.bPending = false;
    const QByteArray body = QByteArray::fromRawData(
        static_cast<const char*>(front.body.getBuffer()), front.body.getBufferSize());
    m_authenticator.reset();
    QByteArray value = m_authenticator.digestMd5Response(m_challenge, front.header.method().toLatin1(),
        front.header.path().toLatin1(), front.user.toLatin1(), front.password.toLatin1(), body);
    if (value.isEmpty() && !front.user.isEmpty() && !front.password.isEmpty())
        value = basicCredentials(front.user, front.password);
    if (!value.isEmpty())
        front.header.setValue(authorizationField(), QString::fromLatin1(value));
    front.bAuthorizationReady = true;
}
