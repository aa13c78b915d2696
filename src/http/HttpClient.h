#pragma once

#include <KepNuvikaUtil/Export.h>
#include <KepNuvikaUtil/HttpReadLimits.h>
#include <KepNuvikaUtil/HttpRequestHeader.h>
#include <KepNuvikaUtil/HttpResponseHeader.h>
#include <KepNuvikaUtil/NuvikaTcpSocket.h>
#include <KepNuvikaUtil/SharedPoolBuffer.h>

#include <memory>

/// An HTTP/1.1 client of one server (RFC 9112), with Basic and Digest authentication.
///
/// Requests are queued and sent one at a time over one connection, which is kept where the server allows it.
/// Every request operation returns an id, and the signals carry it. A body is delivered whole by
/// requestFinished(), or piece by piece (stream flag, multipart streams).
///
/// - An answer with a length: requestFinished() with the content; with the stream flag contentChunk(), whose
///   last one ends it.
/// - Chunked, or until the connection's end: the same; with the stream flag contentChunk(), then
///   requestFinished() without content.
/// - multipart/x-mixed-replace: multipartReplaceContent() for each part, until shutdown() or the connection's
///   end; with the stream flag as above.
///
/// Threads: owned by the thread that made it, which needs an event loop; the library must be initialised for
/// host names. Content pointers hold during the emission only.
/// Lifetime: a handler of any signal may shut down or delete the client, or queue further requests.
/// Errors: a request whose connection is lost three times, whose answer is no HTTP or exceeds a limit
/// (setReadLimits()), ends in requestFailed(); error() tells the code
/// (10053 for an answer that cannot be read). A 401 is answered once with credentials; a second one is
/// delivered by requestFinished(). There is no time limit on an answer: shutdown() ends a request that takes
/// too long.
class KEPNUVIKAUTIL_EXPORT HttpClient : public QObject
{
    Q_OBJECT
public:
    HttpClient(const QString& host, unsigned short port, bool keepAlive, QObject* parent = nullptr);
    /// \a sendQueueHint as in NuvikaTcpSocket.
    HttpClient(const QString& host, unsigned short port, bool keepAlive, int sendQueueHint,
        QObject* parent = nullptr);
    /// As shutdown().
    ~HttpClient() override;

    /// Sends a head as it stands, with a body. \a authMode 1 leaves the head's own "Authorization" alone;
    /// otherwise credentials are sent when user and password are both given. A head that announces more than
    /// the body holds (a larger content-length, or chunked coding) is an upload: the rest follows by
    /// sendUploadContentChunk().
    int request(const HttpRequestHeader& header, bool stream, const SharedPoolBuffer* body,
        const QString& user, const QString& password, int authMode);
    int get(const QString& path, const QString& user, const QString& password, bool keepAlive);
    int plainPost(const QString& path, const QByteArray& content, const QString& user,
        const QString& password, bool keepAlive);
    int put(const QString& path, const QByteArray& content, const QString& user, const QString& password,
        bool keepAlive, const QString& contentType);
    int soapRequest(const QString& path, const QString& action, const QByteArray& content,
        const QString& user, const QString& password, bool keepAlive);

    /// Sends a further piece of the upload that is at the front of the queue; \a last: the body is complete,
    /// and the answer is awaited as for any request. False when that is not the request being sent.
    bool sendUploadContentChunk(int id, const char* data, int size, bool last);
    /// The other end of an upload: the client half-closes, ignores what the server still sends, and emits
    /// sendEndOfUploadContentFinished() at the connection's end (after 5 s at the latest). The request has
    /// left the queue then.
    void sendEndOfUploadContent();

    /// Queued requests, the one being sent included.
    int numOfPendingRequests() const;
    /// Removes a request that was not written yet; no signal follows.
    void discardNonePendingRequest(int id);
    /// Removes every request, with requestCancelled() for each, and closes the connection.
    void shutdown();

    /// For the answers to come; see HttpReadLimits for the defaults.
    void setReadLimits(const HttpReadLimits& limits);

    QHostAddress lastLocalAddress() const;
    QHostAddress lastPeerAddress() const;
    /// Why error() was last emitted, in words.
    QString errorString() const;

signals:
    /// Not for a 401.
    void responseHeaderReceived(int id, const HttpResponseHeader& resp);
    void requestFinished(int id, const HttpResponseHeader& resp, const char* content, int contentSize,
        NuvikaTcpSocket::QueuedConnNotAllowed);
    void requestFailed(int id);
    void requestCancelled(int id);
    void multipartReplaceContent(int id, const HttpResponseHeader& resp, const char* contentType,
        const char* contentChunk, int size, NuvikaTcpSocket::QueuedConnNotAllowed);
    void contentChunk(int id, const HttpResponseHeader& resp, const char* data, int size,
        NuvikaTcpSocket::QueuedConnNotAllowed);
    void error(int errorCode);
    void sendEndOfUploadContentFinished();

private slots:
    void slotSockConnected();
    void slotSockDataReceived(const char* pData, int size, NuvikaTcpSocket::QueuedConnNotAllowed);
    void slotSockDisconnected();
    void slotSockError(int errorCode);

private:
    class Private;

    bool m_bKeepAlive;
    std::unique_ptr<Private> d;
};
