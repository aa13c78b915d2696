#pragma once

#include <KepNuvikaUtil/Export.h>
#include <KepNuvikaUtil/NuvikaTcpSocket.h>

#include <QtCore/QObject>
#include <QtNetwork/QHostAddress>

#include <memory>

class NuvikaTcpServerThread;

/// Listens on one address and port, of IPv4 by listen(), of either family or both by listenAnyFamily(), and
/// hands every accepted connection to its owner thread as a bare descriptor, for
/// NuvikaTcpSocket::setSocketDescriptor() or HttpResponseClient.
///
/// Threads: owned by the thread that made it, which needs an event loop; accepting runs on a thread of the
/// server's own. A burst of connections costs one event.
/// Lifetime: destruction stops listening; connections that were accepted but not yet handed out are closed.
/// A handler of newConnectionDesc() may close or delete the server.
/// Errors: listening returns false and logs why. Running out of descriptors or memory is logged once, the
/// connection waits, and accepting resumes when they are free again. At most 4,096 accepted connections wait
/// for an owner that is busy; further ones wait in the system's own queue.
class KEPNUVIKAUTIL_EXPORT NuvikaTcpServer : public QObject
{
    Q_OBJECT
public:
    explicit NuvikaTcpServer(QObject* parent = nullptr);
    ~NuvikaTcpServer() override;

    /// Listens anew; a former listening ends. Port 0 takes a free one. A null address is refused, a port with
    /// a live listener too.
    bool listen(const QHostAddress& address, unsigned short port);
    void close();
    bool isListening();
    /// What was bound; a null address and port 0 when not listening.
    QHostAddress serverAddress();
    unsigned short serverPort() const;

    /// Called once for each accepted connection, in accept order. Emits newConnectionDesc(); a subclass may
    /// take the descriptor instead.
    virtual void incomingConnection(int socketDescriptor);

    /// For the next listen(): with eTuned the connections' segments are not limited, as the profiles' small
    /// buffers want it. Each accepted connection's own setting still has to say eTuned, too. eAsProfile
    /// unless told otherwise.
    void setSystemBuffers(NuvikaTcpSocket::SYSTEM_BUFFERS buffers);

    /// As listen(), for addresses of both families: QHostAddress::Any takes connections over both (over IPv4
    /// on a host without IPv6; serverAddress() tells which), AnyIPv6 over IPv6 only. IPv4 peers have IPv4
    /// addresses, whatever listens.
    bool listenAnyFamily(const QHostAddress& address, unsigned short port);

signals:
    /// The receiver owns the descriptor.
    void newConnectionDesc(int socketDescriptor);

protected:
    void customEvent(QEvent* event) override;

private:
    bool listenOn(const QHostAddress& address, unsigned short port, bool bAnyFamily);

    std::unique_ptr<NuvikaTcpServerThread> m_pThread;
    bool m_bListening = false;
    Qt::HANDLE m_currentThreadId;
    quint64 m_nSession = 0;
    NuvikaTcpSocket::SYSTEM_BUFFERS m_systemBuffers = NuvikaTcpSocket::eAsProfile;
};
