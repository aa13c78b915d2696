#include <KepNuvikaUtil/HttpsClient.h>

#include "core/Log_p.h"
#include "http/HttpClientBase_p.h"
#include "http/SocketTransport_p.h"

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
} // namespace

class HttpsClient::Private final : public HttpClientBase::Private
{
public:
    void cancelled(int id) override { failed(id); }

    std::unique_ptr<NuvikaTcpSocketQueued> m_pSocket; // exactly one of these two
    std::unique_ptr<NuvikaSslSocket> m_pSslSocket;
};

HttpsClient::Private& HttpsClient::data() const { return static_cast<Private&>(*d); }

// --- the two modes ---------------------------------------------------------------------------------------

HttpsClient::HttpsClient(const QString& host, unsigned short port, bool keepAlive, QObject* parent)
    : HttpClientBase(std::make_unique<Private>(), parent)
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
    : HttpClientBase(std::make_unique<Private>(), parent), m_sslProtocol(protocol),
      m_certificateFileName(certificateFileName), m_certificateFilePath(certificateFilePath),
      m_passPhrase(passPhrase)
{
    prepareForSllMode(host, port, keepAlive, sendQueueHint);
}

HttpsClient::~HttpsClient() { d->m_pEngine->shutdown(false); }

void HttpsClient::prepareForNonSllMode(const QString& host, unsigned short port, bool keepAlive)
{
    data().m_pSocket = std::make_unique<NuvikaTcpSocketQueued>();
    NuvikaTcpSocketQueued* socket = data().m_pSocket.get();
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
    data().m_pSslSocket = std::make_unique<NuvikaSslSocket>(sendQueueHint);
    NuvikaSslSocket* socket = data().m_pSslSocket.get();
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
    NuvikaSslSocket& socket = *data().m_pSslSocket;
    socket.setCertificateVerificationMode(m_verifyMode);
    socket.setCertificateFileName(m_certificateFileName);
    socket.setCertificateFilePath(m_certificateFilePath);
    return socket.initSsl(false, m_sslProtocol, m_certificateFileName, m_certificateFilePath, m_passPhrase);
}

void HttpsClient::shutdownSsl()
{
    NUVIKA_DEBUG(lcHttp, "HttpsClient::shutdownSsl():");
    data().m_pSslSocket->close();
}

void HttpsClient::connectToHost(const QString& host, unsigned short port)
{
    if (!data().m_pSslSocket) {
        data().m_pSocket->connectToHost(host, port);
        return;
    }
    if (!initSsl()) // which the socket reports as its error
        NUVIKA_WARNING(lcHttp, "HttpsClient::connectToHost(): initSsl() failed");
    data().m_pSslSocket->connectToHost(host, port);
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

void HttpsClient::shutdown()
{
    d->m_pEngine->shutdown(false);
    if (data().m_pSslSocket)
        shutdownSsl();
}

bool HttpsClient::lastAnswerMayBeCut() const { return d->m_pEngine->mayAnswerBeCut(); }

NuvikaSslSocket::PeerCertificate HttpsClient::peerCertificate() const
{
    return data().m_pSslSocket ? data().m_pSslSocket->peerCertificate() : NuvikaSslSocket::PeerCertificate();
}

void HttpsClient::setSystemBuffers(NuvikaTcpSocket::SYSTEM_BUFFERS buffers)
{
    if (data().m_pSslSocket)
        data().m_pSslSocket->setSystemBuffers(buffers);
    else
        data().m_pSocket->setSystemBuffers(buffers);
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
    d->m_pEngine->socketError(errorCode,
        data().m_pSslSocket ? data().m_pSslSocket->errorString() : data().m_pSocket->errorString());
}
