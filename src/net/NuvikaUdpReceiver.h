#pragma once

#include <KepNuvikaUtil/Export.h>

#include <QtCore/QObject>
#include <QtCore/QString>
#include <QtNetwork/QHostAddress>

#include <functional>
#include <map>
#include <memory>
#include <vector>

class NuvikaUdpReceiverIO;

/// Receives datagrams on one UDP socket, IPv4 or IPv6, unicast or multicast, and hands each to registered
/// callbacks, without a copy.
///
/// One system call takes what has arrived, up to 32 datagrams or runs of them. A datagram longer than the
/// size that is expected (1500 bytes at first) is dropped; the size doubles then, and what the same call had
/// received behind it is dropped with it. Empty datagrams are not handed out. A receive that fails, as
/// without memory, is tried again 50 ms later, and logged once until one succeeds.
///
/// Memory: the bytes lie in buffers that all receivers of a thread share; with event loops that callbacks
/// run, up to ten deep.
///
/// Threads: every member is called on the owner thread, which needs an event loop; callbacks run there.
///
/// Lifetime: a callback may add and remove callbacks, itself included, and close or delete the receiver. One
/// that was added meanwhile gets the next datagram; after a close the others still get the present one.
///
/// Errors: false, with errorString() and a log record. A create that failed leaves no socket.
class KEPNUVIKAUTIL_EXPORT NuvikaUdpReceiver : public QObject
{
    Q_OBJECT
public:
    /// What a callback gets, valid only during the call.
    struct Datagram {
        const char* pData;
        qint32 nSize; ///< bytes
        quint16 nFamily; ///< of the sender: 2 for IPv4, 23 for IPv6
        quint32 nIPv4; ///< the sender, host byte order; for IPv4
        const unsigned char* pIPv6; ///< the sender, 16 bytes; null for IPv4
        quint16 nPort; ///< the sender's, host byte order
    };
    using Callback = void (*)(const NuvikaUdpReceiver::Datagram*, void*);

    explicit NuvikaUdpReceiver(QObject* parent = nullptr);
    ~NuvikaUdpReceiver() override;

    /// Receives what comes to this address, which is not null. A \a port of 0 takes a free one, and holds it
    /// afterwards.
    bool createUnicast(unsigned short& port, const QHostAddress& localAddress);
    /// Receives what comes to this group over the interface with that address, and nothing of other
    /// interfaces; a null one leaves the choice to the system, one that no interface has is refused. Several
    /// receivers may share a group and port, and each gets every datagram.
    bool createMulticast(
        unsigned short& port, const QHostAddress& group, const QHostAddress& interfaceAddress);
    void close();

    /// -1 when closed.
    int socketDescriptor();
    QString errorString() const;
    /// A null address when closed; the group's of a multicast receiver.
    QHostAddress localAddress();
    unsigned short localPort() const;
    /// What the system keeps while the thread is busy, 65536 bytes at first. Only with a socket.
    bool setReceiveBufferSize(int bytes);

    /// Callbacks are called in the order of registration; a pair that is there already is not added again.
    void registerCallback(void (*callback)(const NuvikaUdpReceiver::Datagram*, void*), void* context);
    void removeCallback(void (*callback)(const NuvikaUdpReceiver::Datagram*, void*), void* context);

    /// As a callback, in one order with the others and under the same rules. Returns the number that
    /// removeHandler() takes, above 0; 0 for an empty one, which is not added. It is destroyed when it was
    /// removed, and has returned.
    int addHandler(std::function<void(const Datagram&)> handler);
    void removeHandler(int number);

protected:
    void customEvent(QEvent* event) override;

private:
    struct Registration {
        Callback callback; // null: removed during a delivery
        void* context;
        bool operator==(const Registration& other) const
        {
            return callback == other.callback && context == other.context;
        }
    };
    using Handler = std::shared_ptr<const std::function<void(const Datagram&)>>;
    struct Creation;
    // A delivery on the stack; they nest with nested event loops.
    struct Delivery {
        Delivery* pOuter;
        bool bGone; // the receiver has been destroyed
    };

    bool create(unsigned short& port, const QHostAddress& address, const Creation& creation);
    bool fail(const char* format);
    bool failToJoin();
    static void callHandler(const Datagram* datagram, void* handler);
    void deliver(const Datagram& datagram);
    void sweep();

    std::vector<Registration> m_callbacks;
    Delivery* m_pDelivery = nullptr; // the innermost
    bool m_bRemoved = false; // some pair above was removed meanwhile
    NuvikaUdpReceiverIO* m_pIO = nullptr; // ends itself after detach()
    int m_nSocket = -1;
    QString m_errorString;
    Qt::HANDLE m_currentThreadId;
    std::map<int, Handler> m_handlers; // each the context of a registration, by its number
    int m_nLastHandler = 0;
};
