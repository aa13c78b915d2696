// Private: one outgoing connection in the making: lookup, then the addresses in turn, IPv4 first.
#pragma once

#include <KepNuvikaUtil/NuvikaTcpSocket.h>

#include <QtCore/QList>
#include <QtCore/QObject>
#include <QtCore/QTimer>
#include <QtNetwork/QHostAddress>
#include <QtNetwork/QHostInfo>

#include <memory>

class QSocketNotifier;

// Re-emits the outcome from the event loop, never from inside the caller's stack.
class NuvikaTcpSocketConnectAysncHelper : public QObject
{
    Q_OBJECT
public:
    using QObject::QObject;
signals:
    void connected();
    void error(int errorCode);
};

class NuvikaTcpSocketConnect : public QObject
{
    Q_OBJECT
public:
    NuvikaTcpSocketConnect(NuvikaTcpSocket::LOAD_PROFILE sendProfile,
        NuvikaTcpSocket::LOAD_PROFILE recvProfile, NuvikaTcpSocket::SYSTEM_BUFFERS buffers, QObject* parent);
    ~NuvikaTcpSocketConnect() override;

    void connectToHost(const QString& host, unsigned short port);
    void connectToHost(const QHostAddress& address, unsigned short port);
    // Of all that follows, in milliseconds; 0 for none.
    void setTimeLimit(int ms);
    // Why it has failed.
    bool isTimeOver() const { return m_bTimeOver; }

signals:
    // The receiver owns the descriptor.
    void connected(int socketDescriptor);
    void error(int errorCode);

private slots:
    void hostInfo(const QHostInfo& info);
    void writeNotifierEnabled(int socket, uint connectId);
    void writeNotifierEnabledDirect(int socket);
    void slotConnectedForwarder();
    void slotErrorForwarder(int errorCode);
    void checkConnectionStatus(int socket, uint connectId);
    void checkConnectionStatusTimer();

private:
    enum State { eIdle, eLookingUp, eConnecting, eDone };

    void tryAddresses(const QList<QHostAddress>& addresses);
    void tryNextAddress();
    bool openSocket(const QHostAddress& address);
    void watchSocket();
    bool isConnectedToItself() const;
    bool doConnect(const QHostAddress& address);
    void succeed();
    void fail(int errorCode);
    void giveUp();
    void dropNotifier();
    void closeSocket();

    NuvikaTcpSocket::LOAD_PROFILE m_sendProfile;
    NuvikaTcpSocket::LOAD_PROFILE m_recvProfile;
    NuvikaTcpSocket::SYSTEM_BUFFERS m_systemBuffers;
    State m_state = eIdle;
    quint16 m_nPort = 0;
    int m_nLookupId = 0;
    int m_nLastError;
    int m_nSocket = -1;
    QList<QHostAddress> m_addresses;
    std::unique_ptr<QSocketNotifier> m_pNotifierWrite;
    QTimer m_timer;
    QTimer m_timeLimit;
    bool m_bTimeOver = false;
    NuvikaTcpSocketConnectAysncHelper m_asyncHelper;
};
