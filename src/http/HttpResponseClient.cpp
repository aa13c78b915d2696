#include <KepNuvikaUtil/HttpResponseClient.h>

#include "core/Log_p.h"
#include "http/HttpResponseClient_p.h"
#include "net/HalfClose_p.h"
#include "platform/Clock_p.h"

#include <utility>

using namespace Nuvika;

namespace
{
constexpr int kTickMs = 250;
constexpr int kMaxDiscarded = 65536;
constexpr unsigned int kEndingMs = 2000;
constexpr unsigned int kPeerEndedMs = 5000;
} // namespace

HttpResponseClient::Private::Private(HttpResponseClient& client, int socketDescriptor, bool bSingleReceive,
    NuvikaTcpSocket::SYSTEM_BUFFERS buffers)
    : m_client(client), m_socket(NuvikaTcpSocket::eMedium, NuvikaTcpSocket::eMedium, bSingleReceive)
{
    m_timer.setInterval(kTickMs);
    QObject::connect(&m_timer, &QTimer::timeout, &m_client, [this] { tick(); });
    HalfClose::setHandler(m_socket, [this] { peerEnded(); });
    m_socket.setSystemBuffers(buffers);
    ReceivePlacer::set(m_socket, *this);
    m_socket.setSocketDescriptor(socketDescriptor);
    m_state = eConnected;
}

// --- responding ----------------------------------------------------------------------------------------

// Answers come in the order of the requests; only that to a bad request, given inside error(), waits for
// those before it.
HttpExchange* HttpResponseClient::Private::exchangeToAnswer()
{
    const bool bBad = m_bRejecting && !m_exchanges.isEmpty();
    return bBad ? &m_exchanges.back() : m_exchanges.firstUnanswered();
}

void HttpResponseClient::Private::respond(
    const HttpResponseHeader& header, bool bMore, KepNuvikaUtil::BUFFER body)
{
    HttpExchange* exchange = isOpen() ? exchangeToAnswer() : nullptr;
    if (isOpen() && header.statusCode() >= 100 && header.statusCode() < 200) {
        if (exchange != nullptr)
            interim(*exchange, header.toString().toLatin1());
        return;
    }
    if (exchange == nullptr && isOpen() && !m_bNoMoreRequests)
        exchange = &m_exchanges.push(); // an answer that nobody has asked for
    if (exchange == nullptr) {
        tellError();
        return;
    }
    exchange->bAnswered = true;
    m_bRejecting = false;
    if (exchange != &m_exchanges.front()) {
        exchange->answer
            = std::make_unique<HttpAnswer>(HttpAnswer{header, QByteArray(body.pData, body.nLen), bMore});
        return;
    }
    begin(header, bMore, body);
    if (!bMore)
        finishFront();
    advance();
}

// 1xx answers, too, follow the answers before.
void HttpResponseClient::Private::interim(HttpExchange& exchange, const QByteArray& bytes)
{
    if (&exchange == &m_exchanges.front()) {
        m_writer.write(bytes);
        lookAtOutput();
    } else {
        exchange.interim += bytes;
    }
}

void HttpResponseClient::Private::begin(
    const HttpResponseHeader& header, bool bMore, KepNuvikaUtil::BUFFER body)
{
    HttpExchange& front = m_exchanges.front();
    front.bClose
        = front.bClose || wantsClose(header) || (!front.bHead && HttpResponseWriter::lastsUntilEnd(header));
    front.bStreaming = bMore;
    const auto content = front.bHead ? HttpResponseWriter::eHeadOnly : HttpResponseWriter::eContent;
    const QString connection = QStringLiteral("Connection");
    if ((front.bClose || front.bOldKeepAlive) && !header.hasKey(connection)) {
        HttpResponseHeader sent = header;
        sent.addValue(connection, QLatin1String(front.bClose ? "close" : "keep-alive"));
        m_writer.begin(sent, content, bMore, body);
    } else {
        m_writer.begin(header, content, bMore, body);
    }
    lookAtOutput();
    if (!front.bClose)
        return;
    m_bNoMoreRequests = true;
    if (m_exchanges.size() > 1) {
        m_exchanges.keepFirst();
        m_state = eConnected; // what is being received is a request behind it
    }
}

void HttpResponseClient::Private::finishFront()
{
    m_exchanges.popFront();
    ++m_nFinishing;
}

// Writes what has waited for the answers before.
void HttpResponseClient::Private::advance()
{
    while (!m_exchanges.isEmpty() && !m_exchanges.front().bStreaming) {
        HttpExchange& front = m_exchanges.front();
        if (!front.interim.isEmpty())
            m_writer.write(std::exchange(front.interim, QByteArray()));
        const std::unique_ptr<HttpAnswer> answer = std::move(front.answer);
        if (answer == nullptr)
            break;
        begin(answer->header, answer->bMore, {answer->body.constData(), answer->body.size()});
        if (!answer->bMore)
            finishFront();
    }
    lookAtOutput();
    if (m_nFinishing > 0)
        awaitAllSent();
    postResume();
}

bool HttpResponseClient::Private::sendContent(const KepNuvikaUtil::BUFFER* ranges, int count)
{
    if (!isOpen() || m_exchanges.isEmpty() || !m_exchanges.front().bStreaming)
        return false;
    m_writer.piece(ranges, count);
    lookAtOutput();
    return true;
}

bool HttpResponseClient::Private::endContent()
{
    if (!isOpen() || m_exchanges.isEmpty() || !m_exchanges.front().bStreaming)
        return false;
    m_writer.end();
    finishFront();
    advance();
    return true;
}

// A peer that does not read gets no further request read.
void HttpResponseClient::Private::lookAtOutput()
{
    if (m_writer.isBehind())
        m_input.setStalled(PendingInput::eByOutput, true);
}

void HttpResponseClient::Private::awaitAllSent()
{
    if (m_writer.isAllSent())
        QMetaObject::invokeMethod(
            &m_client, [this] { allSent(); }, Qt::QueuedConnection);
}

void HttpResponseClient::Private::canSend()
{
    const bool bCaughtUp = m_writer.drain();
    if (m_nFinishing > 0)
        awaitAllSent();
    if (!bCaughtUp || !isOpen())
        return;
    m_input.setStalled(PendingInput::eByOutput, false);
    const QPointer<HttpResponseClient> guard(&m_client);
    emit m_client.sigCanSendContent();
    if (guard && isOpen())
        m_input.release();
}

void HttpResponseClient::Private::allSent()
{
    if (!m_writer.isAllSent())
        return;
    m_nSent += std::exchange(m_nFinishing, 0);
    const QPointer<HttpResponseClient> guard(&m_client);
    while (m_nSent > 0) { // a handler's own event loop tells those that are left
        --m_nSent;
        emit m_client.responseFinished();
        if (!guard || m_state == eDisconnected)
            return;
    }
    endIfDue();
}

// --- ends ----------------------------------------------------------------------------------------------

// The connection is over: no request can follow, and everything that was asked has its answer.
bool HttpResponseClient::Private::mayEnd()
{
    return isOpen() && m_bNoMoreRequests && m_exchanges.isEmpty() && m_nFinishing + m_nSent == 0
        && m_writer.isAllSent();
}

void HttpResponseClient::Private::endIfDue()
{
    if (!mayEnd())
        return;
    if (m_bInputEnded)
        disconnect();
    else
        beginEnding();
}

// Closing with unread input would reset the connection and lose the answer: the peer is told first, what it
// still sends is read away for a while, and then the connection closes.
void HttpResponseClient::Private::beginEnding()
{
    m_state = eEnding;
    m_socket.sendEndOfData();
    startLimit(kEndingMs);
    m_input.setStalled(PendingInput::eByOutput, false);
    m_input.release();
}

void HttpResponseClient::Private::dataReceived(const char* data, int size)
{
    if (m_state != eEnding) {
        m_input.received(data, size);
        return;
    }
    m_nDiscarded += size;
    if (m_nDiscarded > kMaxDiscarded)
        lost(0);
}

// The peer sends no more, and may well wait for its answers.
void HttpResponseClient::Private::peerEnded()
{
    if (m_state == eDisconnected || m_bInputEnded || m_input.hasEnded())
        return;
    if (isOpen())
        startLimit(kPeerEndedMs);
    m_input.ended(0);
}

// Nobody can be answered any more. What has come before is still delivered where a handler keeps it waiting.
void HttpResponseClient::Private::lost(int code)
{
    if (m_state == eDisconnected)
        return;
    if (!m_exchanges.isEmpty() && m_exchanges.front().bStreaming) { // nothing is delivered inside an answer
        m_bNoMoreRequests = true;
        if (m_exchanges.size() > 1)
            m_state = eConnected;
    }
    m_exchanges.clear();
    m_nFinishing = 0;
    m_nSent = 0;
    m_writer.discard();
    m_input.hold();
    m_input.ended(code);
    m_input.release();
}

void HttpResponseClient::Private::startLimit(unsigned int ms)
{
    m_nLimitMs = ms;
    m_nSinceMs = Clock::monotonicMs();
    m_nProgress = m_writer.progress();
    m_timer.start();
}

void HttpResponseClient::Private::tick()
{
    const unsigned int now = Clock::monotonicMs();
    const quint64 progress = m_writer.progress();
    if (isOpen() && std::exchange(m_nProgress, progress) != progress)
        m_nSinceMs = now;
    if (now - m_nSinceMs >= m_nLimitMs)
        timeUp();
}

void HttpResponseClient::Private::timeUp()
{
    if (!m_exchanges.isEmpty() && !m_exchanges.front().bAnswered && m_exchanges.back().bAnswered) {
        m_exchanges.keepLast(); // the owner is silent: a bad request has waited for its answers
        startLimit(m_nLimitMs);
        advance();
        return;
    }
    m_bNoMoreRequests = true;
    lost(0);
}

void HttpResponseClient::Private::disconnect()
{
    m_timer.stop();
    m_socket.close();
    m_writer.discard();
    m_exchanges.clear();
    m_nFinishing = 0;
    m_nSent = 0;
    m_input.reset();
    if (m_state == eDisconnected)
        return;
    m_content.clear();
    m_state = eDisconnected;
    emit m_client.disconnected();
}

// The owner may well answer an error with response(), which is an error where nobody is connected.
bool HttpResponseClient::Private::tellError()
{
    if (m_bTellingError)
        return true;
    const QPointer<HttpResponseClient> guard(&m_client);
    m_bTellingError = true;
    emit m_client.error();
    if (!guard)
        return false;
    m_bTellingError = false;
    return true;
}

// --- HttpResponseClient --------------------------------------------------------------------------------

HttpResponseClient::HttpResponseClient(int socketDescriptor, bool singleReceive, QObject* parent)
    : HttpResponseClient(socketDescriptor, singleReceive, NuvikaTcpSocket::eAsProfile, parent)
{
}

HttpResponseClient::HttpResponseClient(
    int socketDescriptor, bool singleReceive, NuvikaTcpSocket::SYSTEM_BUFFERS buffers, QObject* parent)
    : QObject(parent), d(std::make_unique<Private>(*this, socketDescriptor, singleReceive, buffers))
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
    KepNuvikaUtil::BUFFER range{nullptr, 0};
    if (body != nullptr && !body->isEmpty())
        range = {static_cast<const char*>(body->getBuffer()), body->getBufferSize()};
    d->respond(header, moreContent, range);
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

bool HttpResponseClient::canSendContent() const { return d->canSendContent(); }

bool HttpResponseClient::isConnected() const { return d->isOpen(); }

void HttpResponseClient::setReadLimits(const HttpReadLimits& limits) { d->setLimits(limits); }

QHostAddress HttpResponseClient::peerAddress() const { return d->m_socket.peerAddress(); }

unsigned short HttpResponseClient::peerPort() const { return d->m_socket.peerPort(); }

void HttpResponseClient::slotSockDataReceived(
    const char* pData, int size, NuvikaTcpSocket::QueuedConnNotAllowed)
{
    d->dataReceived(pData, size);
}

void HttpResponseClient::slotSockDisconnected() { d->peerEnded(); }

void HttpResponseClient::slotSockError(int errorCode) { d->lost(errorCode); }

void HttpResponseClient::slotSockCanSend() { d->canSend(); }

void HttpResponseClient::slotSockAllSent() { d->allSent(); }
