#include <KepNuvikaUtil/NuvikaTcpServer.h>

#include "net/NuvikaTcpServerThread_p.h"
#include "net/OwnerThread_p.h"

#include <QtCore/QPointer>

NuvikaTcpServer::NuvikaTcpServer(QObject* parent)
    : QObject(parent), m_currentThreadId(QThread::currentThreadId())
{
}

NuvikaTcpServer::~NuvikaTcpServer() { NUVIKA_ASSERT_OWNER_THREAD(); }

bool NuvikaTcpServer::listen(const QHostAddress& address, unsigned short port)
{
    return listenOn(address, port, false);
}

bool NuvikaTcpServer::listenAnyFamily(const QHostAddress& address, unsigned short port)
{
    return listenOn(address, port, true);
}

bool NuvikaTcpServer::listenOn(const QHostAddress& address, unsigned short port, bool bAnyFamily)
{
    NUVIKA_ASSERT_OWNER_THREAD();
    close();
    m_pThread = std::make_unique<NuvikaTcpServerThread>(this, address, port, bAnyFamily, m_systemBuffers);
    m_bListening = m_pThread->start();
    return m_bListening;
}

void NuvikaTcpServer::close()
{
    NUVIKA_ASSERT_OWNER_THREAD();
    ++m_nSession;
    m_pThread.reset();
    m_bListening = false;
}

bool NuvikaTcpServer::isListening()
{
    NUVIKA_ASSERT_OWNER_THREAD();
    return m_bListening;
}

QHostAddress NuvikaTcpServer::serverAddress()
{
    NUVIKA_ASSERT_OWNER_THREAD();
    return m_bListening ? m_pThread->address() : QHostAddress();
}

unsigned short NuvikaTcpServer::serverPort() const
{
    NUVIKA_ASSERT_OWNER_THREAD();
    return m_bListening ? m_pThread->port() : quint16{0};
}

void NuvikaTcpServer::setSystemBuffers(NuvikaTcpSocket::SYSTEM_BUFFERS buffers)
{
    NUVIKA_ASSERT_OWNER_THREAD();
    m_systemBuffers = buffers;
}

void NuvikaTcpServer::incomingConnection(int socketDescriptor) { emit newConnectionDesc(socketDescriptor); }

void NuvikaTcpServer::customEvent(QEvent* event)
{
    if (event->type() != NuvikaTcpServerNotifyEvent::kType || !m_pThread)
        return;
    const quint64 session = m_nSession;
    const QPointer<NuvikaTcpServer> guard(this);
    for (int left = m_pThread->announced(); left > 0; --left) {
        const int s = m_pThread->takePendingSocket();
        if (s < 0) // handed out by an event loop inside a handler
            return;
        incomingConnection(s);
        // Closed or deleted in the handler: the thread has closed what was not handed out.
        if (!guard || m_nSession != session)
            return;
    }
}
