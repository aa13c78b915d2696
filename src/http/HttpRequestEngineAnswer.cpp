// The receiving half of the request engine: what the server answers.
#include "http/HttpRequestEngine_p.h"

#include "core/Log_p.h"
#include "platform/ErrorCodes_p.h"

#include <algorithm>
#include <utility>

using namespace Nuvika;

namespace
{
bool areLineEnds(const char* data, int size)
{
    return std::all_of(data, data + size, [](char c) { return c == '\r' || c == '\n'; });
}

bool hasNoBody(int status) { return status == 204 || status == 304; }

HttpFailure unreadable(const char* text)
{
    return {HttpFailure::eBadMessage, ErrorCodes::kConnectionAborted, QString::fromLatin1(text)};
}
} // namespace

// --- receiving -----------------------------------------------------------------------------------------

int HttpRequestEngine::readInput(const char* data, int size)
{
    if (m_state == eConnected && !areLineEnds(data, size)) { // it must not meet the next request
        closeConnection();
        return kOver;
    }
    if (!isExchanging())
        return size;
    const Watched::Watch watch = m_connection.watch();
    m_reader.feed(data, size);
    while (isExchanging()) {
        const HttpMessageReader::Event event = m_reader.next();
        if (event == HttpMessageReader::Event::NeedMore)
            break;
        handle(event);
        if (!watch.holds())
            return kOver;
    }
    return size;
}

iovec HttpRequestEngine::target()
{
    if (m_input.isReading() || !m_input.isEmpty() || !isExchanging())
        return {};
    return isCollecting() ? m_content.target(m_reader) : m_reader.partTarget();
}

void HttpRequestEngine::placed(int bytes)
{
    const auto size = static_cast<std::size_t>(bytes);
    noteProgress();
    if (!isCollecting()) {
        m_reader.partPlaced(size);
        return;
    }
    m_content.placed(size);
    m_reader.contentPlaced(size);
}

// The body's bytes go into its memory, and nowhere else.
bool HttpRequestEngine::isCollecting() const
{
    return (m_state == eWaitingContent || m_state == eWaitingChunk) && !m_reader.isMultipart() && !m_bRetry401
        && !m_requests.front().bStream;
}

// Behind each of these the connection may be over, or the engine gone.
void HttpRequestEngine::handle(HttpMessageReader::Event event)
{
    switch (event) {
    case HttpMessageReader::Event::Head:
        handleHead();
        break;
    case HttpMessageReader::Event::Content:
        handleContent();
        break;
    case HttpMessageReader::Event::Part:
        handlePart();
        break;
    case HttpMessageReader::Event::PartSkipped:
        NUVIKA_WARNING(lcHttp, "%s::slotSockDataReceived: unexpected multipart header; skipping",
            m_state == eWaitingChunk ? "HttpResponseClient" : m_traceName);
        break;
    case HttpMessageReader::Event::End:
        handleEnd();
        break;
    case HttpMessageReader::Event::Failed:
        failFront(unreadable("the answer is no HTTP, or exceeds a limit"), true);
        break;
    case HttpMessageReader::Event::NeedMore:
        break;
    }
}

void HttpRequestEngine::handleHead()
{
    Request& front = m_requests.front();
    m_nResponseContentOffset = m_reader.size();
    m_pResponseHeader = std::make_shared<const HttpResponseHeader>(
        HttpResponseHeader::fromBytes(m_reader.data(), m_reader.size()));
    if (!m_pResponseHeader->isValid()) {
        NUVIKA_DEBUG(
            lcHttp, "%s::slotSockDataReceived: received invalid header; id:%d", m_traceName, front.nId);
        failFront(unreadable("the answer is no HTTP"), m_bCloseAfterResponse);
        return;
    }
    const int status = m_pResponseHeader->statusCode();
    if (status >= 100 && status < 200) { // the real head follows
        m_reader.setBody(HttpBody());
        return;
    }
    m_bMayBeCut = false;
    HttpBody body = bodyOf(front);
    handleLogin(&body);
    m_reader.setBody(body);
    if (body.bInvalid || (body.bMultipart && !MultipartReader::isUsableBoundary(body.boundary))) {
        failFront(unreadable(body.bInvalid
                          ? "the answer's length cannot be read"
                          : "the multipart answer has no boundary, or one of more than 70 characters"),
            true);
        return;
    }
    m_content.begin(m_nExpectedContentLength, m_limits.nContent);
    m_state = body.kind == HttpBody::Chunked ? eWaitingChunk
        : body.bMultipart                    ? eWaitingMultipart
                                             : eWaitingContent;
    if (status != 401) {
        const auto header = m_pResponseHeader;
        m_listener.responseHeader(front.nId, *header);
    }
}

HttpBody HttpRequestEngine::bodyOf(const Request& request)
{
    const HttpResponseHeader& header = *m_pResponseHeader;
    m_bCloseAfterResponse = wantsClose(header) || wantsClose(request.header);
    if (hasNoBody(header.statusCode()) || request.header.method() == QLatin1String("HEAD")) {
        m_nExpectedContentLength = 0;
        return HttpBody();
    }
    HttpBody body = HttpBody::fromFields(header, HttpBody::UntilEnd);
    m_nExpectedContentLength = body.kind == HttpBody::Length ? body.nLength : -1;
    m_bCloseAfterResponse = m_bCloseAfterResponse || body.bAmbiguous;
    if (!request.bStream)
        body.detectMultipart(header);
    return body;
}

void HttpRequestEngine::handleContent()
{
    const char* data = m_reader.data();
    const int size = m_reader.size();
    if (m_bRetry401)
        return;
    Request& front = m_requests.front();
    if (!front.bStream) {
        if (!m_content.add(data, size))
            failFront({HttpFailure::eTooLarge, ErrorCodes::kConnectionAborted,
                          QStringLiteral("the answer is too large")},
                true);
        return;
    }
    m_nStreamed += size;
    if (m_nStreamed == m_nExpectedContentLength) {
        m_content.refer(data, size); // the last piece, which ends the request
        return;
    }
    noteHandedOut(front);
    const auto header = m_pResponseHeader;
    m_listener.chunk(front.nId, *header, data, size);
}

void HttpRequestEngine::noteHandedOut(Request& request)
{
    request.bHandedOut = true;
    if (m_retryPolicy.nStreamedMs <= 0)
        return;
    m_lastPieceUs = monotonicUs();
    if (m_firstPieceUs == 0)
        m_firstPieceUs = m_lastPieceUs;
}

void HttpRequestEngine::handlePart()
{
    noteHandedOut(m_requests.front());
    const auto header = m_pResponseHeader;
    m_listener.part(
        m_requests.front().nId, *header, m_reader.contentType(), m_reader.data(), m_reader.size());
}

void HttpRequestEngine::handleEnd()
{
    const int status = m_pResponseHeader->statusCode();
    if (status >= 100 && status < 200)
        return;
    if (!m_bRetry401 && isStreamedByLength()) {
        finishStreamed();
        return;
    }
    if (m_bRetry401)
        prepareRetry();
    else if (!finishFront())
        return;
    keepOrClose();
    clearReceiveState();
    triggerNextRequest();
}

// --- ending an answer ------------------------------------------------------------------------------------

bool HttpRequestEngine::isStreamedByLength() const
{
    const Request& front = m_requests.front();
    return front.bStream && m_nExpectedContentLength >= 0 && m_state == eWaitingContent
        && front.header.method() != QLatin1String("HEAD") && !hasNoBody(m_pResponseHeader->statusCode());
}

HttpRequestEngine::Request HttpRequestEngine::takeFront()
{
    Request front = std::move(m_requests.front());
    m_requests.pop_front();
    m_deadlines.clearAll();
    m_bCloseAfterResponse = m_bCloseAfterResponse || front.owesBody();
    return front;
}

// The connection is kept or closed before the last piece is delivered.
void HttpRequestEngine::finishStreamed()
{
    const Request front = takeFront();
    NUVIKA_DEBUG(lcHttp, "%s::slotSockDataReceived#3: chunk request finished; id:%d", m_traceName, front.nId);
    keepOrClose();
    const auto header = m_pResponseHeader;
    const Watched::Watch watch = m_session.watch();
    m_listener.chunk(front.nId, *header, m_content.data(), m_content.size());
    if (watch.holds())
        triggerNextRequest();
}

// Hands the collected content out; false when the connection is over. The content belongs to this call: the
// handler may delete the engine, or run a loop in which it receives another answer.
bool HttpRequestEngine::finishFront()
{
    const bool bCollected = m_state != eWaitingMultipart && !m_requests.front().bStream;
    const Request front = takeFront();
    const auto header = m_pResponseHeader;
    const CollectedContent content = std::move(m_content);
    const Watched::Watch watch = m_connection.watch();
    m_listener.finished(
        front.nId, *header, bCollected ? content.data() : nullptr, bCollected ? content.size() : 0);
    return watch.holds();
}

void HttpRequestEngine::failFront(const HttpFailure& failure, bool bClose)
{
    const int id = takeFront().nId;
    m_bCloseAfterResponse = m_bCloseAfterResponse || bClose;
    keepOrClose();
    clearReceiveState();
    m_problem = failure.text;
    const Watched::Watch watch = m_session.watch();
    m_listener.socketError(failure.code);
    if (!watch.holds())
        return;
    tellFailed(id, failure);
    if (watch.holds())
        triggerNextRequest();
}

// Whatever stands behind an answer, or is owed to the server, must not meet the next request.
void HttpRequestEngine::keepOrClose()
{
    const bool bClean = m_reader.hasOnlyLineEndsLeft() && !m_input.hasMore();
    m_reader.takeRest();
    if (m_bCloseAfterResponse || !bClean)
        closeConnection();
    else
        m_state = eConnected;
    m_bUsed = true;
}
