#include <KepNuvikaUtil/HttpResponseClient.h>

#include "core/Log_p.h"
#include "http/HttpResponseClient_p.h"
#include "net/HalfClose_p.h"
#include "platform/ErrorCodes_p.h"

#include <utility>

using namespace Nuvika;

namespace
{
constexpr int kMaxDiscarded = 65536;
constexpr unsigned int kEndingMs = 2000;
constexpr unsigned int kPeerEndedMs = 5000;

HttpFailure::Reason reasonOf(int code, bool bTls)
{
    if (bTls && code == ErrorCodes::kAccessDenied)
        return HttpFailure::eCertificate;
    const bool bOfTls = code == ErrorCodes::kHandshakeTimeout || code == ErrorCodes::kConnectionAborted;
    return bTls && bOfTls ? HttpFailure::eTls : HttpFailure::eLost;
}
} // namespace

template <class Socket>
HttpResponseClient::Private::Private(
    HttpResponseClient& client, std::unique_ptr<AcceptedSocket<Socket>> transport)
    : m_client(client), m_pTransport(std::move(transport))
{
    Socket& socket = static_cast<AcceptedSocket<Socket>&>(*m_pTransport).socket();
    QObject::connect(&m_timer, &QTimer::timeout, &m_client, [this] { tick(); });
    HalfClose::setHandler(socket, [this](bool bAnnounced = true) { peerEnded(bAnnounced); });
    ReceivePlacer::set(socket, *this);
    QObject::connect(&socket, &Socket::dataReceived, &m_client, &HttpResponseClient::slotSockDataReceived,
        Qt::DirectConnection);
    QObject::connect(&socket, &Socket::disconnected, &m_client, &HttpResponseClient::slotSockDisconnected);
    QObject::connect(&socket, &Socket::error, &m_client, &HttpResponseClient::slotSockError);
    QObject::connect(&socket, &Socket::connected, &m_client, &HttpResponseClient::slotSockCanSend);
    QObject::connect(&socket, &Socket::sigCanSend, &m_client, &HttpResponseClient::slotSockCanSend);
    QObject::connect(&socket, &Socket::sigAllSent, &m_client, &HttpResponseClient::slotSockAllSent);
}

void HttpResponseClient::Private::begin(int socketDescriptor)
{
    m_state = eConnected;
    m_pTransport->begin(socketDescriptor);
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
        note(HttpFailure::eRefused, ErrorCodes::kNotConnected,
            QStringLiteral("there is no connection for this response"));
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
    m_pTransport->sendEndOfData();
    startLimit(kEndingMs);
    m_input.setStalled(PendingInput::eByOutput, false);
    m_input.release();
}

void HttpResponseClient::Private::dataReceived(const char* data, int size)
{
    m_nReceived += static_cast<quint64>(size);
    if (m_state != eEnding) {
        m_input.received(data, size);
        return;
    }
    m_nDiscarded += size;
    if (m_nDiscarded > kMaxDiscarded)
        lost(0);
}

// The peer sends no more, and may well wait for its answers.
void HttpResponseClient::Private::peerEnded(bool bAnnounced)
{
    if (m_state == eDisconnected || m_bInputEnded || m_input.hasEnded())
        return;
    m_bMayBeCut = !bAnnounced;
    if (isOpen())
        startLimit(kPeerEndedMs);
    m_input.ended(0);
}

void HttpResponseClient::Private::failed(int code)
{
    if (m_state == eEnding && m_pTransport->isTls()) {
        lost(0); // who left behind the last answer meets our close_notify with a reset
        return;
    }
    note(reasonOf(code, m_pTransport->isTls()), code, m_pTransport->problem());
    lost(code);
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

void HttpResponseClient::Private::disconnect()
{
    m_timer.stop();
    m_pTransport->close();
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

void HttpResponseClient::Private::note(HttpFailure::Reason reason, int code, const QString& text)
{
    if (m_failure.reason == HttpFailure::eNone)
        m_failure = {reason, code, text};
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
    : QObject(parent)
{
    auto transport = std::make_unique<AcceptedSocket<NuvikaTcpSocket>>(
        NuvikaTcpSocket::eMedium, NuvikaTcpSocket::eMedium, singleReceive);
    transport->socket().setSystemBuffers(buffers);
    d = std::make_unique<Private>(*this, std::move(transport));
    d->begin(socketDescriptor);
}

HttpResponseClient::HttpResponseClient(int socketDescriptor, SslProtocol protocol,
    const QString& certificateFileName, const QString& certificateFilePath, const QString& passPhrase,
    QObject* parent)
    : HttpResponseClient(socketDescriptor, protocol, certificateFileName, certificateFilePath, passPhrase,
        NuvikaTcpSocket::eAsProfile, parent)
{
}

HttpResponseClient::HttpResponseClient(int socketDescriptor, SslProtocol protocol,
    const QString& certificateFileName, const QString& certificateFilePath, const QString& passPhrase,
    NuvikaTcpSocket::SYSTEM_BUFFERS buffers, QObject* parent)
    : QObject(parent)
{
    auto transport = std::make_unique<AcceptedSocket<NuvikaSslSocket>>();
    transport->socket().setSystemBuffers(buffers);
    transport->socket().initSsl( // a failure is the connection's error()
        true, protocol, certificateFileName, certificateFilePath, passPhrase);
    d = std::make_unique<Private>(*this, std::move(transport));
    d->begin(socketDescriptor);
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

void HttpResponseClient::setTimeLimits(const HttpServerTimeLimits& limits) { d->setTimeLimits(limits); }

HttpFailure HttpResponseClient::failure() const { return d->failure(); }

QHostAddress HttpResponseClient::peerAddress() const { return d->transport().peerAddress(); }

unsigned short HttpResponseClient::peerPort() const { return d->transport().peerPort(); }

NuvikaSslSocket::PeerCertificate HttpResponseClient::peerCertificate() const
{
    return d->transport().peerCertificate();
}

void HttpResponseClient::slotSockDataReceived(
    const char* pData, int size, NuvikaTcpSocket::QueuedConnNotAllowed)
{
    d->dataReceived(pData, size);
}

void HttpResponseClient::slotSockDisconnected() { d->peerEnded(false); }

void HttpResponseClient::slotSockError(int errorCode) { d->failed(errorCode); }

void HttpResponseClient::slotSockCanSend() { d->canSend(); }

void HttpResponseClient::slotSockAllSent() { d->allSent(); }
