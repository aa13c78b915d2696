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

class QIODevice;

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
/// - With the stream flag streamFinished() follows the last of these, however the body was framed.
///
/// A body of known length may have 2^31 - 1 bytes, streamed or not; other streamed ones have no bound. What
/// is sent has none.
///
/// "Expect: 100-continue" in the head of a request with a body (RFC 9110, 10.1.1): the head leaves alone, and
/// the body when the server answers 100, or nothing for 1 s. After any other answer the body is never sent,
/// and the connection ends with the answer. A 401 is answered by another head that asks first: so a large
/// upload to a server that wants Digest costs one passage of its body. A 417 is answered once, without the
/// field.
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
/// pieces. Only an upload of which pieces were sent is given up at once, unless it comes from a device that
/// can go back. A failed connect counts as a loss, and so does a refused certificate or any failed set-up of
/// TLS: three error() for one request then. setRetryPolicy() has it otherwise.
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
    /// and the answer is awaited as for any request. False when that is not the request being sent, for
    /// more than was announced or behind the last piece, and while an expected 100 is awaited. A server that
    /// answers before the body is complete ends the request; its connection is closed then.
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
    /// A part of what stands at the path, from the byte \a first to \a last, or to the end with -1 (RFC 9110,
    /// 14.2). HttpContentRange tells what part an answer holds: 206, or 416 for none; a server that knows no
    /// ranges answers 200, with all of it.
    int getRange(const QString& path, qint64 first, qint64 last, const QString& user, const QString& password,
        bool keepAlive);
    /// The last \a count bytes of what stands at the path, or all where there are fewer.
    int getLastBytes(
        const QString& path, qint64 count, const QString& user, const QString& password, bool keepAlive);

    /// Whether a piece of the upload at the front may be handed over, and waits for nothing. While it is
    /// false pieces are taken and queued without a bound, but for one case: sendUploadContentChunk() refuses
    /// while an expected 100 is awaited. Of an upload from a device always false.
    bool canSendUploadContent() const;
    /// Of the upload at the front, the bytes that were handed over and not yet given to the system: with
    /// their framing, and over TLS encrypted.
    qint64 bytesToUpload() const;

    /// Sends a head with a body that is read from a device, in pieces of at most 64 KiB and as the connection
    /// takes them, from where the device stands. A head without "content-length" and "transfer-encoding" gets
    /// the length of a random access device, and chunked coding otherwise.
    ///
    /// The device stays the caller's and must be open for reading until the request has ended. A sequential
    /// one is read when it says readyRead(); it ends with readChannelFinished(), or a read that returns -1 (a
    /// file: 0). Reading blocks where the device's does. The request fails, and its connection ends, where a
    /// read fails, the device ends before the announced length, or is closed or destroyed. Sending again
    /// after a loss needs a device that can go back; a 401 or 417 that would need it is delivered then. Once
    /// an answer of 400 or more has begun nothing more is sent.
    int upload(const HttpRequestHeader& header, QIODevice* source, const QString& user = QString(),
        const QString& password = QString());
    /// A get() whose answer, when it is a 2xx, is written to a device as it comes, from where the device
    /// stands.
    ///
    /// responseHeaderReceived(), downloadProgress() and streamFinished() tell of it, nothing else; any other
    /// answer is told as that of get(), and its body is not written. The device stays the caller's and must
    /// be open for writing until then. A file is flushed before the end is told. The request fails, and its
    /// connection ends, where the device takes less than all (errorString() has its reason), or is closed or
    /// destroyed. After a loss the answer begins anew, at the device's old place: a sequential device that
    /// has got bytes fails instead. What a failed request has written stays.
    int download(
        const QString& path, QIODevice* target, const QString& user, const QString& password, bool keepAlive);
    /// The same with a head of the caller's.
    int download(const HttpRequestHeader& header, QIODevice* target, const QString& user = QString(),
        const QString& password = QString());

    /// For the connections to come, plain and over TLS: through an HTTP proxy, which opens a way to the
    /// server (CONNECT). An empty \a host: none, the default; the environment is never looked at. The
    /// server's name is the proxy's to resolve, and its certificate is verified as without. With a \a user
    /// the credentials go to the proxy with the first request (Basic), in the clear. lastPeerAddress() is the
    /// proxy's.
    ///
    /// What goes wrong there counts as a failed connection (HttpFailure::eProxy), and errorString() names the
    /// proxy: error(10061), its refusal, with the status; 10060, no answer within 10 s; 10053, an answer that
    /// is none.
    void setProxy(const QString& host, unsigned short port, const QString& user = QString(),
        const QString& password = QString());

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
    /// canSendUploadContent() is true: an upload's head has left, or there is room again. From the event
    /// loop.
    void sigCanSendUploadContent();
    /// The end of an answer whose request had the stream flag, or was a download(), with the size of its
    /// body: the request's last signal. Not after requestFailed(), nor where the handler before it calls
    /// shutdown().
    void streamFinished(int id, const HttpResponseHeader& resp, qint64 size);
    /// A piece of an upload() has been read and handed over. \a total: -1 when it is not known.
    void uploadProgress(int id, qint64 sent, qint64 total);
    /// A piece of a download() has been written.
    void downloadProgress(int id, qint64 received, qint64 total);

protected:
    class Private;
    HttpClientBase(std::unique_ptr<Private> data, QObject* parent);

    bool m_bKeepAlive = false;
    std::unique_ptr<Private> d;

private:
    int sendJSON(const char* method, const QString& path, const QByteArray& json, const QString& user,
        const QString& password, bool keepAlive);
};
