#include <KepNuvikaUtil/NuvikaTcpServer.h>

#include "net/NuvikaTcpServerThread_p.h"
#include "platform/Sockets_p.h"

#include <QtCore/QPointer>

NuvikaTcpServer::NuvikaTcpServer(QObject* parent) : QObject(parent) { }

NuvikaTcpServer::~NuvikaTcpServer() = default;

bool NuvikaTcpServer::listen(const QHostAddress& address, unsigned short port)
{
    m_pThread.reset();
    m_pThread = std::make_unique<NuvikaTcpServerThread>(this, address, port);
    m_bListening = m_pThread->start();
    return m_bListening;
}

void NuvikaTcpServer::close()
{
    m_pThread.reset();
    m_bListening = false;
}

bool NuvikaTcpServer::isListening() { return m_bListening; }

QHostAddress NuvikaTcpServer::serverAddress() { return m_bListening ? m_pThread->address() : QHostAddress(); }

unsigned short NuvikaTcpServer::serverPort() const { return m_bListening ? m_pThread->port() : quint16{0}; }

void NuvikaTcpServer::incomingConnection(int socketDescriptor) { emit newConnectionDesc(socketDescriptor); }

void NuvikaTcpServer::customEvent(QEvent* event)
{
    if (event->type() != NuvikaTcpServerNotifyEvent::kType || !m_pThread)
        return;
    QList<int> sockets = m_pThread->takePendingSockets();
    const NuvikaTcpServerThread* thread = m_pThread.get();
    const QPointer<NuvikaTcpServer> guard(this);
    while (!sockets.isEmpty()) {
        incomingConnection(sockets.takeFirst());
        if (guard && m_pThread.get() == thread)
            continue;
        // Closed or deleted in the handler: what was not handed out must not leak.
        for (const int s : qAsConst(sockets))
            Nuvika::Sockets::close(s);
        return;
    }
}
