#include "net/NuvikaTcpServerThread_p.h"

#include <KepNuvikaUtil/NuvikaTcpServer.h>
#include <KepNuvikaUtil/SocketCalls.h>
#include <KepNuvikaUtil/SocketError.h>

#include "core/Log_p.h"
#include "core/MutexGuard_p.h"
#include "net/DirectSocketCalls_p.h"
#include "net/InterfaceIndex_p.h"
#include "net/SocketAddress_p.h"
#include "platform/ErrorCodes_p.h"
#include "platform/Thread_p.h"

#include <QtCore/QCoreApplication>

using namespace Nuvika;

namespace
{
constexpr int kFailurePauseMs = 100;
constexpr int kSegmentLimit = 16384; // keeps accepted medium sockets from stalling on loopback

void logFailure(const char* format)
{
    NUVIKA_CRITICAL(lcNet, format, qUtf8Printable(SocketError::formatLast()));
}
} // namespace

NuvikaTcpServerThread::NuvikaTcpServerThread(NuvikaTcpServer* pServer, const QHostAddress& address,
    unsigned short port, bool bAnyFamily, NuvikaTcpSocket::SYSTEM_BUFFERS buffers)
    : m_pServer(pServer), m_address(address), m_nPort(port),
      m_families(bAnyFamily ? familiesOf(address) : eIPv4), m_systemBuffers(buffers)
{
}

NuvikaTcpServerThread::~NuvikaTcpServerThread()
{
    if (isRunning()) {
        m_wait.stop();
        wait();
    }
    NUVIKA_ASSERT(m_pendingSockets.isEmpty());
}

bool NuvikaTcpServerThread::start()
{
    if (isRunning())
        return false;
    if (!m_wait.isValid()) {
        logFailure("NuvikaTcpServerThread::start(); failed creating stop event: %s");
        return false;
    }
    if (!Threads::start(*this)) {
        NUVIKA_CRITICAL(lcNet, "NuvikaTcpServerThread::start(); no thread can be had");
        return false;
    }
    m_started.wait();
    return m_bStartResult;
}

void NuvikaTcpServerThread::run()
{
    const int listening = openListeningSocket();
    m_bStartResult = listening >= 0;
    m_started.set();
    if (listening < 0)
        return;
    acceptUntilStopped(listening);
    Sockets::close(listening);
    closePending();
}

NuvikaTcpServerThread::Families NuvikaTcpServerThread::familiesOf(const QHostAddress& address)
{
    if (address.protocol() == QAbstractSocket::IPv6Protocol)
        return eIPv6;
    return address.protocol() == QAbstractSocket::AnyIPProtocol ? eBoth : eIPv4;
}

int NuvikaTcpServerThread::openSocket()
{
    if (m_families == eIPv4)
        return Sockets::openStream(AF_INET);
    const int s = Sockets::openStream(AF_INET6);
    if (s >= 0 || m_families == eIPv6 || SocketError::getLast() != ErrorCodes::kFamilyNotSupported)
        return s;
    m_families = eIPv4; // a host without IPv6
    return Sockets::openStream(AF_INET);
}

int NuvikaTcpServerThread::openListeningSocket()
{
    const int listening = openSocket();
    if (listening < 0) {
        logFailure("NuvikaTcpServerThread::run(); failed creating listen socket: %s");
        return -1;
    }
    Sockets::setReuseAddress(listening);
    if (m_systemBuffers == NuvikaTcpSocket::eAsProfile)
        Sockets::setSegmentLimit(listening, kSegmentLimit);
    Sockets::setNonBlocking(listening, true); // a connection may be gone between the wait and the accept
    if (!bindTo(listening)) {
        logFailure("NuvikaTcpServerThread::run(); failed binding listen socket: %s");
    } else if (Sockets::listen(listening) != 0) {
        logFailure("NuvikaTcpServerThread::run(); failed listening on listen socket: %s");
    } else {
        return listening;
    }
    Sockets::close(listening);
    return -1;
}

// False for an address of another family, and for a null one, which would bind to everything.
bool NuvikaTcpServerThread::fillAddress(NuvikaLLSock::ADDR_V4_V6* address) const
{
    NuvikaLLSock::createSockAddr(
        address, m_families == eBoth ? QHostAddress(QHostAddress::AnyIPv6) : m_address, m_nPort);
    if (m_families == eIPv4)
        return address->sa.sa_family == AF_INET;
    address->v6.sin6_scope_id = scopeIndex(m_address);
    return true;
}

bool NuvikaTcpServerThread::bindTo(int nListening)
{
    NuvikaLLSock::ADDR_V4_V6 address{};
    if (!fillAddress(&address)) {
        ErrorCodes::setLastError(ErrorCodes::kInvalidArgument);
        return false;
    }
    if (m_families != eIPv4 && Sockets::setIPv6Only(nListening, m_families == eIPv6) != 0)
        return false;
    if (DirectCalls::bind(nListening, &address.sa, sockAddrLength(address)) != 0)
        return false;
    readBound(nListening);
    return true;
}

void NuvikaTcpServerThread::readBound(int nListening)
{
    const QString scope = m_address.scopeId();
    const SocketName bound = localNameOf(nListening);
    m_address = bound.address;
    m_address.setScopeId(scope);
    if (bound.address.isNull())
        return;
    m_nPort = bound.port;
    if (m_families == eBoth)
        m_address = QHostAddress(QHostAddress::Any);
}

void NuvikaTcpServerThread::acceptUntilStopped(int nListening)
{
    using Event = AcceptWait::Event;
    for (Event event = Event::Woken; event != Event::Stop;) {
        event = isFull() ? m_wait.pause(-1) : m_wait.wait(nListening);
        if (event == Event::Connection && !acceptWaiting(nListening))
            event = m_wait.pause(kFailurePauseMs);
        if (event == Event::Failed) {
            logFailure("NuvikaTcpServerThread::run(); WSAWaitForMultipleEvents failed on listen socket: %s");
            return;
        }
    }
    NUVIKA_DEBUG(lcNet, "NuvikaTcpServerThread::run(); Leaving...");
}

// Goes on without another wait while the owner lags behind. False after a failure that may last: the
// connection waits in the kernel, and a pause keeps us from spinning.
bool NuvikaTcpServerThread::acceptWaiting(int nListening)
{
    for (int pending = 0; pending != 1 && pending < kMostPending;) {
        const int s = AcceptWait::accept(nListening);
        if (s < 0)
            return isPassing(SocketError::getLast());
        m_nFailure = 0;
        pending = queue(s);
    }
    return true;
}

// What lasts is told once, until a connection is accepted again.
bool NuvikaTcpServerThread::isPassing(int code)
{
    if (code == ErrorCodes::kWouldBlock) // gone between the wait and the accept, or none is left
        return true;
    if (code != m_nFailure)
        NUVIKA_WARNING(lcNet, "NuvikaTcpServerThread::run(); WSAAccept failed on listen socket: %s",
            qUtf8Printable(SocketError::format(code)));
    m_nFailure = code;
    return code == ErrorCodes::kConnectionAborted; // the peer's doing, and over
}

bool NuvikaTcpServerThread::isFull()
{
    const MutexGuard lock(m_mutex);
    m_bWaitsForRoom = m_pendingSockets.size() >= kMostPending;
    return m_bWaitsForRoom;
}

// Returns how many wait now.
int NuvikaTcpServerThread::queue(int nSocket)
{
    bool bAnnounce = false;
    int pending = 0;
    {
        const MutexGuard lock(m_mutex);
        m_pendingSockets.enqueue(nSocket);
        pending = m_pendingSockets.size();
        bAnnounce = !m_bAnnounced;
        m_bAnnounced = true;
    }
    if (bAnnounce)
        QCoreApplication::postEvent(m_pServer, new NuvikaTcpServerNotifyEvent);
    return pending;
}

int NuvikaTcpServerThread::announced()
{
    const MutexGuard lock(m_mutex);
    m_bAnnounced = false;
    return m_pendingSockets.size();
}

int NuvikaTcpServerThread::takePendingSocket()
{
    const MutexGuard lock(m_mutex);
    if (m_pendingSockets.isEmpty())
        return -1;
    const int s = m_pendingSockets.dequeue();
    if (m_bWaitsForRoom && m_pendingSockets.size() <= kMostPending / 2) {
        m_bWaitsForRoom = false;
        m_wait.wake();
    }
    return s;
}

void NuvikaTcpServerThread::closePending()
{
    for (int s = takePendingSocket(); s >= 0; s = takePendingSocket())
        Sockets::close(s);
}
