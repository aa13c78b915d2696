// The receiving half of a server-side HTTP connection.
#include "core/Log_p.h"
#include "http/HttpResponseClient_p.h"
#include "platform/ErrorCodes_p.h"

#include <utility>

using namespace Nuvika;
using Marker = NuvikaTcpSocket::QueuedConnNotAllowed;

namespace
{
constexpr std::size_t kMaxUnanswered = 4096; // requests; further ones wait for answers
constexpr unsigned int kOwnerMs = 5000; // for answers to the requests before a bad one

bool carriesBody(const QString& method)
{
    return method == QLatin1String("POST") || method == QLatin1String("PUT")
        || method == QLatin1String("PATCH");
}

bool expectsContinue(const HttpRequestHeader& header)
{
    return header.minorVersion() >= 1
        && header.value(QStringLiteral("expect")).compare(QLatin1String("100-continue"), Qt::CaseInsensitive)
        == 0;
}

// What RFC 9112 (6.1, 6.3) tells servers to refuse: it is how requests are smuggled past others.
bool isFramedForOthers(const HttpRequestHeader& header, const HttpBody& body)
{
    const bool bCoded = header.hasKey(QStringLiteral("transfer-encoding"));
    return body.bInvalid || body.bAmbiguous || (bCoded && body.kind != HttpBody::Chunked)
        || hasForeignCoding(header);
}
} // namespace

// The next event of the input goes to the owner: not while the peer does not read what it is sent, nor inside
// the answer to an earlier request, nor when too many requests wait for theirs.
bool HttpResponseClient::Private::mayDeliver() const
{
    const bool bNextRequest = m_state == eConnected;
    const bool bInsideAnswer = !m_exchanges.isEmpty() && m_exchanges.front().bStreaming
        && (bNextRequest || m_exchanges.size() > 1);
    return !m_writer.isBehind() && !bInsideAnswer && !(bNextRequest && m_exchanges.size() >= kMaxUnanswered);
}

int HttpResponseClient::Private::readInput(const char* data, int size)
{
    const QPointer<HttpResponseClient> guard(&m_client);
    m_reader.feed(data, size);
    while (isOpen() && !isBehindLastRequest()) {
        if (m_reader.canPause() && !mayDeliver()) {
            if (m_reader.unread() > 0)
                m_input.hold();
            return size - m_reader.unread();
        }
        const HttpMessageReader::Event event = m_reader.next();
        if (event == HttpMessageReader::Event::NeedMore)
            return size;
        handle(event);
        if (!guard || m_state == eDisconnected)
            return kOver;
    }
    return size;
}

void HttpResponseClient::Private::stallSource(bool bStall)
{
    if (bStall)
        m_pTransport->stallRecv();
    else
        m_pTransport->resumeRecv();
}

iovec HttpResponseClient::Private::target()
{
    const bool bNext
        = m_state == eWaitingContent && !m_input.isReading() && m_input.isEmpty() && mayDeliver();
    return bNext ? m_content.target(m_reader) : iovec{};
}

void HttpResponseClient::Private::placed(int bytes)
{
    m_nReceived += static_cast<quint64>(bytes);
    m_content.placed(static_cast<std::size_t>(bytes));
    m_reader.contentPlaced(static_cast<std::size_t>(bytes));
}

// What waits is read from the loop, not inside a call of the owner.
void HttpResponseClient::Private::postResume()
{
    if (!m_input.isEmpty() && !m_input.isReading() && mayDeliver())
        QMetaObject::invokeMethod(
            &m_client, [this] { m_input.release(); }, Qt::QueuedConnection);
}

// --- events: this object may be gone behind them ---------------------------------------------------------

void HttpResponseClient::Private::handle(HttpMessageReader::Event event)
{
    switch (event) {
    case HttpMessageReader::Event::Head:
        handleHead();
        break;
    case HttpMessageReader::Event::Content:
        handleContent();
        break;
    case HttpMessageReader::Event::Part:
        emit m_client.multipartReplaceContent(
            m_requestHeader, m_reader.contentType(), m_reader.data(), m_reader.size(), Marker());
        break;
    case HttpMessageReader::Event::PartSkipped:
        NUVIKA_WARNING(
            lcHttp, "HttpResponseClient::slotSockDataReceived: unexpected multipart header; skipping");
        break;
    case HttpMessageReader::Event::End:
        handleEnd();
        break;
    case HttpMessageReader::Event::Failed:
        if (m_state == eConnected)
            m_exchanges.push(); // a head that never became a request
        rejectRequest(HttpFailure::eBadMessage, QStringLiteral("what came is no HTTP, or exceeds a limit"));
        break;
    case HttpMessageReader::Event::NeedMore:
        break;
    }
}

void HttpResponseClient::Private::handleHead()
{
    ++m_nRequests;
    m_requestHeader = HttpRequestHeader::fromBytes(m_reader.data(), m_reader.size());
    const bool bOldVersion = m_requestHeader.majorVersion() == 1 && m_requestHeader.minorVersion() == 0;
    HttpExchange& exchange = m_exchanges.push();
    exchange.bHead = m_requestHeader.method() == QLatin1String("HEAD");
    exchange.bClose = wantsClose(m_requestHeader)
        || (bOldVersion && m_requestHeader.hasKey(QStringLiteral("transfer-encoding")));
    exchange.bOldKeepAlive = bOldVersion && !exchange.bClose;
    m_bRequestCloses = exchange.bClose;
    if (!m_requestHeader.isValid()) {
        NUVIKA_DEBUG(lcHttp, "HttpResponseClient::slotSockDataReceived: received invalid header");
        rejectRequest(HttpFailure::eBadMessage, QStringLiteral("a request has no valid head"));
        return;
    }
    HttpBody body = HttpBody::fromFields(
        m_requestHeader, carriesBody(m_requestHeader.method()) ? HttpBody::UntilEnd : HttpBody::None);
    if (isFramedForOthers(m_requestHeader, body)) {
        rejectRequest(HttpFailure::eBadMessage, QStringLiteral("it is unclear where a request's body ends"));
        return;
    }
    body.detectMultipart(m_requestHeader);
    beginRequest(body);
    if (body.kind != HttpBody::None && expectsContinue(m_requestHeader))
        interim(exchange, QByteArrayLiteral("HTTP/1.1 100 Continue\r\n\r\n"));
}

void HttpResponseClient::Private::beginRequest(const HttpBody& body)
{
    m_nRequestContentOffset = m_reader.size();
    m_nExpectedContentLength = body.kind == HttpBody::Length ? body.nLength : -1;
    m_content.begin(m_nExpectedContentLength, m_limits.nContent);
    m_state = body.kind == HttpBody::Chunked ? eWaitingChunk
        : body.bMultipart                    ? eWaitingMultipart
                                             : eWaitingContent;
    m_reader.setBody(body);
}

void HttpResponseClient::Private::handleContent()
{
    if (m_state == eWaitingChunk) {
        emit m_client.contentChunk(m_requestHeader, m_reader.data(), m_reader.size(), Marker());
        return;
    }
    if (!m_content.add(m_reader.data(), m_reader.size()))
        rejectRequest(HttpFailure::eTooLarge, QStringLiteral("a request's body exceeds the limit"));
}

void HttpResponseClient::Private::handleEnd()
{
    const State ended = std::exchange(m_state, eConnected);
    m_bNoMoreRequests = m_bNoMoreRequests || m_bRequestCloses;
    if (ended == eWaitingChunk) {
        NUVIKA_DEBUG(lcHttp, "HttpResponseClient::slotSockDataReceived#3: chunk response finished");
        emit m_client.contentChunk(m_requestHeader, nullptr, 0, Marker());
    } else {
        deliver();
    }
}

// False when this object is gone. The content belongs to this call, whatever the handler does.
bool HttpResponseClient::Private::deliver()
{
    const CollectedContent content = std::move(m_content);
    const QPointer<HttpResponseClient> guard(&m_client);
    emit m_client.requestReceived(m_requestHeader, content.data(), content.size(), Marker());
    return !guard.isNull();
}

// The owner may answer inside error(), behind the answers to the requests before; else it is done here.
void HttpResponseClient::Private::rejectRequest(HttpFailure::Reason reason, const QString& why)
{
    const bool bLate = reason == HttpFailure::eTimeLimit;
    note(reason, bLate ? ErrorCodes::kTimedOut : ErrorCodes::kConnectionAborted, why);
    m_bNoMoreRequests = true;
    m_state = eConnected;
    m_content.clear();
    m_bRejecting = !m_exchanges.isEmpty() && !m_exchanges.back().bAnswered;
    if (!m_exchanges.isEmpty())
        m_exchanges.back().bClose = true;
    if (!tellError() || !isOpen())
        return;
    if (m_bRejecting) {
        HttpResponseHeader header(
            bLate ? 408 : 400, bLate ? QStringLiteral("Request Timeout") : QStringLiteral("Bad Request"));
        header.setContentLength(0);
        respond(header, false, {nullptr, 0});
    }
    if (!m_exchanges.isEmpty())
        startLimit(kOwnerMs);
    awaitAllSent();
}

// --- the peer's end --------------------------------------------------------------------------------------

void HttpResponseClient::Private::readEnd(int code)
{
    if (code != 0) {
        NUVIKA_DEBUG(lcHttp, "HttpResponseClient::slotSockError: code:%d", code);
        if (tellError())
            disconnect();
        return;
    }
    m_bInputEnded = true;
    if (m_state == eEnding) {
        disconnect();
        return;
    }
    m_bNoMoreRequests = true;
    const State ended = std::exchange(m_state, eConnected);
    const bool bWhole = ended == eWaitingContent && m_nExpectedContentLength == -1 && !m_bMayBeCut;
    if (!bWhole && (ended != eConnected || m_reader.isInHead()))
        note(HttpFailure::eLost, 0, QStringLiteral("the peer ended the connection within a request"));
    if (bWhole) {
        NUVIKA_DEBUG(lcHttp,
            "HttpResponseClient::slotSockDisconnected(): if (m_state == eWaitingContent && "
            "m_nExpectedContentLength == -1)");
        NUVIKA_ASSERT(m_nRequestContentOffset >= 4);
        if (!deliver())
            return;
    } else if (ended != eConnected && !m_exchanges.isEmpty() && !m_exchanges.back().bAnswered) {
        m_exchanges.popBack(); // a request that never became complete
        m_content.clear();
    }
    endIfDue();
}
