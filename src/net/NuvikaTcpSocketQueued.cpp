#include <KepNuvikaUtil/NuvikaTcpSocketQueued.h>

#include "net/ChunkQueue_p.h"
#include "net/HalfClose_p.h"
#include "net/ProxyTunnel_p.h"
#include "net/ReceivePlacer_p.h"
#include "net/SendRoom_p.h"

#include <algorithm>
#include <utility>

using Nuvika::ChunkQueue;

NuvikaTcpSocketQueued::NuvikaTcpSocketQueued(int sendQueueHint, bool flag, QObject* parent)
    : QObject(parent), m_pSocket(std::make_unique<NuvikaTcpSocket>(
                           NuvikaTcpSocket::eMedium, NuvikaTcpSocket::eMedium, sendQueueHint, flag)),
      m_pQueue(std::make_unique<ChunkQueue>())
{
    NuvikaTcpSocket* socket = m_pSocket.get();
    connect(socket, &NuvikaTcpSocket::dataReceived, this, &NuvikaTcpSocketQueued::dataReceived);
    connect(socket, &NuvikaTcpSocket::connected, this, &NuvikaTcpSocketQueued::slotConnected);
    connect(socket, &NuvikaTcpSocket::disconnected, this, &NuvikaTcpSocketQueued::slotDisconnected);
    connect(socket, &NuvikaTcpSocket::error, this, &NuvikaTcpSocketQueued::slotError);
    connect(socket, &NuvikaTcpSocket::sigCanSend, this, &NuvikaTcpSocketQueued::slotCanSend);
    connect(socket, &NuvikaTcpSocket::sigAllSent, this, [this] {
        m_bTellAllSent = !m_pQueue->isEmpty(); // what was handed over since then waits behind
        if (!m_bTellAllSent)
            emit sigAllSent();
    });
}

NuvikaTcpSocketQueued::NuvikaTcpSocketQueued(bool flag, QObject* parent)
    : NuvikaTcpSocketQueued(0, flag, parent)
{
}

NuvikaTcpSocketQueued::~NuvikaTcpSocketQueued() = default;

void NuvikaTcpSocketQueued::connectToHost(const QString& host, unsigned short port)
{
    if (m_pTunnel && m_pTunnel->isWanted())
        m_pTunnel->connectTo(host, port);
    else
        m_pSocket->connectToHost(host, port);
}

void NuvikaTcpSocketQueued::connectToHost(const QHostAddress& address, unsigned short port)
{
    if (m_pTunnel && m_pTunnel->isWanted())
        m_pTunnel->connectTo(address.toString(), port);
    else
        m_pSocket->connectToHost(address, port);
}

void NuvikaTcpSocketQueued::setSocketDescriptor(int socket) { m_pSocket->setSocketDescriptor(socket); }

void NuvikaTcpSocketQueued::discardQueue()
{
    m_pQueue->clear();
    m_bEndOfData = false; // or a reused socket would end itself
    m_bFinished = false;
    m_bTellAllSent = false;
}

void NuvikaTcpSocketQueued::close()
{
    discardQueue();
    if (m_pTunnel)
        m_pTunnel->reset();
    m_pSocket->close();
}

bool NuvikaTcpSocketQueued::sendData(const char* data, int size)
{
    return !isSendLimitReached() && queue(data, size);
}

bool NuvikaTcpSocketQueued::queue(const char* data, int size)
{
    if (getState() != NuvikaTcpSocket::eConnected || m_bFinished || size < 0)
        return false;
    while (size > 0 && m_pQueue->isEmpty() && m_pSocket->canSend()) {
        const int piece = std::min(size, ChunkQueue::kChunkSize);
        if (!m_pSocket->sendData(data, piece))
            break;
        data += piece;
        size -= piece;
    }
    m_pQueue->append(data, size);
    watchSendLimit();
    return true;
}

void NuvikaTcpSocketQueued::slotCanSend()
{
    m_pQueue->drain([this] { return m_pSocket->canSend(); },
        [this](const char* data, int size) { m_pSocket->sendData(data, size); });
    if (m_bEndOfData && m_pQueue->isEmpty())
        finishSending();
    if (m_bTellAllSent && m_pQueue->isEmpty()) {
        m_bTellAllSent = false;
        if (!m_pSocket->notifyWhenAllSent()) {
            emit sigAllSent();
            return;
        }
    }
    if (canSend())
        emit sigCanSend();
    else
        watchSendLimit();
}

bool NuvikaTcpSocketQueued::canSend() const
{
    return !isTunnelInTheWay() && m_pQueue->isEmpty() && m_pSocket->canSend() && !isSendLimitReached();
}

// --- what waits to be sent -------------------------------------------------------------------------------

qint64 NuvikaTcpSocketQueued::bytesToSend() const { return m_pQueue->size() + m_pSocket->bytesToSend(); }

bool NuvikaTcpSocketQueued::isSendLimitReached() const
{
    return m_nSendLimit > 0 && bytesToSend() >= m_nSendLimit;
}

void NuvikaTcpSocketQueued::setSendLimit(qint64 bytes)
{
    m_nSendLimit = bytes;
    watchSendLimit();
}

// While the queue holds bytes, the socket's is full, and tells of its room anyway.
void NuvikaTcpSocketQueued::watchSendLimit()
{
    if (m_pQueue->isEmpty() && isSendLimitReached())
        Nuvika::SendRoom::tellBelow(*m_pSocket, m_nSendLimit);
}

bool Nuvika::SendRoom::sendPastLimit(NuvikaTcpSocketQueued& socket, const char* data, int size)
{
    return socket.queue(data, size);
}

bool NuvikaTcpSocketQueued::notifyWhenAllSent()
{
    m_bTellAllSent = !m_pQueue->isEmpty();
    return m_bTellAllSent || m_pSocket->notifyWhenAllSent();
}

void NuvikaTcpSocketQueued::finishSending()
{
    if (getState() != NuvikaTcpSocket::eConnected)
        return;
    m_bFinished = true;
    m_bEndOfData = !m_pQueue->isEmpty();
    if (!m_bEndOfData)
        m_pSocket->sendEndOfData();
}

void NuvikaTcpSocketQueued::sendEndOfData() { m_bEndOfData = true; }

bool NuvikaTcpSocketQueued::isDynamicDataQueueEmpty() const { return m_pQueue->isEmpty(); }

bool NuvikaTcpSocketQueued::isTunnelInTheWay() const { return m_pTunnel && m_pTunnel->isInTheWay(); }

void NuvikaTcpSocketQueued::slotConnected()
{
    if (isTunnelInTheWay())
        m_pTunnel->tcpConnected();
    else
        emit connected();
}

void NuvikaTcpSocketQueued::slotDisconnected()
{
    if (isTunnelInTheWay()) {
        m_pTunnel->tcpEnded(0);
        return;
    }
    discardQueue();
    emit disconnected();
}

void NuvikaTcpSocketQueued::slotError(int errorCode)
{
    if (isTunnelInTheWay()) {
        m_pTunnel->tcpEnded(errorCode); // and comes back
        return;
    }
    discardQueue();
    emit error(errorCode);
}

void Nuvika::ReceivePlacer::set(NuvikaTcpSocketQueued& socket, ReceivePlacer& placer)
{
    socket.m_pPlacer = &placer;
    if (socket.m_pTunnel)
        socket.m_pTunnel->setReader(&placer);
    else
        set(*socket.m_pSocket, placer);
}

NuvikaTcpSocket::STATE NuvikaTcpSocketQueued::getState()
{
    if (isTunnelInTheWay())
        return NuvikaTcpSocket::eConnecting;
    return m_pTunnel && m_pTunnel->hasFailed() ? NuvikaTcpSocket::eError : m_pSocket->getState();
}

QString NuvikaTcpSocketQueued::errorString()
{
    return m_pTunnel && m_pTunnel->hasFailed() ? m_pTunnel->problem() : m_pSocket->errorString();
}

void Nuvika::HalfClose::setHandler(NuvikaTcpSocketQueued& socket, std::function<void()> peerEnded)
{
    setHandler(*socket.m_pSocket, std::move(peerEnded));
}

quint64 Nuvika::HalfClose::bytesSent(const NuvikaTcpSocketQueued& socket)
{
    return bytesSent(*socket.m_pSocket);
}

QHostAddress NuvikaTcpSocketQueued::localAddress() { return m_pSocket->localAddress(); }
unsigned short NuvikaTcpSocketQueued::localPort() const { return m_pSocket->localPort(); }
QHostAddress NuvikaTcpSocketQueued::peerAddress() { return m_pSocket->peerAddress(); }
unsigned short NuvikaTcpSocketQueued::peerPort() const { return m_pSocket->peerPort(); }
const QString& NuvikaTcpSocketQueued::peerName() const { return m_pSocket->peerName(); }
void NuvikaTcpSocketQueued::stallRecv() { m_pSocket->stallRecv(); }
void NuvikaTcpSocketQueued::resumeRecv() { m_pSocket->resumeRecv(); }
bool NuvikaTcpSocketQueued::hasPendingInput() const { return m_pSocket->hasPendingInput(); }

void NuvikaTcpSocketQueued::setSystemBuffers(NuvikaTcpSocket::SYSTEM_BUFFERS buffers)
{
    m_pSocket->setSystemBuffers(buffers);
}

void NuvikaTcpSocketQueued::setKeepAlive(bool on, int idleSeconds, int intervalSeconds, int probes)
{
    m_pSocket->setKeepAlive(on, idleSeconds, intervalSeconds, probes);
}

void NuvikaTcpSocketQueued::setNoDelay(bool on) { m_pSocket->setNoDelay(on); }

void NuvikaTcpSocketQueued::setConnectTimeLimit(int ms)
{
    m_nConnectTimeLimit = ms;
    m_pSocket->setConnectTimeLimit(ms);
}
