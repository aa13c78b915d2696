#pragma once

#include <KepNuvikaUtil/Export.h>
#include <KepNuvikaUtil/HttpFailure.h>
#include <KepNuvikaUtil/HttpReadLimits.h>
#include <KepNuvikaUtil/HttpRequestHeader.h>
#include <KepNuvikaUtil/HttpResponseHeader.h>
#include <KepNuvikaUtil/HttpRetryPolicy.h>
#include <KepNuvikaUtil/HttpTimeLimits.h>
#include <KepNuvikaUtil/NuvikaTcpSocket.h>
#include <KepNuvikaUtil/SharedPoolBuffer.h>

#include <QtCore/QMap>

#include <memory>

/// What HttpClient and HttpsClient share, so that code for http and https is written once: an HTTP/1.1 client
/// of one server (RFC 9112), with Basic and Digest authentication.
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
///
/// Paths: characters that cannot stand in a request line are percent-encoded, those beyond ASCII as UTF-8;
/// what is encoded stays. A request that would not arrive as it was meant (a line end in a path, a field or a
/// user name, characters beyond Latin-1 in fields or credentials) is not sent: a warning in the log, and
/// requestFailed() from the event loop.
///
/// Errors: a request whose connection is lost three times, whose answer is no HTTP or exceeds a limit
/// (setReadLimits()), ends in requestFailed(), and errorString() tells why; error() tells the code, where
/// there is one (10053 for an answer that cannot be read); failureOf() tells both, and the reason. Without
/// setTimeLimits() an answer may take for ever.
///
/// Repetitions: a request whose connection is lost is sent again, whatever it asks for: a POST may act three
/// times. An answer that was being delivered begins anew, with another responseHeaderReceived() and all its
/// pieces. Only an upload of which pieces were sent is given up at once. A failed connect counts as a loss,
/// and so does a refused certificate or any failed set-up of TLS: three error() for one request then.
/// setRetryPolicy() has it otherwise.
///
/// Credentials: a 401 is answered once, by the best challenge that can be: Digest with SHA-256, Digest with
/// MD5, else Basic. A second one in a row is delivered by requestFinished(). A challenge is kept for the
/// requests that follow when its answer was accepted; a nonce that has expired by then is another 401,
/// answered with the new one.
class KEPNUVIKAUTIL_EXPORT HttpClientBase : public QObject
{
    Q_OBJECT
public:
    ~HttpClientBase() override;

    /// Sends a head as it stands, with a body. \a authMode 1 leaves the head's own "Authorization" alone;
    /// otherwise credentials are sent when user and password are both given. A head that announces more than
    /// the body holds (a larger content-length, or chunked coding) is an upload: the rest follows by
    /// sendUploadContentChunk().
    int request(const HttpRequestHeader& header, bool stream, const SharedPoolBuffer* body,
        const QString& user, const QString& password, int authMode);
    int get(const QString& path, const QString& user, const QString& password, bool keepAlive);
    int getJSON(const QString& path, const QString& user, const QString& password, bool keepAlive);
    /// The fields replace those of the same name that a get() has.
    int getWithHeaderFields(const QString& path, const QMap<QString, QString>& fields, const QString& user,
        const QString& password, bool keepAlive);
    int plainPost(const QString& path, const QByteArray& content, const QString& user,
        const QString& password, bool keepAlive);
    int postJSON(const QString& path, const QByteArray& json, const QString& user, const QString& password,
        bool keepAlive);
    int put(const QString& path, const QByteArray& content, const QString& user, const QString& password,
        bool keepAlive, const QString& contentType);
    int putJSON(const QString& path, const QByteArray& json, const QString& user, const QString& password,
        bool keepAlive);
    int soapRequest(const QString& path, const QString& action, const QByteArray& content,
        const QString& user, const QString& password, bool keepAlive);
    /// A form of one part (RFC 7578).
    /// \param disposition behind "form-data; ", such as name="file"; filename="a.bin"
    /// \param contentType of the part. Refused where one of the two holds a line end.
    int postMultipartFormData(const QString& path, const QByteArray& content, const QString& disposition,
        const QString& contentType, const QString& user, const QString& password);

    /// Sends a further piece of the upload that is at the front of the queue; \a last: the body is complete,
    /// and the answer is awaited as for any request. False when that is not the request being sent, and for
    /// more than was announced or behind the last piece. A server that answers before the body is complete
    /// ends the request; its connection is closed then.
    bool sendUploadContentChunk(int id, const char* data, int size, bool last);
    /// The other end of an upload: the client half-closes, ignores what the server still sends, and emits
    /// sendEndOfUploadContentFinished() at the connection's end, 5 s after everything has left at the latest.
    /// The request has left the queue then. error() before it: the connection ended earlier, and the upload
    /// was cut.
    void sendEndOfUploadContent();

    /// Queued requests, the one being sent included.
    int numOfPendingRequests() const;
    /// Removes a request that was not written yet; no signal follows.
    void discardNonePendingRequest(int id);
    /// Closes the connection and removes every request.
    virtual void shutdown() = 0;

    /// For the answers to come; see HttpReadLimits for the defaults.
    void setReadLimits(const HttpReadLimits& limits);

    QHostAddress lastLocalAddress() const;
    QHostAddress lastPeerAddress() const;
    /// Why a request failed, a connection was lost or error() was emitted last, in words. Empty once another
    /// request has begun.
    QString errorString() const;
    /// For connections that begin from now on, as NuvikaTcpSocket's: without eTuned a server 50 ms away sends
    /// little more than 1.3 MB/s (64 KiB in each round trip).
    virtual void setSystemBuffers(NuvikaTcpSocket::SYSTEM_BUFFERS buffers) = 0;

    /// The general form with a body in a byte array.
    int request(const HttpRequestHeader& header, const QByteArray& body, const QString& user = QString(),
        const QString& password = QString(), bool stream = false);
    /// The request that was written last went over a connection that had carried an answer before.
    bool isConnectionReused() const;

    /// For the requests whose turn comes from now on; none unless set.
    void setTimeLimits(const HttpTimeLimits& limits);
    /// From the next loss on. Besides, with any kind but eAlways a 401 is not answered where the answer would
    /// be what was refused: it is delivered.
    void setRetryPolicy(const HttpRetryPolicy& policy);
    /// Ends a request in whatever state it is: what was not written leaves the queue, one that is being sent
    /// or answered loses its connection. HttpClient emits requestCancelled(), HttpsClient requestFailed(),
    /// inside this call; the next request follows. False, and nothing happens, when there is no such request
    /// (any more).
    bool cancelRequest(int id);
    /// Why that request failed or was cancelled; eNone otherwise, and once another request has begun.
    HttpFailure failureOf(int id) const;

signals:
    /// Not for a 401.
    void responseHeaderReceived(int id, const HttpResponseHeader& resp);
    void requestFinished(int id, const HttpResponseHeader& resp, const char* content, int contentSize,
        NuvikaTcpSocket::QueuedConnNotAllowed);
    void requestFailed(int id);
    void multipartReplaceContent(int id, const HttpResponseHeader& resp, const char* contentType,
        const char* contentChunk, int size, NuvikaTcpSocket::QueuedConnNotAllowed);
    void contentChunk(int id, const HttpResponseHeader& resp, const char* data, int size,
        NuvikaTcpSocket::QueuedConnNotAllowed);
    void error(int errorCode);
    void sendEndOfUploadContentFinished();

protected:
    class Private;
    HttpClientBase(std::unique_ptr<Private> data, QObject* parent);

    bool m_bKeepAlive = false;
    std::unique_ptr<Private> d;

private:
    int sendJSON(const char* method, const QString& path, const QByteArray& json, const QString& user,
        const QString& password, bool keepAlive);
};
