#pragma once

#include <KepNuvikaUtil/Export.h>
#include <KepNuvikaUtil/NuvikaTcpSocket.h>

#include <memory>

namespace Nuvika
{
class ChunkQueue;
class HalfClose;
class ProxyTunnel;
class ReceivePlacer;
class SendRoom;
} // namespace Nuvika

/// A TCP socket whose sendData() never refuses bytes for lack of room, unless setSendLimit() asks for it:
/// what the socket cannot take at once waits in a queue of 1 MiB chunks. The order of bytes is kept.
///
/// Threads, lifetime, errors: as NuvikaTcpSocket. Both directions use the medium load profile.
/// Closing: close(), a disconnect and an error discard what is queued.
class KEPNUVIKAUTIL_EXPORT NuvikaTcpSocketQueued : public QObject
{
    Q_OBJECT
public:
    /// \a sendQueueHint and \a flag as in NuvikaTcpSocket.
    NuvikaTcpSocketQueued(int sendQueueHint, bool flag, QObject* parent = nullptr);
    explicit NuvikaTcpSocketQueued(bool flag = false, QObject* parent = nullptr);
    ~NuvikaTcpSocketQueued() override;

    void connectToHost(const QString& host, unsigned short port);
    void connectToHost(const QHostAddress& address, unsigned short port);
    void setSocketDescriptor(int socket);
    void close();
    /// False only when not connected, for a negative size, at the send limit, and once the sending direction
    /// was ended by finishSending() or a half-close (nothing is kept then).
    bool sendData(const char* data, int size);
    /// Asks for the half-close that follows once the queue has drained. With nothing queued and a socket that
    /// never filled, nothing triggers it and the half-close does not happen.
    void sendEndOfData();
    bool isDynamicDataQueueEmpty() const;

    NuvikaTcpSocket::STATE getState();
    QString errorString();
    QHostAddress localAddress();
    unsigned short localPort() const;
    QHostAddress peerAddress();
    unsigned short peerPort() const;
    const QString& peerName() const;

    /// As sendEndOfData(), and also when nothing is queued.
    void finishSending();
    /// As NuvikaTcpSocket's.
    void stallRecv();
    void resumeRecv();
    bool hasPendingInput() const;
    /// Asks for one sigAllSent(). False when everything has left already (no signal follows then).
    bool notifyWhenAllSent();
    /// Whether what is sent now waits for nothing; for senders of endless data, with sigCanSend().
    bool canSend() const;
    /// As NuvikaTcpSocket's.
    void setSystemBuffers(NuvikaTcpSocket::SYSTEM_BUFFERS buffers);

    /// Bytes that were handed over and not yet given to the system; 0 when not connected.
    qint64 bytesToSend() const;
    /// While so many bytes wait, sendData() refuses further ones: false, and nothing is taken; sigCanSend()
    /// follows. A block that was taken is taken whole, also past the limit. 0, the default: none.
    void setSendLimit(qint64 bytes);
    /// What tells that refusal from the others. canSend() is false as well.
    bool isSendLimitReached() const;
    /// As NuvikaTcpSocket's.
    void setKeepAlive(bool on, int idleSeconds = 60, int intervalSeconds = 10, int probes = 6);
    void setNoDelay(bool on);
    void setConnectTimeLimit(int ms);

    /// A parent alone is no flag: false stands before it.
    template <class Object>
    explicit NuvikaTcpSocketQueued(Object* parent, QObject* = nullptr) = delete;

signals:
    void dataReceived(const char* pData, int size, NuvikaTcpSocket::QueuedConnNotAllowed);
    void connected();
    void disconnected();
    void error(int errorCode);
    /// Everything handed over has been given to the system; once for each notifyWhenAllSent().
    void sigAllSent();
    /// canSend() is true again.
    void sigCanSend();

private slots:
    void slotConnected();
    void slotDisconnected();
    void slotError(int errorCode);
    void slotCanSend();

private:
    void discardQueue();
    bool isTunnelInTheWay() const;
    bool queue(const char* data, int size);
    void watchSendLimit();

    bool m_bEndOfData = false;
    bool m_bTellAllSent = false; // once the queue has drained
    bool m_bFinished = false; // nothing may follow what is queued
    std::unique_ptr<NuvikaTcpSocket> m_pSocket;
    std::unique_ptr<Nuvika::ChunkQueue> m_pQueue;
    qint64 m_nSendLimit = 0;
    int m_nConnectTimeLimit = 0; // milliseconds
    Nuvika::ReceivePlacer* m_pPlacer = nullptr;
    std::unique_ptr<Nuvika::ProxyTunnel> m_pTunnel; // once a proxy was named
    friend class Nuvika::ReceivePlacer;
    friend class Nuvika::ProxyTunnel;
    friend class Nuvika::HalfClose;
    friend class Nuvika::SendRoom;
};
