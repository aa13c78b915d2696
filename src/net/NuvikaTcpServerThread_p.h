// Private: the thread that accepts connections for a NuvikaTcpServer.
//
// What was accepted waits in a list of at most kMostPending connections until the owner hands it out; further
// ones wait in the kernel.
#pragma once

#include <KepNuvikaUtil/NuvikaTcpSocket.h>
#include <KepNuvikaUtil/SocketCalls.h>

#include "platform/AcceptWait_p.h"
#include "platform/WaitableEvent_p.h"

#include <QtCore/QEvent>
#include <QtCore/QMutex>
#include <QtCore/QQueue>
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
    static constexpr int kMostPending = 4096;

    NuvikaTcpServerThread(NuvikaTcpServer* pServer, const QHostAddress& address, unsigned short port,
        bool bAnyFamily, NuvikaTcpSocket::SYSTEM_BUFFERS buffers);
    ~NuvikaTcpServerThread() override; // stops

    bool start(); // returns when it listens, or has failed to
    // How many connections wait; a further one posts an event again.
    int announced();
    // The one that was accepted first, or -1.
    int takePendingSocket();
    const QHostAddress& address() const { return m_address; }
    unsigned short port() const { return m_nPort; }

protected:
    void run() override;

private:
    enum Families { eIPv4, eIPv6, eBoth };

    static Families familiesOf(const QHostAddress& address);
    int openSocket();
    int openListeningSocket();
    bool fillAddress(NuvikaLLSock::ADDR_V4_V6* address) const;
    bool bindTo(int nListening);
    void readBound(int nListening);
    void acceptUntilStopped(int nListening);
    bool acceptWaiting(int nListening);
    bool isPassing(int code);
    bool isFull();
    int queue(int nSocket);
    void closePending();

    NuvikaTcpServer* m_pServer;
    QHostAddress m_address;
    quint16 m_nPort;
    Families m_families;
    const NuvikaTcpSocket::SYSTEM_BUFFERS m_systemBuffers;
    QQueue<int> m_pendingSockets; // guarded by the mutex
    bool m_bAnnounced = false; // guarded by the mutex: an event is on its way
    bool m_bWaitsForRoom = false; // guarded by the mutex
    Nuvika::WaitableEvent m_started;
    Nuvika::AcceptWait m_wait;
    QMutex m_mutex;
    bool m_bStartResult = false;
    int m_nFailure = 0; // of the accepts since the last connection, already told
};
