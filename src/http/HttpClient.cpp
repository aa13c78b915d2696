#include <KepNuvikaUtil/HttpClient.h>

#include "http/HttpClientBase_p.h"
#include "http/SocketTransport_p.h"

using namespace Nuvika;

class HttpClient::Private final : public HttpClientBase::Private
{
public:
    Private(const QString& host, unsigned short port, int nSendQueueHint) : m_socket(nSendQueueHint, false)
    {
        m_pTransport = std::make_unique<SocketTransport<NuvikaTcpSocketQueued>>(m_socket);
        m_pEngine = std::make_unique<HttpRequestEngine>("HttpClient", *m_pTransport, *this, host, port);
    }
    void cancelled(int id) override { emit static_cast<HttpClient*>(m_pClient)->requestCancelled(id); }

    NuvikaTcpSocketQueued m_socket;
};

HttpClient::HttpClient(const QString& host, unsigned short port, bool keepAlive, QObject* parent)
    : HttpClient(host, port, keepAlive, 0, parent)
{
}

HttpClient::HttpClient(
    const QString& host, unsigned short port, bool keepAlive, int sendQueueHint, QObject* parent)
    : HttpClientBase(std::make_unique<Private>(host, port, sendQueueHint), parent)
{
    m_bKeepAlive = keepAlive;
    const NuvikaTcpSocketQueued* socket = &data().m_socket;
    connect(socket, &NuvikaTcpSocketQueued::connected, this, &HttpClient::slotSockConnected);
    connect(socket, &NuvikaTcpSocketQueued::dataReceived, this, &HttpClient::slotSockDataReceived,
        Qt::DirectConnection);
    connect(socket, &NuvikaTcpSocketQueued::disconnected, this, &HttpClient::slotSockDisconnected);
    connect(socket, &NuvikaTcpSocketQueued::error, this, &HttpClient::slotSockError);
    connect(socket, &NuvikaTcpSocketQueued::sigAllSent, this, [this] { d->m_pEngine->allSent(); });
}

HttpClient::~HttpClient() { d->m_pEngine->shutdown(true); }

HttpClient::Private& HttpClient::data() const { return static_cast<Private&>(*d); }

void HttpClient::shutdown() { d->m_pEngine->shutdown(true); }

void HttpClient::setSystemBuffers(NuvikaTcpSocket::SYSTEM_BUFFERS buffers)
{
    data().m_socket.setSystemBuffers(buffers);
}

// --- the socket ----------------------------------------------------------------------------------------

void HttpClient::slotSockConnected() { d->m_pEngine->connected(); }

void HttpClient::slotSockDataReceived(const char* pData, int size, NuvikaTcpSocket::QueuedConnNotAllowed)
{
    d->m_pEngine->dataReceived(pData, size);
}

void HttpClient::slotSockDisconnected() { d->m_pEngine->disconnected(HttpRequestEngine::eAnnounced); }

void HttpClient::slotSockError(int errorCode)
{
    d->m_pEngine->socketError(errorCode, data().m_socket.errorString());
}
