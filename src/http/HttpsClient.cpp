#include <KepNuvikaUtil/HttpsClient.h>

#include "core/Log_p.h"
#include "http/HttpRequests_p.h"
#include "http/HttpSignals_p.h"
#include "http/SocketTransport_p.h"

#include <cstdlib>
#include <functional>

using namespace Nuvika;

namespace
{
using Connect = std::function<void(const QString&, unsigned short)>;

// Connecting is the client's business.
template <class Socket>
class ClientTransport final : public SocketTransport<Socket>
{
public:
    ClientTransport(Socket& socket, Connect connect)
        : SocketTransport<Socket>(socket), m_connect(std::move(connect))
    {
    }
    void connectToHost(const QString& host, unsigned short port) override { m_connect(host, port); }

private:
    Connect m_connect;
};

const QString& jsonType()
{
    static const QString type = QStringLiteral("application/json");
    return type;
}
} // namespace

class HttpsClient::Private final : public HttpSignals<HttpsClient>
{
public:
    using HttpSignals::HttpSignals;

    std::unique_ptr<NuvikaTcpSocketQueued> m_pSocket; // exactly one of these two
    std::unique_ptr<NuvikaSslSocket> m_pSslSocket;
    std::unique_ptr<HttpTransport> m_pTransport;
    std::unique_ptr<HttpRequestEngine> m_pEngine;
};

// --- the two modes ---------------------------------------------------------------------------------------

HttpsClient::HttpsClient(const QString& host, unsigned short port, bool keepAlive, QObject* parent)
    : QObject(parent), d(std::make_unique<Private>(*this))
{
    prepareForNonSllMode(host, port, keepAlive);
}

HttpsClient::HttpsClient(const QString& host, unsigned short port, bool keepAlive, SslProtocol protocol,
    const QString& certificateFileName, const QString& certificateFilePath, const QString& passPhrase,
    QObject* parent)
    : HttpsClient(
        host, port, keepAlive, 0, protocol, certificateFileName, certificateFilePath, passPhrase, parent)
{
}

HttpsClient::HttpsClient(const QString& host, unsigned short port, bool keepAlive, int sendQueueHint,
    SslProtocol protocol, const QString& certificateFileName, const QString& certificateFilePath,
    const QString& passPhrase, QObject* parent)
    : QObject(parent), m_sslProtocol(protocol), m_certificateFileName(certificateFileName),
      m_certificateFilePath(certificateFilePath), m_passPhrase(passPhrase),
      d(std::make_unique<Private>(*this))
{
    prepareForSllMode(host, port, keepAlive, sendQueueHint);
}

HttpsClient::~HttpsClient() { d->m_pEngine->shutdown(false); }

void HttpsClient::prepareForNonSllMode(const QString& host, unsigned short port, bool keepAlive)
{
    d->m_pSocket = std::make_unique<NuvikaTcpSocketQueued>();
    NuvikaTcpSocketQueued* socket = d->m_pSocket.get();
    connect(socket, &NuvikaTcpSocketQueued::connected, this, &HttpsClient::slotSockConnected);
    connect(socket, &NuvikaTcpSocketQueued::dataReceived, this, &HttpsClient::slotSockDataReceived,
        Qt::DirectConnection);
    connect(
        socket, &NuvikaTcpSocketQueued::disconnected, this, qOverload<>(&HttpsClient::slotSockDisconnected));
    connect(socket, &NuvikaTcpSocketQueued::error, this, &HttpsClient::slotSockError);
    connect(socket, &NuvikaTcpSocketQueued::sigAllSent, this, [this] { d->m_pEngine->allSent(); });
    d->m_pTransport = std::make_unique<ClientTransport<NuvikaTcpSocketQueued>>(
        *socket, [this](const QString& name, unsigned short number) { connectToHost(name, number); });
    prepareForAllModes(host, port, keepAlive);
}

void HttpsClient::prepareForSllMode(
    const QString& host, unsigned short port, bool keepAlive, int sendQueueHint)
{
    d->m_pSslSocket = std::make_unique<NuvikaSslSocket>(sendQueueHint);
    NuvikaSslSocket* socket = d->m_pSslSocket.get();
    connect(socket, &NuvikaSslSocket::connected, this, &HttpsClient::slotSockConnected);
    connect(socket, &NuvikaSslSocket::dataReceived, this, &HttpsClient::slotSockDataReceived,
        Qt::DirectConnection);
    connect(socket, &NuvikaSslSocket::disconnected, this,
        qOverload<unsigned long>(&HttpsClient::slotSockDisconnected));
    connect(socket, &NuvikaSslSocket::error, this, &HttpsClient::slotSockError);
    connect(socket, &NuvikaSslSocket::sigAllSent, this, [this] { d->m_pEngine->allSent(); });
    d->m_pTransport = std::make_unique<ClientTransport<NuvikaSslSocket>>(
        *socket, [this](const QString& name, unsigned short number) { connectToHost(name, number); });
    prepareForAllModes(host, port, keepAlive);
}

void HttpsClient::prepareForAllModes(const QString& host, unsigned short port, bool keepAlive)
{
    m_bKeepAlive = keepAlive;
    d->m_pEngine = std::make_unique<HttpRequestEngine>("HttpsClient", *d->m_pTransport, *d, host, port);
}

bool HttpsClient::initSsl()
{
    NUVIKA_DEBUG(lcHttp, "HttpsClient::initSsl(): protocol=%d", static_cast<int>(m_sslProtocol));
    NuvikaSslSocket& socket = *d->m_pSslSocket;
    socket.setCertificateVerificationMode(m_verifyMode);
    socket.setCertificateFileName(m_certificateFileName);
    socket.setCertificateFilePath(m_certificateFilePath);
    return socket.initSsl(false, m_sslProtocol, m_certificateFileName, m_certificateFilePath, m_passPhrase);
}

void HttpsClient::shutdownSsl()
{
    NUVIKA_DEBUG(lcHttp, "HttpsClient::shutdownSsl():");
    d->m_pSslSocket->close();
}

void HttpsClient::connectToHost(const QString& host, unsigned short port)
{
    if (!d->m_pSslSocket) {
        d->m_pSocket->connectToHost(host, port);
        return;
    }
    if (!initSsl()) // which the socket reports as its error
        NUVIKA_WARNING(lcHttp, "HttpsClient::connectToHost(): initSsl() failed");
    d->m_pSslSocket->connectToHost(host, port);
}

void HttpsClient::setCertificateFileName(const QString& certificateFileName)
{
    m_certificateFileName = certificateFileName;
}

void HttpsClient::setCertificateFilePath(const QString& certificateFilePath)
{
    m_certificateFilePath = certificateFilePath;
}

void HttpsClient::setCertificateVerificationMode(SslVerifyCertificateMode mode) { m_verifyMode = mode; }

// --- requests --------------------------------------------------------------------------------------------

int HttpsClient::request(const HttpRequestHeader& header, bool stream, const SharedPoolBuffer* body,
    const QString& user, const QString& password, int authMode)
{
    return d->m_pEngine->request(header, stream, body, user, password, authMode);
}

int HttpsClient::get(const QString& path, const QString& user, const QString& password, bool keepAlive)
{
    return getWithHeaderFields(path, {}, user, password, keepAlive);
}

int HttpsClient::getJSON(const QString& path, const QString& user, const QString& password, bool keepAlive)
{
    return getWithHeaderFields(path, {{QStringLiteral("Accept"), jsonType()}}, user, password, keepAlive);
}

int HttpsClient::getWithHeaderFields(const QString& path, const QMap<QString, QString>& fields,
    const QString& user, const QString& password, bool keepAlive)
{
    const QString host = d->m_pEngine->hostField();
    HttpRequestHeader header = HttpRequests::get(path, host, keepAlive && m_bKeepAlive);
    for (auto field = fields.begin(); field != fields.end(); ++field)
        header.setValue(field.key(), field.value());
    return d->m_pEngine->request(header, QByteArray(), user, password);
}

int HttpsClient::plainPost(const QString& path, const QByteArray& content, const QString& user,
    const QString& password, bool keepAlive)
{
    const QString host = d->m_pEngine->hostField();
    return d->m_pEngine->request(
        HttpRequests::plainPost(path, host, content.size(), keepAlive && m_bKeepAlive), content, user,
        password);
}

int HttpsClient::sendJSON(const char* method, const QString& path, const QByteArray& json,
    const QString& user, const QString& password, bool keepAlive)
{
    HttpRequestHeader header = HttpRequests::make(method, path, d->m_pEngine->hostField());
    header.addValue(QStringLiteral("Accept"), jsonType());
    header.addValue(QStringLiteral("Cache-Control"), QStringLiteral("no-cache"));
    header.setContentType(jsonType());
    header.setContentLength(json.size());
    if (!keepAlive || !m_bKeepAlive)
        HttpRequests::addConnection(header, false);
    return d->m_pEngine->request(header, json, user, password);
}

int HttpsClient::postJSON(
    const QString& path, const QByteArray& json, const QString& user, const QString& password, bool keepAlive)
{
    return sendJSON("POST", path, json, user, password, keepAlive);
}

int HttpsClient::putJSON(
    const QString& path, const QByteArray& json, const QString& user, const QString& password, bool keepAlive)
{
    return sendJSON("PUT", path, json, user, password, keepAlive);
}

int HttpsClient::soapRequest(const QString& path, const QString& action, const QByteArray& content,
    const QString& user, const QString& password, bool keepAlive)
{
    NUVIKA_DEBUG(lcHttp, "HttpsClient::soapRequest: path='%s' / action='%s' content='%s'",
        qUtf8Printable(path), qUtf8Printable(action), content.constData());
    const QString host = d->m_pEngine->hostField();
    return d->m_pEngine->request(
        HttpRequests::soap(path, host, action, content.size(), keepAlive && m_bKeepAlive), content, user,
        password);
}

int HttpsClient::postMultipartFormData(const QString& path, const QByteArray& content,
    const QString& disposition, const QString& contentType, const QString& user, const QString& password)
{
    QString problem = HttpRequests::problemOfText("the disposition", disposition);
    if (problem.isEmpty())
        problem = HttpRequests::problemOfText("the part's content type", contentType);
    if (!problem.isEmpty())
        return d->m_pEngine->refuse(problem);
    const QByteArray boundary = "----------------nuvika" + QByteArray::number(std::rand() % 100000);
    const QByteArray body = "--" + boundary + "\r\nContent-Disposition: form-data; " + disposition.toUtf8()
        + "\r\nContent-Type: " + contentType.toUtf8() + "\r\n\r\n" + content + "\r\n--" + boundary + "--\r\n";
    HttpRequestHeader header(QStringLiteral("POST"), path);
    header.addValue(QStringLiteral("Cache-Control"), QStringLiteral("no-cache"));
    header.addValue(QStringLiteral("Host"), d->m_pEngine->hostField());
    header.addValue(QStringLiteral("Content-Type"),
        QLatin1String("multipart/form-data; boundary=") + QLatin1String(boundary));
    header.addValue(QStringLiteral("Accept"), QStringLiteral("*/*"));
    header.setContentLength(body.size());
    // The line end in the value is wanted: the head ends there, and the body begins with an empty line.
    header.addValue(QStringLiteral("Connection"), QStringLiteral("Keep-Alive\r\n"));
    return d->m_pEngine->request(header, body, user, password);
}

bool HttpsClient::sendUploadContentChunk(int id, const char* data, int size, bool last)
{
    return d->m_pEngine->sendUploadContentChunk(id, data, size, last);
}

void HttpsClient::sendEndOfUploadContent() { d->m_pEngine->sendEndOfUploadContent(); }

int HttpsClient::numOfPendingRequests() const { return d->m_pEngine->numOfPendingRequests(); }

void HttpsClient::discardNonePendingRequest(int id) { d->m_pEngine->discardNonePendingRequest(id); }

void HttpsClient::shutdown()
{
    d->m_pEngine->shutdown(false);
    if (d->m_pSslSocket)
        shutdownSsl();
}

void HttpsClient::setReadLimits(const HttpReadLimits& limits) { d->m_pEngine->setLimits(limits); }

QHostAddress HttpsClient::lastLocalAddress() const { return d->m_pEngine->lastLocalAddress(); }

QHostAddress HttpsClient::lastPeerAddress() const { return d->m_pEngine->lastPeerAddress(); }

bool HttpsClient::lastAnswerMayBeCut() const { return d->m_pEngine->mayAnswerBeCut(); }

QString HttpsClient::errorString() const { return d->m_pEngine->problem(); }

NuvikaSslSocket::PeerCertificate HttpsClient::peerCertificate() const
{
    return d->m_pSslSocket ? d->m_pSslSocket->peerCertificate() : NuvikaSslSocket::PeerCertificate();
}

void HttpsClient::setSystemBuffers(NuvikaTcpSocket::SYSTEM_BUFFERS buffers)
{
    if (d->m_pSslSocket)
        d->m_pSslSocket->setSystemBuffers(buffers);
    else
        d->m_pSocket->setSystemBuffers(buffers);
}

// --- the socket ------------------------------------------------------------------------------------------

void HttpsClient::slotSockConnected() { d->m_pEngine->connected(); }

void HttpsClient::slotSockDataReceived(const char* pData, int size, NuvikaTcpSocket::QueuedConnNotAllowed)
{
    d->m_pEngine->dataReceived(pData, size);
}

void HttpsClient::slotSockDisconnected() { slotSockDisconnected(0); }

void HttpsClient::slotSockDisconnected(unsigned long unannounced)
{
    d->m_pTransport->close();
    d->m_pEngine->disconnected(
        unannounced == 0 ? HttpRequestEngine::eAnnounced : HttpRequestEngine::eUnannounced);
}

void HttpsClient::slotSockError(int errorCode)
{
    d->m_pEngine->socketError(
        errorCode, d->m_pSslSocket ? d->m_pSslSocket->errorString() : d->m_pSocket->errorString());
}
