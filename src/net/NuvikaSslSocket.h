#pragma once

#include <KepNuvikaUtil/Export.h>
#include <KepNuvikaUtil/NuvikaTcpSocket.h>
#include <KepNuvikaUtil/TlsPin.h>

#include <QtCore/QByteArray>
#include <QtCore/QDateTime>
#include <QtCore/QList>
#include <QtCore/QObject>

#include <functional>
#include <memory>

class QDebug;

namespace Nuvika
{
class HalfClose;
class ProxyTunnel;
class ReceivePlacer;
} // namespace Nuvika

/// A TLS connection on a Qt event loop, over a NuvikaTcpSocketQueued: a client (connectToHost()) or the
/// server's end of an accepted connection (setSocketDescriptor()).
///
/// Threads: every member is called on the owner thread, which needs an event loop. No call blocks.
///
/// Lifetime: a handler of any signal may close, reuse or delete the socket. Configuration is taken by the
/// next connection; initSsl() must have succeeded before it. Connections of one configuration share what was
/// read from files, on all threads. The next initSsl() reads again what has changed: a file, a file of a
/// folder; of the system's trusted certificates, the list of its folder. Reconnects resume earlier sessions
/// where the server allows it, within two hours of the peer's verification.
///
/// Sending never refuses bytes for lack of room, unless setSendLimit() asks for it. While the peer has begun
/// a handshake within the connection, or a part of one, what is sent waits, and canSend() is false: for 10
/// seconds and for 64 MiB, then the connection fails. A TLS 1.2 server may do so to ask for a client's
/// certificate (Apache and IIS do, where one folder wants it); our servers do not, and refuse it to their
/// clients.
///
/// Receiving: dataReceived() does not nest; bytes that arrive while a handler runs an event loop follow when
/// it has returned.
///
/// Errors: once per connection, by error(int); errorString() tells in a sentence why. The codes are
/// SocketError's and: 5, a handshake took more than 10 seconds; 10013, a certificate was refused, by us or by
/// the peer; 10053, any other failure of TLS. The state is eError then, and close() makes the socket usable
/// again.
class KEPNUVIKAUTIL_EXPORT NuvikaSslSocket : public QObject
{
    Q_OBJECT
public:
    /// Versions 1.0 and 1.1 are weak: they lower what is asked of keys and signatures, too.
    enum SslProtocol {
        eSslAny12 = 0, ///< any from TLS 1.2 up
        eSslAny10 = 1, ///< any from TLS 1.0 up
        eTls10 = 2,
        eTls11 = 3,
        eTls12 = 4,
        eTls13 = 5
    };

    /// What is asked of the peer's certificate. A server asks clients for certificates only when it was given
    /// trusted ones; they have no host name to compare.
    enum SslVerifyCertificateMode {
        eVerifyNone = 0, ///< anybody may be at the other end
        eVerifyChain = 1, ///< issued, at any distance, by a trusted one
        eVerifyChainAndHost = 2 ///< and for the name or address that was connected to; the default
    };

    struct PeerCertificate {
        QString subject; ///< as in RFC 4514
        QString issuer;
        QDateTime validFrom; ///< UTC
        QDateTime validUntil;
        QByteArray sha256; ///< of the certificate, 32 bytes; empty when there is none
        QByteArray publicKeySha256; ///< of its SubjectPublicKeyInfo, as curl pins it
        QByteArray der; ///< the certificate itself
    };

    explicit NuvikaSslSocket(QObject* parent = nullptr);
    /// \a sendQueueHint as in NuvikaTcpSocket.
    explicit NuvikaSslSocket(int sendQueueHint, QObject* parent = nullptr);
    /// Says goodbye to the peer as far as that needs no waiting.
    ~NuvikaSslSocket() override;

    /// Configures the connections to come. An empty string stands for the one that a setter has stored.
    /// \param server this end is the server's.
    /// \param certificateFileName PEM file with our certificate, its chain and its key; a client may have
    /// none. \param certificateFilePath PEM file or folder of trusted certificates; none: the system's.
    /// \param passPhrase of our key.
    /// \return false behind a warning; errorString() tells why. A later connect then fails by error(10053).
    bool initSsl(bool server, SslProtocol protocol, const QString& certificateFileName,
        const QString& certificateFilePath, const QString& passPhrase);
    /// For the next initSsl().
    void setCertificateVerificationMode(SslVerifyCertificateMode mode);
    void setCertificateFileName(const QString& certificateFileName);
    void setCertificateFilePath(const QString& certificateFilePath);
    SslProtocol getSllProtocol() const;

    /// As NuvikaTcpSocket's; connected() follows the handshake. While a close is pending the connect waits.
    void connectToHost(const QString& host, unsigned short port);
    void connectToHost(const QHostAddress& address, unsigned short port);
    void setSocketDescriptor(int socket);
    /// Sends what is queued and close_notify, which a peer that does not read can hold up for 500 ms; to the
    /// caller the socket is unconnected at once. What waits for the peer's handshake is discarded. Emits
    /// nothing.
    void close();

    /// False when not connected, after sendEndOfData(), for a negative size, at the send limit, and when the
    /// connection cannot send any more; error(int) follows then.
    bool sendData(const char* data, int size);
    /// Ends the sending direction, by close_notify and then TCP's end, once everything queued has left.
    void sendEndOfData();
    /// Whether what is sent now waits for nothing; for senders of endless data, with sigCanSend().
    bool canSend() const;
    /// As NuvikaTcpSocket's.
    void stallRecv();
    void resumeRecv();
    bool hasPendingInput() const;

    NuvikaTcpSocket::STATE getState();
    QString errorString();
    QHostAddress localAddress();
    unsigned short localPort() const;
    QHostAddress peerAddress();
    unsigned short peerPort() const;
    const QString& peerName() const;
    /// Of the last connection, also when the certificate was refused; a resumed session has the earlier one.
    PeerCertificate peerCertificate() const;
    /// "TLSv1.3", and the cipher's name; empty before a handshake.
    QString protocolName() const;
    QString cipherName() const;
    bool isSessionResumed() const;
    /// Asks for one sigAllSent(). False when everything has left already (no signal follows then).
    bool notifyWhenAllSent();
    /// For connections that begin from now on, as NuvikaTcpSocket's: without eTuned, some 1.3 MB/s at
    /// 50 ms.
    void setSystemBuffers(NuvikaTcpSocket::SYSTEM_BUFFERS buffers);
    /// As above, from several places; one system call where they fit.
    bool sendData(const KepNuvikaUtil::BUFFER* buffer, int count);

    /// Encrypted bytes that were not yet given to the system, and what waits for a handshake of the peer's;
    /// 0 when not connected.
    qint64 bytesToSend() const;
    /// While so many bytes wait, sendData() refuses further ones: false, and nothing is taken; sigCanSend()
    /// follows. A block that was taken is taken whole, also past the limit. 0, the default: none.
    /// What TLS itself sends, such as answers to the peer's key updates and the end, is never refused.
    void setSendLimit(qint64 bytes);
    /// What tells that refusal from the others. canSend() is false as well.
    bool isSendLimitReached() const;
    /// As NuvikaTcpSocket's; of the time limit, the TCP connection's: the handshake has its own.
    void setKeepAlive(bool on, int idleSeconds = 60, int intervalSeconds = 10, int probes = 6);
    void setNoDelay(bool on);
    void setConnectTimeLimit(int ms);

    /// What stands against a certificate.
    struct CertificateReason {
        int code = 0; ///< OpenSSL's X509_V_ERR_...
        QString text; ///< a sentence
    };
    /// What a verdict is asked for.
    struct PeerChain {
        QString host; ///< as it was called when connecting
        unsigned short port = 0;
        QList<PeerCertificate> certificates; ///< as the peer sent them, its own first
        QList<CertificateReason> reasons; ///< none: it is about to be accepted
    };
    using VerdictHandler = std::function<bool(const PeerChain&)>;

    /// For the next initSsl(); for cameras that sign their certificate themselves. With pins a connection
    /// holds only if the peer's own certificate or its public key is among them: any other is refused
    /// (10013), and errorString() tells its fingerprints. A pinned one is trusted whoever issued it, whatever
    /// its names, dates and strength: the mode of verification and trusted certificates do not count. (With
    /// curl's --pinnedpubkey they do, unless --insecure.) A server with pins asks its clients for
    /// certificates. Sessions are resumed among connections with the same pins only. No pins, the default:
    /// nothing is pinned; pins of nothing match nobody.
    void setPins(const QList<TlsPin>& pins);
    /// For the connections of clients that begin from now on; an empty one asks nobody. The handler is called
    /// once for each connection, from the event loop, when the certificate was looked at and before
    /// connected(): nothing of ours has left but the first greeting, no certificate of ours and no byte of
    /// the caller's. It returns whether to go on: also where there are reasons against it, which a false or
    /// no handler makes an error (10013), or where there are none. With eVerifyNone, reasons never come.
    ///
    /// The handler may close, reuse or delete the socket, or run an event loop: the handshake's time limit
    /// stands still meanwhile, and what it returns counts only if the connection is still the same. That the
    /// peer has the certificate's key is proven later: keep what you accept when connected() has come. Such
    /// connections resume no session and leave none to resume, so that each is asked about; a TLS 1.2 server
    /// that begins another handshake within the connection must show the same certificate.
    void setVerdictHandler(VerdictHandler handler);

signals:
    void connected();
    void dataReceived(const char* pData, int size, NuvikaTcpSocket::QueuedConnNotAllowed);
    /// \a unannounced: 0 behind the peer's close_notify; 1 without: what came last may have been cut off by
    /// somebody on the path. Either way what is still queued for the peer is discarded.
    void disconnected(unsigned long unannounced);
    void error(int errorCode);
    /// canSend() is true again.
    void sigCanSend();
    /// Everything handed over has been given to the system; once for each notifyWhenAllSent().
    void sigAllSent();

private:
    class Private;
    std::unique_ptr<Private> d;
    friend class Nuvika::ReceivePlacer;
    friend class Nuvika::ProxyTunnel;
    friend class Nuvika::HalfClose;
};

/// For logs.
KEPNUVIKAUTIL_EXPORT QDebug operator<<(QDebug debug, const NuvikaSslSocket::PeerCertificate& certificate);
