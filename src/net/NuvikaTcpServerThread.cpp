#include "net/NuvikaTcpServerThread_p.h"

#include <KepNuvikaUtil/NuvikaTcpServer.h>
#include <KepNuvikaUtil/SocketCalls.h>
#include <KepNuvikaUtil/SocketError.h>

#include "core/Log_p.h"
#include "core/MutexGuard_p.h"
#include "net/DirectSocketCalls_p.h"
#include "net/SocketAddress_p.h"
#include "platform/ErrorCodes_p.h"

#include <QtCore/QCoreApplication>

using namespace Nuvika;

namespace
{
constexpr int kOutOfDescriptorsPauseMs = 100;
constexpr int kSegmentLimit = 16384; // keeps accepted medium sockets from stalling on loopback

void logFailure(const char* format)
{
    NUVIKA_CRITICAL(lcNet, format, qUtf8Printable(SocketError::formatLast()));
}
} // namespace

NuvikaTcpServerThread::NuvikaTcpServerThread(
    NuvikaTcpServer* pServer, const QHostAddress& address, unsigned short port)
    : m_pServer(pServer), m_address(address), m_nPort(port)
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
    if (isRunning() || !m_wait.isValid())
        return false;
    QThread::start(QThread::InheritPriority);
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

int NuvikaTcpServerThread::openListeningSocket()
{
    const int listening = Sockets::openStream(AF_INET);
    if (listening < 0) {
        logFailure("NuvikaTcpServerThread::run(); failed creating listen socket: %s");
        return -1;
    }
    Sockets::setReuseAddress(listening);
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

bool NuvikaTcpServerThread::bindTo(int nListening)
{
    NuvikaLLSock::ADDR_V4_V6 address{};
    NuvikaLLSock::createSockAddr(&address, m_address, m_nPort);
    if (address.sa.sa_family != AF_INET) {
        ErrorCodes::setLastError(ErrorCodes::kInvalidArgument); // a null address would bind to everything
        return false;
    }
    if (DirectCalls::bind(nListening, &address.sa, sockAddrLength(address)) != 0)
        return false;
    int length = sizeof address;
    if (DirectCalls::localName(nListening, &address, &length) == 0)
        NuvikaLLSock::getPortAndAddress(&address, &m_address, &m_nPort);
    else
        m_address.clear();
    return true;
}

void NuvikaTcpServerThread::acceptUntilStopped(int nListening)
{
    for (;;) {
        switch (m_wait.wait(nListening)) {
        case AcceptWait::Event::Stop:
            NUVIKA_DEBUG(lcNet, "NuvikaTcpServerThread::run(); Leaving...");
            return;
        case AcceptWait::Event::Failed:
            logFailure("NuvikaTcpServerThread::run(); WSAWaitForMultipleEvents failed on listen socket: %s");
            return;
        case AcceptWait::Event::Connection:
            if (!acceptWaiting(nListening))
                m_wait.waitForStop(kOutOfDescriptorsPauseMs);
            break;
        }
    }
}

// False when the system is out of descriptors: the connection waits, and a pause keeps us from spinning.
bool NuvikaTcpServerThread::acceptWaiting(int nListening)
{
    const int s = AcceptWait::accept(nListening);
    if (s >= 0) {
        m_bOutOfDescriptors = false;
        queue(s);
        return true;
    }
    const int code = SocketError::getLast();
    if (code == ErrorCodes::kWouldBlock) // gone between the wait and the accept
        return true;
    const bool bOutOfDescriptors = code == ErrorCodes::kTooManyDescriptors;
    if (!bOutOfDescriptors || !m_bOutOfDescriptors) {
        NUVIKA_WARNING(lcNet, "NuvikaTcpServerThread::run(); WSAAccept failed on listen socket: %s",
            qUtf8Printable(SocketError::format(code)));
    }
    m_bOutOfDescriptors = bOutOfDescriptors;
    return !bOutOfDescriptors;
}

void NuvikaTcpServerThread::queue(int nSocket)
{
    bool bFirst = false;
    {
        const MutexGuard lock(m_mutex);
        m_pendingSockets.append(nSocket);
        bFirst = m_pendingSockets.size() == 1;
    }
    if (bFirst)
        QCoreApplication::postEvent(m_pServer, new NuvikaTcpServerNotifyEvent);
}

QList<int> NuvikaTcpServerThread::takePendingSockets()
{
    QList<int> sockets;
    const MutexGuard lock(m_mutex);
    sockets.swap(m_pendingSockets);
    return sockets;
}

void NuvikaTcpServerThread::closePending()
{
    const QList<int> sockets = takePendingSockets();
    for (const int s : sockets)
        Sockets::close(s);
}
