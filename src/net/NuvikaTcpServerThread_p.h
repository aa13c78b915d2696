// Private: the thread that accepts connections for a NuvikaTcpServer.
#pragma once

#include "platform/AcceptWait_p.h"
#include "platform/WaitableEvent_p.h"

#include <QtCore/QEvent>
#include <QtCore/QList>
#include <QtCore/QMutex>
#include <QtCore/QThread>
#include <QtNetwork/QHostAddress>

class NuvikaTcpServer;

// Says that accepted descriptors wait; posted for the first of a batch.
class NuvikaTcpServerNotifyEvent : public QEvent
{
public:
    static constexpr QEvent::Type kType = static_cast<QEvent::Type>(1001);
    NuvikaTcpServerNotifyEvent() : QEvent(kType) { }
};

class NuvikaTcpServerThread : public QThread
{
    Q_OBJECT
public:
    NuvikaTcpServerThread(NuvikaTcpServer* pServer, const QHostAddress& address, unsigned short port);
    ~NuvikaTcpServerThread() override; // stops

    bool start(); // returns when it listens, or has failed to
    QList<int> takePendingSockets();
    const QHostAddress& address() const { return m_address; }
    unsigned short port() const { return m_nPort; }

protected:
    void run() override;

private:
    int openListeningSocket();
    bool bindTo(int nListening);
    void acceptUntilStopped(int nListening);
    bool acceptWaiting(int nListening);
    void queue(int nSocket);
    void closePending();

    NuvikaTcpServer* m_pServer;
    QHostAddress m_address;
    quint16 m_nPort;
    QList<int> m_pendingSockets; // guarded by the mutex
    Nuvika::WaitableEvent m_started;
    Nuvika::AcceptWait m_wait;
    QMutex m_mutex;
    bool m_bStartResult = false;
    bool m_bOutOfDescriptors = false;
};
