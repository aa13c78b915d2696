#include <KepNuvikaUtil/HttpResponseClient.h>

#include "core/Log_p.h"
#include "http/HttpResponseClient_p.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>
#include <vector>

using namespace Nuvika;
using Marker = NuvikaTcpSocket::QueuedConnNotAllowed;

namespace
{
constexpr int kMaxDiscarded = 65536;
constexpr int kEndingMs = 2000;
constexpr char kContinue[] = "HTTP/1.1 100 Continue\r\n\r\n";

KepNuvikaUtil::BUFFER rangeOf(const QByteArray& bytes) { return {bytes.constData(), bytes.size()}; }

bool carriesBody(const QString& method)
{
    return method == QLatin1String("POST") || method == QLatin1String("PUT")
        || method == QLatin1String("PATCH");
}
} // namespace

HttpResponseClient::Private::Private(HttpResponseClient& client, int socketDescriptor, bool bSingleReceive)
    : m_client(client), m_socket(NuvikaTcpSocket::eMedium, NuvikaTcpSocket::eMedium, bSingleReceive)
{
    m_endTimer.setSingleShot(true);
    QObject::connect(&m_endTimer, &QTimer::timeout, &m_client, [this] { lost(); });
    m_socket.setSocketDescriptor(socketDescriptor);
    m_state = eConnected;
}

// --- receiving -----------------------------------------------------------------------------------------

void HttpResponseClient::Private::dataReceived(const char* data, int size)
{
    if (m_state == eEnding) {
        discard(size);
        return;
    }
    if (isBehindLastRequest())
        return;
    if (m_bParsing || isOutputWaiting()) {
        m_sideInput.append(data, size);
        if (m_sideInput.size() > HttpLimits::kSideBuffer)
            m_socket.stallRecv();
        return;
    }
    if (parse(data, size))
        parseSideInput();
}

// False when this object is gone.
bool HttpResponseClient::Private::parse(const char* data, int size)
{
    const QPointer<HttpResponseClient> guard(&m_client);
    m_bParsing = true;
    m_reader.feed(data, size);
    while (isOpen() && !isOutputWaiting() && !isBehindLastRequest()) {
        const HttpMessageReader::Event event = m_reader.next();
        if (event == HttpMessageReader::Event::NeedMore)
            break;
        if (!handle(event)) {
            if (!guard)
                return false;
            break;
        }
    }
    m_bParsing = false;
    if (isBehindLastRequest())
        m_sideInput.clear();
    else if (isOpen())
        m_sideInput.prepend(m_reader.takeRest()); // requests wait behind the output
    return true;
}

void HttpResponseClient::Private::parseSideInput()
{
    while (!m_sideInput.isEmpty() && !isOutputWaiting() && !m_bParsing) {
        if (m_state == eEnding) {
            m_sideInput.clear();
            break;
        }
        const QByteArray input = m_sideInput;
        m_sideInput.clear();
        m_socket.resumeRecv();
        if (!parse(input.constData(), input.size()))
            return;
    }
    if (m_bEndWaits && !m_bParsing && m_sideInput.isEmpty())
        disconnect();
}

bool HttpResponseClient::Private::handle(HttpMessageReader::Event event)
{
    const QPointer<HttpResponseClient> guard(&m_client);
    switch (event) {
    case HttpMessageReader::Event::Head:
        return handleHead();
    case HttpMessageReader::Event::Content:
        return handleContent();
    case HttpMessageReader::Event::Part:
        emit m_client.multipartReplaceContent(
            m_requestHeader, m_reader.contentType(), m_reader.data(), m_reader.size(), Marker());
        return !guard.isNull();
    case HttpMessageReader::Event::PartSkipped:
        NUVIKA_WARNING(
            lcHttp, "HttpResponseClient::slotSockDataReceived: unexpected multipart header; skipping");
        return true;
    case HttpMessageReader::Event::End:
        return handleEnd();
    case HttpMessageReader::Event::Failed:
        return rejectRequest();
    case HttpMessageReader::Event::NeedMore:
        break;
    }
    return true;
}

bool HttpResponseClient::Private::handleHead()
{
    m_requestHeader = HttpRequestHeader::fromBytes(m_reader.data(), m_reader.size());
    const bool bClose = wantsClose(m_requestHeader);
    const bool bOldVersion = m_requestHeader.majorVersion() == 1 && m_requestHeader.minorVersion() == 0;
    m_exchanges.push_back(
        {m_requestHeader.method() == QLatin1String("HEAD"), bClose, bOldVersion && !bClose});
    if (!m_requestHeader.isValid()) {
        NUVIKA_DEBUG(lcHttp, "HttpResponseClient::slotSockDataReceived: received invalid header");
        return rejectRequest();
    }
    HttpBody body = HttpBody::fromFields(
        m_requestHeader, carriesBody(m_requestHeader.method()) ? HttpBody::UntilEnd : HttpBody::None);
    const bool bForeignCoding
        = body.kind != HttpBody::Chunked && m_requestHeader.hasKey(QStringLiteral("transfer-encoding"));
    // A length beside chunks is how requests are smuggled past others.
    if (body.bInvalid || body.bAmbiguous || bForeignCoding)
        return rejectRequest();
    body.detectMultipart(m_requestHeader);
    m_reader.setBody(body);
    m_nContent = 0;
    m_pWholeContent = nullptr;
    m_nExpectedContentLength = body.kind == HttpBody::Length ? body.nLength : -1;
    m_state = body.kind == HttpBody::Chunked ? eWaitingChunk
        : body.bMultipart                    ? eWaitingMultipart
                                             : eWaitingContent;
    const bool bExpects = m_requestHeader.value(QStringLiteral("expect"))
                              .compare(QLatin1String("100-continue"), Qt::CaseInsensitive)
        == 0;
    if (bExpects && body.kind != HttpBody::None && m_requestHeader.minorVersion() >= 1) {
        const KepNuvikaUtil::BUFFER range{kContinue, sizeof kContinue - 1};
        write(&range, 1);
    }
    return true;
}

bool HttpResponseClient::Private::handleContent()
{
    const auto size = static_cast<std::size_t>(m_reader.size());
    if (m_state == eWaitingChunk) {
        const QPointer<HttpResponseClient> guard(&m_client);
        emit m_client.contentChunk(m_requestHeader, m_reader.data(), m_reader.size(), Marker());
        return !guard.isNull();
    }
    const std::size_t needed = m_nContent + size;
    if (needed > static_cast<std::size_t>(m_limits.nContent))
        return rejectRequest();
    if (m_nContent == 0 && m_reader.size() == m_nExpectedContentLength) {
        m_pWholeContent = m_reader.data();
        m_nContent = size;
        return true;
    }
    if (m_nContent == 0)
        m_content = m_pPool->getBuffer();
    VariableBuffer& buffer = *m_content.getVariableBuffer();
    if (needed > buffer.getSize())
        buffer.getBuffer(static_cast<unsigned int>(
            std::min(std::max<std::size_t>(needed * 2, 65536), static_cast<std::size_t>(m_limits.nContent))));
    std::memcpy(static_cast<char*>(buffer.getBuffer(buffer.getSize())) + m_nContent, m_reader.data(), size);
    m_nContent = needed;
    return true;
}

bool HttpResponseClient::Private::deliver(const char* content, int size)
{
    const QPointer<HttpResponseClient> guard(&m_client);
    emit m_client.requestReceived(m_requestHeader, content, size, Marker());
    if (!guard)
        return false;
    m_content = SharedPoolBuffer();
    return true;
}

bool HttpResponseClient::Private::handleEnd()
{
    const State ended = m_state;
    m_state = eConnected;
    m_bLastRequest = m_bLastRequest || wantsClose(m_requestHeader);
    if (ended == eWaitingMultipart)
        return true;
    if (ended == eWaitingChunk) {
        NUVIKA_DEBUG(lcHttp, "HttpResponseClient::slotSockDataReceived#3: chunk response finished");
        const QPointer<HttpResponseClient> guard(&m_client);
        emit m_client.contentChunk(m_requestHeader, nullptr, 0, Marker());
        return !guard.isNull();
    }
    const auto* collected = static_cast<const char*>(m_content.getBuffer());
    return deliver(m_pWholeContent != nullptr ? m_pWholeContent : collected, static_cast<int>(m_nContent));
}

// The owner may answer inside error(); the connection ends behind that.
bool HttpResponseClient::Private::rejectRequest()
{
    m_bRejected = true;
    m_reader.takeRest();
    if (m_exchanges.empty())
        m_exchanges.push_back({false, true, false});
    m_exchanges.back().bClose = true;
    m_state = eConnected;
    const QPointer<HttpResponseClient> guard(&m_client);
    emit m_client.error();
    if (!guard)
        return false;
    m_sideInput.clear();
    if (isOpen() && !m_bMoreContent && m_nFinishing == 0)
        beginEnding();
    return false;
}

// --- responding ----------------------------------------------------------------------------------------

void HttpResponseClient::Private::respond(
    const HttpResponseHeader& header, bool bMore, const SharedPoolBuffer* body)
{
    const int status = header.statusCode();
    const bool bInterim = status >= 100 && status < 200;
    Exchange exchange{false, false, false};
    if (!m_exchanges.empty()) {
        exchange = m_exchanges.front();
        if (!bInterim)
            m_exchanges.pop_front();
    }
    m_responseHeader = header;
    const QString connection = QStringLiteral("Connection");
    if (!bInterim && (exchange.bClose || exchange.bOldKeepAlive) && !header.hasKey(connection))
        m_responseHeader.addValue(connection, QLatin1String(exchange.bClose ? "close" : "keep-alive"));
    const QByteArray head = m_responseHeader.toString().toLatin1();
    const bool bBody = body != nullptr && !body->isEmpty() && !exchange.bHead;
    std::array<KepNuvikaUtil::BUFFER, 4> ranges{rangeOf(head)};
    int count = 1;
    m_bChunkedResponse = header.value(QStringLiteral("transfer-encoding")) == QLatin1String("chunked");
    QByteArray frame;
    if (bBody && m_bChunkedResponse && bMore) {
        frame = QByteArray::number(body->getBufferSize(), 16) + "\r\n";
        ranges[static_cast<std::size_t>(count++)] = rangeOf(frame);
    }
    if (bBody)
        ranges[static_cast<std::size_t>(count++)]
            = {static_cast<const char*>(body->getBuffer()), body->getBufferSize()};
    if (!frame.isEmpty())
        ranges[static_cast<std::size_t>(count++)] = {"\r\n", 2};
    write(ranges.data(), count);
    if (bInterim)
        return;
    const bool bUntilEnd
        = !header.hasContentLength() && !m_bChunkedResponse && status != 204 && status != 304;
    m_bHeadOnly = exchange.bHead;
    m_bCloseAfter = exchange.bClose || m_bRejected || wantsClose(header) || (bUntilEnd && !exchange.bHead);
    m_bLastRequest = m_bLastRequest || m_bCloseAfter;
    m_bMoreContent = bMore;
    if (bMore)
        return;
    ++m_nFinishing;
    awaitAllSent();
}

bool HttpResponseClient::Private::sendContent(const KepNuvikaUtil::BUFFER* ranges, int count)
{
    if (!m_bMoreContent || !isOpen())
        return false;
    if (m_bHeadOnly)
        return true;
    if (!m_bChunkedResponse) {
        write(ranges, count);
        return true;
    }
    long long size = 0;
    for (int i = 0; i < count; ++i)
        size += std::max(ranges[i].nLen, 0);
    if (size == 0)
        return true; // an empty chunk would be the end
    const QByteArray frame = QByteArray::number(size, 16) + "\r\n";
    std::vector<KepNuvikaUtil::BUFFER> framed{rangeOf(frame)};
    framed.insert(framed.end(), ranges, ranges + count);
    framed.push_back({"\r\n", 2});
    write(framed.data(), static_cast<int>(framed.size()));
    return true;
}

bool HttpResponseClient::Private::endContent()
{
    if (!m_bMoreContent || !isOpen())
        return false;
    if (m_bChunkedResponse && !m_bHeadOnly) {
        const KepNuvikaUtil::BUFFER last{"0\r\n\r\n", 5};
        write(&last, 1);
    }
    m_bMoreContent = false;
    ++m_nFinishing;
    awaitAllSent();
    return true;
}

void HttpResponseClient::Private::write(const KepNuvikaUtil::BUFFER* ranges, int count)
{
    if (!m_queue.isEmpty() || !m_socket.sendData(ranges, count)) {
        for (int i = 0; i < count; ++i)
            m_queue.append(ranges[i].pData, std::max(ranges[i].nLen, 0));
    } else if (m_socket.canSend()) {
        return;
    }
    m_bOutputWaits = true; // a peer that does not read gets no further request read
    m_socket.stallRecv();
}

void HttpResponseClient::Private::awaitAllSent()
{
    if (!m_queue.isEmpty() || m_socket.notifyWhenAllSent()) // with a queue, when that has drained
        return;
    QMetaObject::invokeMethod(&m_client, "slotSockAllSent", Qt::QueuedConnection);
}

void HttpResponseClient::Private::canSend()
{
    const bool bQueued = !m_queue.isEmpty();
    m_queue.drain([this] { return m_socket.canSend(); },
        [this](const char* data, int size) { m_socket.sendData(data, size); });
    if (bQueued && m_queue.isEmpty() && m_nFinishing > 0)
        awaitAllSent();
    if (!m_bOutputWaits || !m_queue.isEmpty() || !m_socket.canSend() || m_state == eEnding)
        return;
    m_bOutputWaits = false;
    m_socket.resumeRecv();
    const QPointer<HttpResponseClient> guard(&m_client);
    emit m_client.sigCanSendContent();
    if (guard && !m_bParsing)
        parseSideInput();
}

void HttpResponseClient::Private::allSent()
{
    if (!m_queue.isEmpty())
        return;
    const bool bClose = m_bCloseAfter && m_nFinishing > 0 && !m_bMoreContent;
    const QPointer<HttpResponseClient> guard(&m_client);
    for (int finished = std::exchange(m_nFinishing, 0); finished > 0; --finished) {
        emit m_client.responseFinished();
        if (!guard)
            return;
    }
    if (bClose && isOpen())
        beginEnding();
}

// --- ends ----------------------------------------------------------------------------------------------

// Closing with unread input would reset the connection and lose the answer: the peer is told first, what it
// still sends is read away for a while, and then the connection closes.
void HttpResponseClient::Private::beginEnding()
{
    m_state = eEnding;
    m_sideInput.clear();
    m_queue.clear();
    m_bOutputWaits = false;
    m_socket.sendEndOfData();
    m_socket.resumeRecv();
    m_endTimer.start(kEndingMs);
}

void HttpResponseClient::Private::discard(int size)
{
    m_nDiscarded += size;
    if (m_nDiscarded > kMaxDiscarded)
        lost();
}

void HttpResponseClient::Private::lost()
{
    if (m_bParsing) {
        m_bEndWaits = true;
        return;
    }
    disconnect();
}

void HttpResponseClient::Private::disconnect()
{
    m_bEndWaits = false;
    m_endTimer.stop();
    m_socket.close();
    m_queue.clear();
    if (m_state == eDisconnected)
        return;
    const State before = m_state;
    m_state = eDisconnected;
    const QPointer<HttpResponseClient> guard(&m_client);
    if (before == eWaitingContent && m_nExpectedContentLength == -1) {
        NUVIKA_DEBUG(lcHttp,
            "HttpResponseClient::slotSockDisconnected(): if (m_state == eWaitingContent && "
            "m_nExpectedContentLength == -1)");
        const auto* collected = static_cast<const char*>(m_content.getBuffer());
        if (!deliver(collected, static_cast<int>(m_nContent)))
            return;
    }
    if (guard)
        emit m_client.disconnected();
}

// --- HttpResponseClient --------------------------------------------------------------------------------

HttpResponseClient::HttpResponseClient(int socketDescriptor, bool singleReceive, QObject* parent)
    : QObject(parent), d(std::make_unique<Private>(*this, socketDescriptor, singleReceive))
{
    const NuvikaTcpSocket* socket = &d->m_socket;
    connect(socket, &NuvikaTcpSocket::dataReceived, this, &HttpResponseClient::slotSockDataReceived,
        Qt::DirectConnection);
    connect(socket, &NuvikaTcpSocket::disconnected, this, &HttpResponseClient::slotSockDisconnected);
    connect(socket, &NuvikaTcpSocket::error, this, &HttpResponseClient::slotSockError);
    connect(socket, &NuvikaTcpSocket::sigCanSend, this, &HttpResponseClient::slotSockCanSend);
    connect(socket, &NuvikaTcpSocket::sigAllSent, this, &HttpResponseClient::slotSockAllSent);
}

HttpResponseClient::~HttpResponseClient() = default;

void HttpResponseClient::response(
    const HttpResponseHeader& header, bool moreContent, const SharedPoolBuffer* body)
{
    if (!d->isOpen()) {
        emit error();
        return;
    }
    d->respond(header, moreContent, body);
}

void HttpResponseClient::shutdown() { d->disconnect(); }

bool HttpResponseClient::sendContent(const char* data, int size)
{
    const KepNuvikaUtil::BUFFER range{data, size};
    return d->sendContent(&range, 1);
}

bool HttpResponseClient::sendContent(const KepNuvikaUtil::BUFFER* ranges, int count)
{
    return d->sendContent(ranges, count);
}

bool HttpResponseClient::endContent() { return d->endContent(); }

bool HttpResponseClient::canSendContent() const
{
    return d->isOpen() && !d->isOutputWaiting() && d->m_socket.canSend();
}

bool HttpResponseClient::isConnected() const { return d->isOpen(); }

void HttpResponseClient::setReadLimits(const HttpReadLimits& limits) { d->setLimits(limits); }

QHostAddress HttpResponseClient::peerAddress() const { return d->m_socket.peerAddress(); }

unsigned short HttpResponseClient::peerPort() const { return d->m_socket.peerPort(); }

void HttpResponseClient::slotSockDataReceived(
    const char* pData, int size, NuvikaTcpSocket::QueuedConnNotAllowed)
{
    d->dataReceived(pData, size);
}

void HttpResponseClient::slotSockDisconnected() { d->lost(); }

void HttpResponseClient::slotSockError(int errorCode)
{
    NUVIKA_DEBUG(lcHttp, "HttpResponseClient::slotSockError: code:%d", errorCode);
    const QPointer<HttpResponseClient> guard(this);
    emit error();
    if (guard)
        d->lost();
}

void HttpResponseClient::slotSockCanSend() { d->canSend(); }

void HttpResponseClient::slotSockAllSent() { d->allSent(); }
