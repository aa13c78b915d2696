// The receiving half of the request engine: what the server answers, and the one answer to a 401.
#include "http/HttpRequestEngine_p.h"

#include "core/Log_p.h"
#include "http/HttpChallenge_p.h"
#include "http/HttpCredentials_p.h"
#include "http/HttpLimits_p.h"
#include "platform/ErrorCodes_p.h"

#include <algorithm>
#include <cstring>

using namespace Nuvika;

namespace
{
constexpr int kMax401 = 1;

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

iovec HttpRequestEngine::target()
{
    return m_bParsing || !m_sideInput.isEmpty() || !isExchanging() ? iovec{} : m_reader.partTarget();
}

void HttpRequestEngine::placed(int bytes) { m_reader.partPlaced(static_cast<std::size_t>(bytes)); }

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
        return failFront(true);
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
        return failFront(m_bCloseAfterResponse);
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
        return failFront(true);
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
    if (m_nContent + static_cast<std::size_t>(size) > static_cast<std::size_t>(m_limits.nContent))
        return failFront(true);
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
        m_content.getBuffer(
            static_cast<unsigned int>(std::min(capacity, static_cast<std::size_t>(m_limits.nContent))));
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

bool HttpRequestEngine::failFront(bool bClose)
{
    const int id = m_requests.front().nId;
    m_requests.pop_front();
    m_reader.takeRest();
    if (bClose)
        m_transport.close();
    m_state = bClose ? eDisconnected : eConnected;
    m_bParsing = false;
    const Watched::Watch watch = m_watched.watch();
    m_listener.socketError(
        ErrorCodes::kConnectionAborted, QStringLiteral("the answer is no HTTP, or too large"));
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
        value = HttpCredentials::basic(front.user, front.password);
    if (!value.isEmpty())
        setAuthorization(front.header, value);
    front.bAuthorizationReady = true;
}
