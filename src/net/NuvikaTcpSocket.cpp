#include <KepNuvikaUtil/NuvikaTcpSocket.h>

#include <KepNuvikaUtil/SocketCalls.h>
#include <KepNuvikaUtil/SocketError.h>

#include "core/Log_p.h"
#include "net/DirectSocketCalls_p.h"
#include "net/HalfClose_p.h"
#include "net/NuvikaTcpSocketAsyncHelper_p.h"
#include "net/NuvikaTcpSocketConnect_p.h"
#include "net/NuvikaTcpSocketEvents_p.h"
#include "net/NuvikaTcpSocketIO_p.h"
#include "net/OwnerThread_p.h"
#include "net/ReceivePlacer_p.h"
#include "net/SendRoom_p.h"
#include "net/SocketAddress_p.h"
#include "platform/Clock_p.h"

#include <utility>

using namespace Nuvika;

NuvikaTcpSocket::NuvikaTcpSocket(
    LOAD_PROFILE sendProfile, LOAD_PROFILE recvProfile, bool flag, QObject* parent)
    : NuvikaTcpSocket(sendProfile, recvProfile, 0, flag, parent)
{
}

NuvikaTcpSocket::NuvikaTcpSocket(
    LOAD_PROFILE sendProfile, LOAD_PROFILE recvProfile, int sendQueueHint, bool flag, QObject* parent)
    : QObject(parent), m_sendProfile(sendProfile), m_recvProfile(recvProfile),
      m_nSendQueueHint(sendQueueHint), m_pAsyncHelper(new NuvikaTcpSocketAsyncHelper(this)),
      m_currentThreadId(QThread::currentThreadId()), m_bSingleReceive(flag)
{
    connect(m_pAsyncHelper, &NuvikaTcpSocketAsyncHelper::emitCanSend, this,
        &NuvikaTcpSocket::emitCanSendAsync, Qt::QueuedConnection);
}

NuvikaTcpSocket::~NuvikaTcpSocket()
{
    NUVIKA_ASSERT_OWNER_THREAD();
    releaseConnection();
}

// --- connection ----------------------------------------------------------------------------------------

bool NuvikaTcpSocket::prepareConnect(const QString& host, unsigned short port)
{
    NUVIKA_ASSERT_OWNER_THREAD();
    if (m_state != eUnconnected) {
        NUVIKA_WARNING(lcNet, "NuvikaTcpSocket::connectToHost() failed; invalid state");
        return false;
    }
    m_peerName = QStringLiteral("%1:%2").arg(host, QString::number(port));
    NUVIKA_ASSERT(m_pConnect == 0);
    m_pConnect = new NuvikaTcpSocketConnect(m_sendProfile, m_recvProfile, m_systemBuffers, this);
    connect(m_pConnect, &NuvikaTcpSocketConnect::connected, this, &NuvikaTcpSocket::slotConnected);
    connect(m_pConnect, &NuvikaTcpSocketConnect::error, this, &NuvikaTcpSocket::slotError);
    m_pConnect->setTimeLimit(m_nConnectTimeLimit);
    m_state = eConnecting;
    return true;
}

void NuvikaTcpSocket::connectToHost(const QString& host, unsigned short port)
{
    if (prepareConnect(host, port))
        m_pConnect->connectToHost(host, port);
}

void NuvikaTcpSocket::connectToHost(const QHostAddress& address, unsigned short port)
{
    if (prepareConnect(address.toString(), port))
        m_pConnect->connectToHost(address, port);
}

// A peer that has reset already has no name: nothing of an earlier connection may stand for it.
void NuvikaTcpSocket::readAddresses(int socket)
{
    m_localAddress.clear();
    m_peerAddress.clear();
    m_nLocalPort = 0;
    m_nPeerPort = 0;
    NuvikaLLSock::ADDR_V4_V6 name{};
    int length = sizeof name;
    if (DirectCalls::localName(socket, &name, &length) == 0)
        readSockAddr(name, &m_localAddress, &m_nLocalPort);
    name = {};
    length = sizeof name;
    if (Sockets::peerName(socket, &name, &length) == 0)
        readSockAddr(name, &m_peerAddress, &m_nPeerPort);
}

void NuvikaTcpSocket::setSocketDescriptor(int socket)
{
    NUVIKA_ASSERT_OWNER_THREAD();
    if (m_state != eUnconnected) {
        NUVIKA_WARNING(lcNet, "NuvikaTcpSocket::setSocketDescriptor() failed: invalid state");
        return;
    }
    readAddresses(socket);
    NUVIKA_ASSERT(m_pIOSocket == 0);
    m_pIOSocket = new NuvikaTcpSocketIO(this, socket, m_sendProfile, m_recvProfile, m_systemBuffers,
        m_nSendQueueHint, m_bSingleReceive, m_bRecvStalled);
    m_state = eConnected;
    if (m_keepAlive.bOn)
        applyKeepAlive();
    if (!m_bNoDelay)
        applyNoDelay();
    emitCanSend();
}

void NuvikaTcpSocket::releaseConnection()
{
    ++m_nSession;
    delete m_pConnect;
    m_pConnect = nullptr;
    if (m_pIOSocket != nullptr) {
        NuvikaTcpSocketIO* engine = m_pIOSocket;
        m_pIOSocket = nullptr;
        engine->detach();
    }
}

void NuvikaTcpSocket::close()
{
    NUVIKA_ASSERT_OWNER_THREAD();
    releaseConnection();
    m_nError = 0;
    m_problem.clear();
    m_state = eUnconnected;
}

void NuvikaTcpSocket::errorClose(int errorCode)
{
    close();
    m_state = eError;
    m_nError = errorCode;
}

void NuvikaTcpSocket::slotConnected(int socketDescriptor)
{
    if (m_state != eConnecting)
        return;
    delete m_pConnect;
    m_pConnect = nullptr;
    m_state = eUnconnected;
    setSocketDescriptor(socketDescriptor);
    if (m_nFirstFailure != 0) {
        const quint32 seconds = (Clock::monotonicMs() - m_nFirstFailure) / 1000;
        NUVIKA_WARNING(lcNet,
            "NuvikaTcpSocket::slotConnected(): connection to %s established after error. Timespan: %d "
            "seconds",
            qUtf8Printable(m_peerName), static_cast<int>(seconds));
        m_nFirstFailure = 0;
    }
    emit connected();
}

void NuvikaTcpSocket::slotError(int errorCode)
{
    if (m_state == eConnecting && m_nFirstFailure == 0) {
        m_nFirstFailure = qMax(Clock::monotonicMs(), 1U); // 0 stands for none
        NUVIKA_WARNING(lcNet, "NuvikaTcpSocket::slotError(): connecting to %s failed: %s",
            qUtf8Printable(m_peerName), qUtf8Printable(SocketError::format(errorCode)));
    }
    if (m_pConnect != nullptr && m_pConnect->isTimeOver())
        m_problem = QStringLiteral("no connection to %1 was made within %2 ms")
                        .arg(m_peerName, QString::number(m_nConnectTimeLimit));
    releaseConnection();
    if (m_state == eUnconnected || m_state == eError)
        return;
    m_state = eError;
    m_nError = errorCode;
    emit error(errorCode);
}

void NuvikaTcpSocket::slotDisconnected()
{
    if (m_peerEnded && m_state == eConnected) {
        const std::function<void()> peerEnded = m_peerEnded; // may destroy this socket
        peerEnded();
        return;
    }
    releaseConnection();
    if (m_state == eUnconnected || m_state == eError)
        return;
    m_state = eUnconnected;
    m_nError = 0;
    emit disconnected();
}

// --- transfer ------------------------------------------------------------------------------------------

bool NuvikaTcpSocket::sendData(const char* data, int size)
{
    NUVIKA_ASSERT_OWNER_THREAD();
    return m_pIOSocket != nullptr && m_pIOSocket->sendData(data, size);
}

bool NuvikaTcpSocket::sendData(const KepNuvikaUtil::BUFFER* buffer, int count)
{
    NUVIKA_ASSERT_OWNER_THREAD();
    return m_pIOSocket != nullptr && m_pIOSocket->sendData(buffer, count);
}

bool NuvikaTcpSocket::sendEndOfData()
{
    NUVIKA_ASSERT_OWNER_THREAD();
    return m_pIOSocket != nullptr && m_pIOSocket->sendEndOfData();
}

bool NuvikaTcpSocket::canSend() const
{
    NUVIKA_ASSERT_OWNER_THREAD();
    return m_state == eConnected && m_pIOSocket != nullptr && !m_pIOSocket->isFull();
}

bool NuvikaTcpSocket::notifyWhenAllSent()
{
    NUVIKA_ASSERT_OWNER_THREAD();
    if (m_pIOSocket == nullptr || m_pIOSocket->isAllSent())
        return false;
    m_pIOSocket->tellWhenAllSent();
    return true;
}

bool NuvikaTcpSocket::hasPendingInput() const
{
    NUVIKA_ASSERT_OWNER_THREAD();
    return m_pIOSocket != nullptr && m_pIOSocket->hasPendingInput();
}

void NuvikaTcpSocket::stallRecv()
{
    NUVIKA_ASSERT_OWNER_THREAD();
    m_bRecvStalled = true;
    if (m_pIOSocket != nullptr)
        m_pIOSocket->stallRecv();
}

void NuvikaTcpSocket::resumeRecv()
{
    NUVIKA_ASSERT_OWNER_THREAD();
    m_bRecvStalled = false;
    if (m_pIOSocket != nullptr)
        m_pIOSocket->resumeRecv();
}

// --- settings ------------------------------------------------------------------------------------------

void NuvikaTcpSocket::setSystemBuffers(SYSTEM_BUFFERS buffers)
{
    NUVIKA_ASSERT_OWNER_THREAD();
    m_systemBuffers = buffers;
}

void NuvikaTcpSocket::setKeepAlive(bool on, int idleSeconds, int intervalSeconds, int probes)
{
    NUVIKA_ASSERT_OWNER_THREAD();
    m_keepAlive = {on, idleSeconds, intervalSeconds, probes};
    if (m_pIOSocket != nullptr)
        applyKeepAlive();
}

void NuvikaTcpSocket::applyKeepAlive()
{
    if (Sockets::setKeepAlive(m_pIOSocket->descriptor(), m_keepAlive.bOn, m_keepAlive.nIdle,
            m_keepAlive.nInterval, m_keepAlive.nProbes)
        != 0)
        NUVIKA_WARNING(
            lcNet, "NuvikaTcpSocket::setKeepAlive() failed: %s", qUtf8Printable(SocketError::formatLast()));
}

void NuvikaTcpSocket::setNoDelay(bool on)
{
    NUVIKA_ASSERT_OWNER_THREAD();
    m_bNoDelay = on;
    if (m_pIOSocket != nullptr)
        applyNoDelay();
}

void NuvikaTcpSocket::applyNoDelay()
{
    if (Sockets::setNoDelay(m_pIOSocket->descriptor(), m_bNoDelay) != 0)
        NUVIKA_WARNING(
            lcNet, "NuvikaTcpSocket::setNoDelay() failed: %s", qUtf8Printable(SocketError::formatLast()));
}

void NuvikaTcpSocket::setConnectTimeLimit(int ms)
{
    NUVIKA_ASSERT_OWNER_THREAD();
    m_nConnectTimeLimit = ms;
}

// --- events of the engine ------------------------------------------------------------------------------

void NuvikaTcpSocket::customEvent(QEvent* event)
{
    switch (static_cast<int>(event->type())) {
    case NuvikaTcpSocketEventType::kError:
        slotError(static_cast<NuvikaTcpSocketErrorEvent*>(event)->errorCode());
        break;
    case NuvikaTcpSocketEventType::kDisconnected:
        slotDisconnected();
        break;
    case NuvikaTcpSocketEventType::kDataReceived: {
        const auto* data = static_cast<NuvikaTcpSocketDataReceivedEvent*>(event);
        emit dataReceived(data->data(), data->size(), QueuedConnNotAllowed());
        break;
    }
    case NuvikaTcpSocketEventType::kCanSend:
        emitCanSend();
        break;
    case NuvikaTcpSocketEventType::kAllSent:
        emit sigAllSent();
        break;
    default:
        break;
    }
}

void ReceivePlacer::set(NuvikaTcpSocket& socket, ReceivePlacer& placer) { socket.m_pPlacer = &placer; }

void NuvikaTcpSocket::emitCanSend() { emit m_pAsyncHelper->emitCanSend(m_nSession); }

void NuvikaTcpSocket::emitCanSendAsync(quint64 sessionId)
{
    if (sessionId != m_nSession || m_state != eConnected)
        return;
    NUVIKA_ASSERT(m_pIOSocket);
    if (canSend())
        emit sigCanSend();
}

// --- half-closed connections ---------------------------------------------------------------------------

void HalfClose::setHandler(NuvikaTcpSocket& socket, std::function<void()> peerEnded)
{
    socket.m_peerEnded = std::move(peerEnded);
}

quint64 HalfClose::bytesSent(const NuvikaTcpSocket& socket)
{
    return socket.m_pIOSocket == nullptr ? 0 : socket.m_pIOSocket->bytesSent();
}

// --- what waits to be sent -----------------------------------------------------------------------------

qint64 NuvikaTcpSocket::bytesToSend() const
{
    NUVIKA_ASSERT_OWNER_THREAD();
    return m_pIOSocket == nullptr ? 0 : m_pIOSocket->bytesToSend();
}

void SendRoom::tellBelow(NuvikaTcpSocket& socket, qint64 bytes)
{
    if (socket.m_pIOSocket != nullptr)
        socket.m_pIOSocket->tellWhenBelow(bytes);
}

// --- queries -------------------------------------------------------------------------------------------

NuvikaTcpSocket::STATE NuvikaTcpSocket::getState()
{
    NUVIKA_ASSERT_OWNER_THREAD();
    return m_state;
}

QString NuvikaTcpSocket::errorString()
{
    NUVIKA_ASSERT_OWNER_THREAD();
    return m_problem.isEmpty() ? SocketError::format(m_nError) : m_problem;
}

QHostAddress NuvikaTcpSocket::localAddress()
{
    NUVIKA_ASSERT_OWNER_THREAD();
    return m_localAddress;
}

unsigned short NuvikaTcpSocket::localPort() const
{
    NUVIKA_ASSERT_OWNER_THREAD();
    return m_nLocalPort;
}

QHostAddress NuvikaTcpSocket::peerAddress()
{
    NUVIKA_ASSERT_OWNER_THREAD();
    return m_peerAddress;
}

unsigned short NuvikaTcpSocket::peerPort() const
{
    NUVIKA_ASSERT_OWNER_THREAD();
    return m_nPeerPort;
}

const QString& NuvikaTcpSocket::peerName() const
{
    NUVIKA_ASSERT_OWNER_THREAD();
    return m_peerName;
}
