#include <KepNuvikaUtil/HttpClient.h>

#include "core/Log_p.h"
#include "http/HttpRequests_p.h"
#include "http/HttpSignals_p.h"
#include "http/SocketTransport_p.h"

using namespace Nuvika;

class HttpClient::Private final : public HttpSignals<HttpClient>
{
public:
    Private(HttpClient& client, const QString& host, unsigned short port, int nSendQueueHint)
        : HttpSignals(client), socket(nSendQueueHint, false), transport(socket),
          engine("HttpClient", transport, *this, host, port)
    {
    }
    void cancelled(int id) override { emit m_client.requestCancelled(id); }

    NuvikaTcpSocketQueued socket;
    SocketTransport<NuvikaTcpSocketQueued> transport;
    HttpRequestEngine engine;
};

HttpClient::HttpClient(const QString& host, unsigned short port, bool keepAlive, QObject* parent)
    : HttpClient(host, port, keepAlive, 0, parent)
{
}

HttpClient::HttpClient(
    const QString& host, unsigned short port, bool keepAlive, int sendQueueHint, QObject* parent)
    : QObject(parent), m_bKeepAlive(keepAlive), d(std::make_unique<Private>(*this, host, port, sendQueueHint))
{
    const NuvikaTcpSocketQueued* socket = &d->socket;
    connect(socket, &NuvikaTcpSocketQueued::connected, this, &HttpClient::slotSockConnected);
    connect(socket, &NuvikaTcpSocketQueued::dataReceived, this, &HttpClient::slotSockDataReceived,
        Qt::DirectConnection);
    connect(socket, &NuvikaTcpSocketQueued::disconnected, this, &HttpClient::slotSockDisconnected);
    connect(socket, &NuvikaTcpSocketQueued::error, this, &HttpClient::slotSockError);
    connect(socket, &NuvikaTcpSocketQueued::sigAllSent, this, [this] { d->engine.allSent(); });
}

HttpClient::~HttpClient() { d->engine.shutdown(true); }

// --- requests ------------------------------------------------------------------------------------------

int HttpClient::request(const HttpRequestHeader& header, bool stream, const SharedPoolBuffer* body,
    const QString& user, const QString& password, int authMode)
{
    return d->engine.request(header, stream, body, user, password, authMode);
}

int HttpClient::get(const QString& path, const QString& user, const QString& password, bool keepAlive)
{
    const QString host = d->engine.hostField();
    return d->engine.request(
        HttpRequests::get(path, host, keepAlive && m_bKeepAlive), QByteArray(), user, password);
}

int HttpClient::plainPost(const QString& path, const QByteArray& content, const QString& user,
    const QString& password, bool keepAlive)
{
    const QString host = d->engine.hostField();
    return d->engine.request(HttpRequests::plainPost(path, host, content.size(), keepAlive && m_bKeepAlive),
        content, user, password);
}

int HttpClient::put(const QString& path, const QByteArray& content, const QString& user,
    const QString& password, bool keepAlive, const QString& contentType)
{
    HttpRequestHeader header = HttpRequests::make("PUT", path, d->engine.hostField());
    HttpRequests::addContent(header, contentType, content.size());
    HttpRequests::addConnection(header, keepAlive && m_bKeepAlive);
    return d->engine.request(header, content, user, password);
}

int HttpClient::soapRequest(const QString& path, const QString& action, const QByteArray& content,
    const QString& user, const QString& password, bool keepAlive)
{
    NUVIKA_DEBUG(lcHttp, "HttpClient::soapRequest: path='%s' / action='%s' content='%s'",
        qUtf8Printable(path), qUtf8Printable(action), content.constData());
    const QString host = d->engine.hostField();
    return d->engine.request(
        HttpRequests::soap(path, host, action, content.size(), keepAlive && m_bKeepAlive), content, user,
        password);
}

bool HttpClient::sendUploadContentChunk(int id, const char* data, int size, bool last)
{
    return d->engine.sendUploadContentChunk(id, data, size, last);
}

void HttpClient::sendEndOfUploadContent() { d->engine.sendEndOfUploadContent(); }

int HttpClient::numOfPendingRequests() const { return d->engine.numOfPendingRequests(); }

void HttpClient::discardNonePendingRequest(int id) { d->engine.discardNonePendingRequest(id); }

void HttpClient::shutdown() { d->engine.shutdown(true); }

void HttpClient::setReadLimits(const HttpReadLimits& limits) { d->engine.setLimits(limits); }

QHostAddress HttpClient::lastLocalAddress() const { return d->engine.lastLocalAddress(); }

QHostAddress HttpClient::lastPeerAddress() const { return d->engine.lastPeerAddress(); }

QString HttpClient::errorString() const { return d->engine.problem(); }

void HttpClient::setSystemBuffers(NuvikaTcpSocket::SYSTEM_BUFFERS buffers)
{
    d->socket.setSystemBuffers(buffers);
}

// --- the socket ----------------------------------------------------------------------------------------

void HttpClient::slotSockConnected() { d->engine.connected(); }

void HttpClient::slotSockDataReceived(const char* pData, int size, NuvikaTcpSocket::QueuedConnNotAllowed)
{
    d->engine.dataReceived(pData, size);
}

void HttpClient::slotSockDisconnected() { d->engine.disconnected(HttpRequestEngine::eAnnounced); }

void HttpClient::slotSockError(int errorCode) { d->engine.socketError(errorCode, d->socket.errorString()); }
