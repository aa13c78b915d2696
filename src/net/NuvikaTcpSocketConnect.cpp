#include "net/NuvikaTcpSocketConnect_p.h"

#include <KepNuvikaUtil/HostLookup.h>
#include <KepNuvikaUtil/SocketCalls.h>
#include <KepNuvikaUtil/SocketError.h>

#include "core/Log_p.h"
#include "net/DirectSocketCalls_p.h"
#include "net/InterfaceIndex_p.h"
#include "net/NuvikaTcpSocketIO_p.h"
#include "net/SocketAddress_p.h"
#include "platform/ErrorCodes_p.h"

#include <QtCore/QSocketNotifier>
#include <QtNetwork/QAbstractSocket>

#include <atomic>

using namespace Nuvika;

namespace
{
constexpr int kStatusTimerMs = 1000;
constexpr char kConnectIdProperty[] = "connectId";

uint nextConnectId()
{
    static std::atomic<uint> s_nConnectId{0};
    return ++s_nConnectId;
}

quint16 portOf(const NuvikaLLSock::ADDR_V4_V6& name)
{
    return ntohs(name.sa.sa_family == AF_INET6 ? name.v6.sin6_port : name.v4.sin_port);
}

bool isUsable(const QHostAddress& address)
{
    return !address.isNull()
        && (address.protocol() == QAbstractSocket::IPv4Protocol
            || address.protocol() == QAbstractSocket::IPv6Protocol);
}
} // namespace

NuvikaTcpSocketConnect::NuvikaTcpSocketConnect(NuvikaTcpSocket::LOAD_PROFILE sendProfile,
    NuvikaTcpSocket::LOAD_PROFILE recvProfile, NuvikaTcpSocket::SYSTEM_BUFFERS buffers, QObject* parent)
    : QObject(parent), m_sendProfile(sendProfile), m_recvProfile(recvProfile), m_systemBuffers(buffers),
      m_nLastError(ErrorCodes::kHostNotFound)
{
    using AsyncHelper = NuvikaTcpSocketConnectAysncHelper;
    connect(&m_asyncHelper, &AsyncHelper::connected, this, &NuvikaTcpSocketConnect::slotConnectedForwarder,
        Qt::QueuedConnection);
    connect(&m_asyncHelper, &AsyncHelper::error, this, &NuvikaTcpSocketConnect::slotErrorForwarder,
        Qt::QueuedConnection);
    connect(&m_timer, &QTimer::timeout, this, &NuvikaTcpSocketConnect::checkConnectionStatusTimer);
    connect(&m_timeLimit, &QTimer::timeout, this, &NuvikaTcpSocketConnect::giveUp);
}

NuvikaTcpSocketConnect::~NuvikaTcpSocketConnect() { closeSocket(); }

void NuvikaTcpSocketConnect::setTimeLimit(int ms)
{
    m_timeLimit.setSingleShot(true);
    m_timeLimit.setTimerType(Qt::PreciseTimer); // never early
    if (ms > 0)
        m_timeLimit.start(ms);
}

void NuvikaTcpSocketConnect::connectToHost(const QString& host, unsigned short port)
{
    QHostAddress literal;
    if (literal.setAddress(host)) {
        connectToHost(literal, port);
        return;
    }
    NUVIKA_DEBUG(lcNet, "NuvikaTcpSocketConnect::connectToHost %s:%hu", qUtf8Printable(host), port);
    m_nPort = port;
    m_state = eLookingUp;
    m_nLookupId = NuvikaUtil::lookupHost(host, this, SLOT(hostInfo(QHostInfo)));
    if (m_nLookupId == 0)
        fail(ErrorCodes::kHostNotFound);
}

void NuvikaTcpSocketConnect::connectToHost(const QHostAddress& address, unsigned short port)
{
    NUVIKA_DEBUG(
        lcNet, "NuvikaTcpSocketConnect::connectToHost %s:%hu", qUtf8Printable(address.toString()), port);
    m_nPort = port;
    tryAddresses({address});
}

void NuvikaTcpSocketConnect::hostInfo(const QHostInfo& info)
{
    if (m_state != eLookingUp || info.lookupId() != m_nLookupId) {
        NUVIKA_WARNING(lcNet, "NuvikaTcpSocketConnect::hostInfo() unexpected here");
        return;
    }
    QList<QHostAddress> v4;
    QList<QHostAddress> v6;
    const QList<QHostAddress> found = info.addresses();
    for (const QHostAddress& address : found) {
        if (address.protocol() == QAbstractSocket::IPv4Protocol)
            v4.append(address);
        else if (address.protocol() == QAbstractSocket::IPv6Protocol)
            v6.append(address);
    }
    tryAddresses(v4 + v6);
}

void NuvikaTcpSocketConnect::tryAddresses(const QList<QHostAddress>& addresses)
{
    m_addresses = addresses;
    m_state = eConnecting;
    tryNextAddress();
}

void NuvikaTcpSocketConnect::tryNextAddress()
{
    while (!m_addresses.isEmpty()) {
        const QHostAddress address = m_addresses.first();
        if (!isUsable(address)) {
            NUVIKA_WARNING(lcNet, "NuvikaTcpSocketConnect::tryNextAddress(): unsupported protocol");
        } else if (openSocket(address)) {
            watchSocket();
            NUVIKA_DEBUG(lcNet, "NuvikaTcpSocketConnect::tryNextAddress: trying %s:%hu",
                qUtf8Printable(address.toString()), m_nPort);
            if (doConnect(address))
                return;
            closeSocket();
        } else {
            m_nLastError = SocketError::getLast();
        }
        m_addresses.removeFirst();
    }
    fail(m_nLastError);
}

bool NuvikaTcpSocketConnect::openSocket(const QHostAddress& address)
{
    const bool bIPv6 = address.protocol() == QAbstractSocket::IPv6Protocol;
    m_nSocket = Sockets::openStream(bIPv6 ? AF_INET6 : AF_INET);
    if (m_nSocket < 0)
        return false;
    // It only works when set before the connection is made.
    const int limit = NuvikaTcpSocketIO::segmentLimit(m_sendProfile, m_recvProfile, address.isLoopback());
    if (limit > 0 && m_systemBuffers == NuvikaTcpSocket::eAsProfile)
        Sockets::setSegmentLimit(m_nSocket, limit);
    return true;
}

void NuvikaTcpSocketConnect::watchSocket()
{
    NUVIKA_ASSERT(m_pNotifierWrite == 0);
    DirectCalls::setNonBlocking(m_nSocket, true);
    m_pNotifierWrite = std::make_unique<QSocketNotifier>(m_nSocket, QSocketNotifier::Write);
    const uint connectId = nextConnectId();
    m_pNotifierWrite->setProperty(kConnectIdProperty, connectId);
    connect(m_pNotifierWrite.get(), SIGNAL(activated(int)), this, SLOT(writeNotifierEnabledDirect(int)),
        Qt::DirectConnection);
    QMetaObject::invokeMethod(
        this, "checkConnectionStatus", Qt::QueuedConnection, Q_ARG(int, m_nSocket), Q_ARG(uint, connectId));
    m_pNotifierWrite->setEnabled(true);
    m_timer.start(kStatusTimerMs);
}

// A closed port in the ephemeral range may be given to the very socket that connects to it. TCP lets the two
// ends be one then, where a refusal is due.
bool NuvikaTcpSocketConnect::isConnectedToItself() const
{
    NuvikaLLSock::ADDR_V4_V6 local{};
    NuvikaLLSock::ADDR_V4_V6 peer{};
    int length = sizeof local;
    if (Sockets::localName(m_nSocket, &local, &length) != 0 || portOf(local) != m_nPort)
        return false;
    length = sizeof peer;
    return Sockets::peerName(m_nSocket, &peer, &length) == 0 && portOf(peer) == m_nPort
        && QHostAddress(&local.sa) == QHostAddress(&peer.sa);
}

// True while the attempt goes on or has succeeded.
bool NuvikaTcpSocketConnect::doConnect(const QHostAddress& address)
{
    NUVIKA_ASSERT(m_state == eConnecting);
    NuvikaLLSock::ADDR_V4_V6 target{};
    NuvikaLLSock::createSockAddr(&target, address, m_nPort);
    if (target.sa.sa_family == AF_INET6)
        target.v6.sin6_scope_id = scopeIndex(address);

    int code = 0;
    if (DirectCalls::connect(m_nSocket, &target.sa, sockAddrLength(target)) != 0)
        code = SocketError::getLast();
    if (code == ErrorCodes::kWouldBlock) {
        // Reading clears it: a second connect would report something else.
        code = Sockets::takePendingError(m_nSocket);
        if (code == 0)
            return true;
    } else if (code == ErrorCodes::kAlready) {
        return true;
    }
    const bool bConnected = code == 0 || code == ErrorCodes::kIsConnected;
    if (bConnected && isConnectedToItself()) {
        code = ErrorCodes::kConnectionRefused;
    } else if (bConnected) {
        NUVIKA_DEBUG(lcNet, "NuvikaTcpSocketConnect: connect to %s:%hu success",
            qUtf8Printable(address.toString()), m_nPort);
        succeed();
        return true;
    }
    m_nLastError = code;
    NUVIKA_DEBUG(lcNet, "NuvikaTcpSocketConnect: connect to %s:%hu failed; %s",
        qUtf8Printable(address.toString()), m_nPort, qUtf8Printable(SocketError::format(code)));
    return false;
}

void NuvikaTcpSocketConnect::writeNotifierEnabledDirect(int socket)
{
    if (!m_pNotifierWrite)
        return;
    m_pNotifierWrite->setEnabled(false);
    QMetaObject::invokeMethod(this, "writeNotifierEnabled", Qt::QueuedConnection, Q_ARG(int, socket),
        Q_ARG(uint, m_pNotifierWrite->property(kConnectIdProperty).toUInt()));
}

void NuvikaTcpSocketConnect::writeNotifierEnabled(int socket, uint connectId)
{
    checkConnectionStatus(socket, connectId);
}

void NuvikaTcpSocketConnect::checkConnectionStatusTimer()
{
    if (!m_pNotifierWrite)
        return;
    QMetaObject::invokeMethod(this, "checkConnectionStatus", Qt::QueuedConnection, Q_ARG(int, m_nSocket),
        Q_ARG(uint, m_pNotifierWrite->property(kConnectIdProperty).toUInt()));
}

void NuvikaTcpSocketConnect::checkConnectionStatus(int socket, uint connectId)
{
    if (m_state != eConnecting || socket != m_nSocket || !m_pNotifierWrite
        || m_pNotifierWrite->property(kConnectIdProperty).toUInt() != connectId)
        return;
    if (doConnect(m_addresses.first()))
        return;
    m_addresses.removeFirst();
    closeSocket();
    tryNextAddress();
}

void NuvikaTcpSocketConnect::succeed()
{
    m_state = eDone;
    m_timer.stop();
    dropNotifier();
    emit m_asyncHelper.connected();
}

void NuvikaTcpSocketConnect::fail(int errorCode)
{
    m_state = eDone;
    m_timer.stop();
    emit m_asyncHelper.error(errorCode);
}

// A lookup that hangs is left behind: its answer finds nobody.
void NuvikaTcpSocketConnect::giveUp()
{
    if (m_state == eDone)
        return;
    if (m_state == eConnecting && doConnect(m_addresses.first()) && m_state == eDone)
        return; // made while the loop did not run
    m_bTimeOver = true;
    closeSocket();
    fail(ErrorCodes::kTimedOut);
}

// Both may delete this object: nothing follows the emission.
void NuvikaTcpSocketConnect::slotConnectedForwarder()
{
    const int socket = m_nSocket;
    m_nSocket = -1;
    emit connected(socket);
}

void NuvikaTcpSocketConnect::slotErrorForwarder(int errorCode) { emit error(errorCode); }

// Gone before the port takes the descriptor, and before the descriptor is closed.
void NuvikaTcpSocketConnect::dropNotifier()
{
    m_pNotifierWrite.reset(); // never on the stack: its one slot only disables it and posts a call
}

void NuvikaTcpSocketConnect::closeSocket()
{
    dropNotifier();
    if (m_nSocket < 0)
        return;
    DirectCalls::close(m_nSocket);
    m_nSocket = -1;
}
