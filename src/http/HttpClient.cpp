#include <KepNuvikaUtil/HttpClient.h>

#include "core/Log_p.h"
#include "http/HttpRequestEngine_p.h"
#include "http/QueuedTransport_p.h"

using namespace Nuvika;
using Marker = NuvikaTcpSocket::QueuedConnNotAllowed;

// Turns the engine's reports into signals.
class HttpClient::Private final : public HttpRequestListener
{
public:
    Private(HttpClient& client, const QString& host, unsigned short port, int nSendQueueHint)
        : m_client(client), socket(nSendQueueHint, false), transport(socket),
          engine("HttpClient", transport, *this, host, port)
    {
    }

    void responseHeader(int id, const HttpResponseHeader& header) override
    {
        emit m_client.responseHeaderReceived(id, header);
    }
    void finished(int id, const HttpResponseHeader& header, const char* content, int size) override
    {
        emit m_client.requestFinished(id, header, content, size, Marker());
    }
    void failed(int id) override { emit m_client.requestFailed(id); }
    void cancelled(int id) override { emit m_client.requestCancelled(id); }
    void part(int id, const HttpResponseHeader& header, const char* type, const char* data, int size) override
    {
        emit m_client.multipartReplaceContent(id, header, type, data, size, Marker());
    }
    void chunk(int id, const HttpResponseHeader& header, const char* data, int size) override
    {
        emit m_client.contentChunk(id, header, data, size, Marker());
    }
    void socketError(int code) override { emit m_client.error(code); }
    void uploadEnded() override { emit m_client.sendEndOfUploadContentFinished(); }

private:
    HttpClient& m_client;

public:
    NuvikaTcpSocketQueued socket;
    QueuedTransport transport;
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
}

HttpClient::~HttpClient() { d->engine.shutdown(true); }

// --- requests ------------------------------------------------------------------------------------------

HttpRequestHeader HttpClient::makeHeader(const char* method, const QString& path) const
{
    HttpRequestHeader header(QString::fromLatin1(method), path);
    header.addValue(QStringLiteral("Host"), d->engine.hostField());
    return header;
}

namespace
{
void addConnection(HttpRequestHeader& header, bool bKeepAlive)
{
    header.addValue(
        QStringLiteral("Connection"), bKeepAlive ? QStringLiteral("keep-alive") : QStringLiteral("close"));
    if (bKeepAlive)
        header.addValue(QStringLiteral("Keep-Alive"), QStringLiteral("300"));
}

void addContent(HttpRequestHeader& header, const QString& type, int size)
{
    header.addValue(QStringLiteral("Content-Type"), type);
    header.addValue(QStringLiteral("Content-Length"), QString::number(size));
    header.addValue(QStringLiteral("Accept-Encoding"), QStringLiteral("identity"));
}
} // namespace

int HttpClient::send(
    const HttpRequestHeader& header, const QByteArray& content, const QString& user, const QString& password)
{
    const SharedPoolBuffer body = content.isEmpty() ? SharedPoolBuffer() : d->engine.bodyBuffer(content);
    return d->engine.request(header, false, &body, user, password, 0);
}

int HttpClient::request(const HttpRequestHeader& header, bool stream, const SharedPoolBuffer* body,
    const QString& user, const QString& password, int authMode)
{
    return d->engine.request(header, stream, body, user, password, authMode);
}

int HttpClient::get(const QString& path, const QString& user, const QString& password, bool keepAlive)
{
    HttpRequestHeader header = makeHeader("GET", path);
    addConnection(header, keepAlive && m_bKeepAlive);
    return send(header, QByteArray(), user, password);
}

int HttpClient::plainPost(const QString& path, const QByteArray& content, const QString& user,
    const QString& password, bool keepAlive)
{
    HttpRequestHeader header = makeHeader("POST", path);
    header.addValue(QStringLiteral("Cache-Control"), QStringLiteral("no-cache"));
    header.setContentLength(content.size());
    if (!keepAlive || !m_bKeepAlive)
        addConnection(header, false);
    return send(header, content, user, password);
}

int HttpClient::put(const QString& path, const QByteArray& content, const QString& user,
    const QString& password, bool keepAlive, const QString& contentType)
{
    HttpRequestHeader header = makeHeader("PUT", path);
    addContent(header, contentType, content.size());
    addConnection(header, keepAlive && m_bKeepAlive);
    return send(header, content, user, password);
}

int HttpClient::soapRequest(const QString& path, const QString& action, const QByteArray& content,
    const QString& user, const QString& password, bool keepAlive)
{
    NUVIKA_DEBUG(lcHttp, "HttpClient::soapRequest: path='%s' / action='%s' content='%s'",
        qUtf8Printable(path), qUtf8Printable(action), content.constData());
    HttpRequestHeader header = makeHeader("POST", path);
    const QString type
        = QLatin1String("application/soap+xml; charset=utf-8; action=\"") + action + QLatin1Char('"');
    addContent(header, type, content.size());
    addConnection(header, keepAlive && m_bKeepAlive);
    return send(header, content, user, password);
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

// --- the socket ----------------------------------------------------------------------------------------

void HttpClient::slotSockConnected() { d->engine.connected(); }

void HttpClient::slotSockDataReceived(const char* pData, int size, NuvikaTcpSocket::QueuedConnNotAllowed)
{
    d->engine.dataReceived(pData, size);
}

void HttpClient::slotSockDisconnected() { d->engine.disconnected(); }

void HttpClient::slotSockError(int errorCode) { d->engine.socketError(errorCode); }
