#pragma once

#include <KepNuvikaUtil/Buffer.h>
#include <KepNuvikaUtil/Export.h>

#include <QtCore/QObject>
#include <QtNetwork/QHostAddress>

#include <functional>

class NuvikaTcpSocketAsyncHelper;
class NuvikaTcpSocketConnect;
class NuvikaTcpSocketIO;
namespace Nuvika
{
class HalfClose;
class ReceivePlacer;
class SendRoom;
} // namespace Nuvika

/// A TCP stream socket on a Qt event loop: one connection at a time, outgoing (connectToHost()) or accepted
/// (setSocketDescriptor()), everything reported by signals on the thread that made the object.
///
/// Threads: every member is called on the owner thread, which needs an event loop. No call blocks on the
/// network.
///
/// Lifetime: a handler of any signal may close, reuse or delete the socket. A socket that is destroyed ends
/// its connection at once.
///
/// Sending: bytes are copied into a bounded queue and leave at once where the system takes them. A block
/// that was taken is taken whole, also past the bound; the next sendData() then returns false until
/// sigCanSend(). Nothing taken is lost while the connection lives; close() discards what is still queued,
/// sendEndOfData() sends it first.
///
/// Receiving: dataReceived() points into a buffer of the thread, which is used again as soon as the handlers
/// have returned. With a nested event loop inside a handler, a second dataReceived() may be delivered within
/// the first.
///
/// Errors: once per connection, by error(int) with a code of SocketError; the state is eError then, and
/// close() makes the socket usable again. Names that do not resolve give 11001.
class KEPNUVIKAUTIL_EXPORT NuvikaTcpSocket : public QObject
{
    Q_OBJECT
public:
    enum STATE {
        eUnconnected = 0, ///< initial; after close() and after the peer's end
        eConnecting = 1,
        eConnected = 2,
        eError = 3 ///< ended with an error; close() first
    };

    /// The expected load, from which the buffer sizes follow.
    ///
    /// |         | system buffers | receives of | send queue  |
    /// |---------|----------------|-------------|-------------|
    /// | eLight  | 8 / 8 KiB      | 4 KiB       | 40 KiB      |
    /// | eMedium | 32 / 64 KiB    | 32 KiB      | 768 KiB     |
    /// | eHeavy  | 512 / 512 KiB  | 512 KiB     | 3 MiB       |
    ///
    /// On Linux, buffers that hold few of a path's segments stall (loopback has segments of 64 KiB): a medium
    /// connecting side limits its segments to 16384 bytes, a light one on loopback to 1448, a heavy one needs
    /// no limit. An accepted light socket on loopback stays slow. Over long paths a fixed buffer bounds the
    /// rate (64 KiB at 50 ms: some 1.3 MB/s), which setSystemBuffers() changes.
    enum LOAD_PROFILE { eLight = 0, eMedium = 1, eHeavy = 2 };

    /// Who sizes the system's buffers.
    enum SYSTEM_BUFFERS {
        eAsProfile = 0, ///< the load profile: fixed, so that many connections cost little
        eTuned = 1 ///< the system, by each path's rate and delay, up to its own limits
    };

    /// Last argument of every signal that hands out received bytes: they are valid only during the emission.
    /// The type is never registered with Qt, so that a queued connection to such a signal fails.
    struct QueuedConnNotAllowed {
    };

    /// \a flag: only one receive is outstanding instead of two, and nothing is received in nested loops.
    explicit NuvikaTcpSocket(LOAD_PROFILE sendProfile = eMedium, LOAD_PROFILE recvProfile = eMedium,
        bool flag = false, QObject* parent = nullptr);
    /// \a sendQueueHint: bytes that the send queue holds before it is full, instead of the profile's; a value
    /// below 1 changes nothing.
    NuvikaTcpSocket(LOAD_PROFILE sendProfile, LOAD_PROFILE recvProfile, int sendQueueHint, bool flag,
        QObject* parent = nullptr);
    ~NuvikaTcpSocket() override;

    /// Resolves the name and tries its addresses in turn, IPv4 first. Only when unconnected; connected() or
    /// error(int) follows, never inside the call.
    void connectToHost(const QString& host, unsigned short port);
    void connectToHost(const QHostAddress& address, unsigned short port);
    /// Takes an accepted descriptor; one sigCanSend() follows. Only when unconnected: a descriptor that is
    /// refused stays the caller's.
    void setSocketDescriptor(int socket);
    /// Ends whatever goes on and discards what is queued. Emits nothing. Receiving that was stalled stays so
    /// for the next connection.
    void close();
    /// close(), then the error state with that code. Emits nothing.
    void errorClose(int errorCode);

    /// False when nothing was taken: not connected, the queue full, end of data already announced, or a
    /// negative size. A size of 0 asks whether the queue has room.
    bool sendData(const char* data, int size);
    bool sendData(const KepNuvikaUtil::BUFFER* buffer, int count);
    /// Ends the sending direction once everything queued has left.
    bool sendEndOfData();
    bool canSend() const;
    /// Stops and resumes receiving: while stalled the peer's bytes wait in the system and slow the peer
    /// down. A receive that is already posted is still delivered.
    void stallRecv();
    void resumeRecv();

    STATE getState();
    QString errorString();
    QHostAddress localAddress();
    unsigned short localPort() const;
    QHostAddress peerAddress();
    unsigned short peerPort() const;
    /// "host:port" of the last connectToHost(); stays after a close.
    const QString& peerName() const;

    /// Asks for one sigAllSent(). False when everything has left already (no signal follows then).
    bool notifyWhenAllSent();
    /// Bytes or the peer's end wait to be received: looks ahead of the signals, with one system call.
    bool hasPendingInput() const;
    /// For connections that begin from now on; set it before connecting or taking a descriptor. eAsProfile
    /// unless told otherwise. For accepted connections, NuvikaTcpServer's setting counts as well.
    void setSystemBuffers(SYSTEM_BUFFERS buffers);

    /// Bytes that were handed over and not yet given to the system; 0 when not connected.
    qint64 bytesToSend() const;

    /// Asks a silent peer for a sign of life after \a idleSeconds, then each \a intervalSeconds; one that
    /// leaves \a probes of them unanswered is gone: error(10060). For the connection that lives and for those
    /// to come. Off unless told otherwise. What the system refuses is told by a warning.
    void setKeepAlive(bool on, int idleSeconds = 60, int intervalSeconds = 10, int probes = 6);
    /// Whether small pieces leave at once (the default), or wait while earlier ones are not acknowledged. For
    /// the connection that lives and for those to come.
    void setNoDelay(bool on);
    /// For connections that begin from now on: the name's lookup and all its addresses together may take so
    /// long, then the attempt ends by error(10060). 0, the default: as long as the system tries.
    void setConnectTimeLimit(int ms);

    /// A parent is no flag: false stands before it.
    template <class Object>
    NuvikaTcpSocket(LOAD_PROFILE sendProfile, LOAD_PROFILE recvProfile, Object* parent, QObject* = nullptr)
        = delete;

signals:
    /// The queue has room again. Always from the event loop, never from inside a transfer's completion.
    void sigCanSend();
    void dataReceived(const char* pData, int size, NuvikaTcpSocket::QueuedConnNotAllowed);
    void connected();
    void disconnected();
    void error(int errorCode);
    /// Everything handed over has been given to the system; once for each notifyWhenAllSent().
    void sigAllSent();

protected:
    void customEvent(QEvent* event) override;

private slots:
    void slotConnected(int socketDescriptor);
    void slotDisconnected();
    void slotError(int errorCode);
    void emitCanSendAsync(quint64 sessionId);

private:
    bool prepareConnect(const QString& host, unsigned short port);
    void emitCanSend();
    void releaseConnection();
    void readAddresses(int socket);
    void applyKeepAlive();
    void applyNoDelay();

    LOAD_PROFILE m_sendProfile;
    LOAD_PROFILE m_recvProfile;
    qint32 m_nSendQueueHint;
    STATE m_state = eUnconnected;
    NuvikaTcpSocketIO* m_pIOSocket = nullptr; // ends itself after detach()
    NuvikaTcpSocketConnect* m_pConnect = nullptr; // owned; only while connecting
    qint32 m_nError = 0;
    QString m_peerName;
    NuvikaTcpSocketAsyncHelper* m_pAsyncHelper; // owned, a child
    Qt::HANDLE m_currentThreadId;
    quint64 m_nSession = 0;
    QHostAddress m_localAddress;
    QHostAddress m_peerAddress;
    quint16 m_nLocalPort = 0;
    quint16 m_nPeerPort = 0;
    quint32 m_nFirstFailure = 0;
    bool m_bSingleReceive;
    bool m_bRecvStalled = false;
    std::function<void()> m_peerEnded; // instead of the end at the peer's end
    SYSTEM_BUFFERS m_systemBuffers = eAsProfile;
    struct KeepAlive {
        bool bOn = false;
        int nIdle = 0; // seconds
        int nInterval = 0;
        int nProbes = 0;
    };
    KeepAlive m_keepAlive;
    bool m_bNoDelay = true;
    int m_nConnectTimeLimit = 0; // milliseconds
    QString m_problem; // the error, where the code's text does not tell it
    Nuvika::ReceivePlacer* m_pPlacer = nullptr; // of the library's own readers
    friend class Nuvika::ReceivePlacer;
    friend class NuvikaTcpSocketIO;
    friend class Nuvika::HalfClose;
    friend class Nuvika::SendRoom;
};
