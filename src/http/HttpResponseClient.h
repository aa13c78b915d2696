#pragma once

#include <KepNuvikaUtil/Buffer.h>
#include <KepNuvikaUtil/Export.h>
#include <KepNuvikaUtil/HttpFailure.h>
#include <KepNuvikaUtil/HttpReadLimits.h>
#include <KepNuvikaUtil/HttpRequestHeader.h>
#include <KepNuvikaUtil/HttpResponseHeader.h>
#include <KepNuvikaUtil/HttpServerTimeLimits.h>
#include <KepNuvikaUtil/NuvikaSslSocket.h>
#include <KepNuvikaUtil/NuvikaTcpSocket.h>
#include <KepNuvikaUtil/SharedPoolBuffer.h>

#include <memory>

/// The server side of one accepted HTTP/1.1 connection, plain or over TLS.
///
/// Requests arrive by signals, in order; the owner answers each by one response(), in the same order. Bytes
/// behind a complete request are the next one (pipelining): several may be delivered before the first answer,
/// up to 4096, but none while an answer streams. Answers never overtake each other: one that is given while
/// the one before it streams waits for its end. A request with a length, or without a body, comes
/// whole by requestReceived(); a chunked one by contentChunk(), of which an empty one is the end; a multipart
/// one by multipartReplaceContent(), its end by requestReceived() without content (by the empty
/// contentChunk() where it is chunked). Without any length, POST, PUT and PATCH last until the connection
/// ends, other requests end with their head. "Expect: 100-continue" is answered here.
///
/// After the answer to a request that asked for it, or one that says "Connection: close", the connection is
/// closed without losing the answer's last bytes. A "Connection" field is added to an answer that has none
/// where the peer needs it: "close" before a close, "keep-alive" for HTTP/1.0 clients that asked for it.
///
/// Threads: owned by the thread that made it, which needs an event loop. Content pointers hold during the
/// emission only.
/// Lifetime: a handler of any signal may shut down or delete the connection. The object stays after the
/// connection has ended, which disconnected() tells.
/// A peer that ends its direction behind its request gets its whole answer; a connection that makes no
/// progress for 5 s behind that end is closed.
/// TLS: all is as in the clear. The connection counts as connected from its begin; its handshake has 10 s. A
/// request that lasts until the connection's end is told only where close_notify announced that end, since
/// somebody on the path may have cut it off.
/// Errors: failure() tells why. error() for a request that is no HTTP (heads and chunks are read to the
/// letter), exceeds a limit (setReadLimits()) or is late (setTimeLimits()), for a socket error, and for a
/// response() without a connection; never from inside a handler of error(). Inside error() after a bad
/// request the owner may still respond, else 400 is sent (408 for a late one); the connection closes behind
/// that, and behind the answers to the requests before, which have 5 s.
/// Memory: what the peer does not read waits here, and while anything waits no further request is read. A
/// server of live pictures asks canSendContent() and skips a picture when it says no.
class KEPNUVIKAUTIL_EXPORT HttpResponseClient : public QObject
{
    Q_OBJECT
public:
    /// Takes an accepted descriptor. \a singleReceive as the flag of NuvikaTcpSocket.
    HttpResponseClient(int socketDescriptor, bool singleReceive, QObject* parent = nullptr);
    ~HttpResponseClient() override;

    /// Writes a head and a body (null or empty for none). \a moreContent announces that the body goes on with
    /// sendContent() and ends with endContent(): with "transfer-encoding: chunked" in the head each piece is
    /// framed as a chunk, with a content-length the pieces add up to it, and with neither the connection's
    /// end is the end. Without a connection: error().
    void response(const HttpResponseHeader& header, bool moreContent, const SharedPoolBuffer* body);
    /// Closes the connection at once.
    void shutdown();

    /// Writes a further piece of the response that announced it; one system call where the peer keeps up.
    /// Nothing is refused for lack of room. False without such a response.
    bool sendContent(const char* data, int size);
    bool sendContent(const KepNuvikaUtil::BUFFER* ranges, int count);
    /// Ends that response; responseFinished() follows.
    bool endContent();
    /// The peer keeps up: everything written so far has left, or nearly. sigCanSendContent() tells when it
    /// does so again.
    bool canSendContent() const;
    bool isConnected() const;
    /// For the requests to come; a server rarely wants the default of 1 GiB for a collected body.
    void setReadLimits(const HttpReadLimits& limits);

    QHostAddress peerAddress() const;
    unsigned short peerPort() const;

    /// \a buffers as by NuvikaTcpSocket::setSystemBuffers(), which would come too late for a connection that
    /// has begun: with eAsProfile a viewer 50 ms away gets some 1.1 MB/s. NuvikaTcpServer's setting counts
    /// too.
    HttpResponseClient(int socketDescriptor, bool singleReceive, NuvikaTcpSocket::SYSTEM_BUFFERS buffers,
        QObject* parent = nullptr);

    using SslProtocol = NuvikaSslSocket::SslProtocol;
    /// TLS. The three strings as in NuvikaSslSocket::initSsl(): our certificate with its key, the trusted
    /// ones of clients (none: no client is asked for one), the pass phrase of our key. Files are read once
    /// for all connections while one lives. What is wrong with them is each connection's error().
    HttpResponseClient(int socketDescriptor, SslProtocol protocol, const QString& certificateFileName,
        const QString& certificateFilePath, const QString& passPhrase, QObject* parent = nullptr);
    HttpResponseClient(int socketDescriptor, SslProtocol protocol, const QString& certificateFileName,
        const QString& certificateFilePath, const QString& passPhrase,
        NuvikaTcpSocket::SYSTEM_BUFFERS buffers, QObject* parent = nullptr);
    /// None by default, so that a silent peer may keep its connection for ever. From now on: an idle
    /// connection closes without error(); a head or a body that is late ends in error() and 408, where the
    /// answer has not begun; an answer that is not read, in error().
    void setTimeLimits(const HttpServerTimeLimits& limits);
    /// Why the first error() came, or the connection ended before its time; eNone until then.
    HttpFailure failure() const;
    /// The client's, where it was asked for one.
    NuvikaSslSocket::PeerCertificate peerCertificate() const;

signals:
    void requestReceived(const HttpRequestHeader& header, const char* content, int contentSize,
        NuvikaTcpSocket::QueuedConnNotAllowed);
    void contentChunk(
        const HttpRequestHeader& header, const char* data, int size, NuvikaTcpSocket::QueuedConnNotAllowed);
    void multipartReplaceContent(const HttpRequestHeader& header, const char* contentType,
        const char* contentChunk, int size, NuvikaTcpSocket::QueuedConnNotAllowed);
    /// The last byte of a response has been given to the system.
    void responseFinished();
    void error();
    void disconnected();
    void sigCanSendContent();

private slots:
    void slotSockDataReceived(const char* pData, int size, NuvikaTcpSocket::QueuedConnNotAllowed);
    void slotSockDisconnected();
    void slotSockError(int errorCode);
    void slotSockCanSend();
    void slotSockAllSent();

private:
    class Private;
    std::unique_ptr<Private> d;
};
