#pragma once

#include <KepNuvikaUtil/Export.h>
#include <KepNuvikaUtil/HttpReadLimits.h>
#include <KepNuvikaUtil/HttpRequestHeader.h>
#include <KepNuvikaUtil/HttpResponseHeader.h>
#include <KepNuvikaUtil/NuvikaSslSocket.h>
#include <KepNuvikaUtil/SharedPoolBuffer.h>

#include <QtCore/QMap>

#include <memory>

/// HttpClient, plain or over TLS, with JSON requests, requests with fields of the caller's and form-data
/// uploads. How requests are queued, repeated, answered and reported, threads, lifetime and errors: as
/// HttpClient, but that shutdown() says nothing about the requests it removes.
///
/// TLS: error() may also tell 5, 10013 and 10053 of NuvikaSslSocket, and errorString() the reason in a
/// sentence. A refused certificate and a wrong pass phrase are tried as often as a lost connection: three
/// error() for one request, 30 s where the handshake stalls. A body that ends with the connection may have
/// been cut off where the server says no goodbye: lastAnswerMayBeCut().
///
/// "Host" carries the port unless it is 80: also 443 is written out.
class KEPNUVIKAUTIL_EXPORT HttpsClient : public QObject
{
    Q_OBJECT
public:
    using SslProtocol = NuvikaSslSocket::SslProtocol;
    using SslVerifyCertificateMode = NuvikaSslSocket::SslVerifyCertificateMode;

    /// Plain: no TLS anywhere.
    HttpsClient(const QString& host, unsigned short port, bool keepAlive, QObject* parent = nullptr);
    /// TLS. The three strings as in NuvikaSslSocket::initSsl(); they may be empty.
    HttpsClient(const QString& host, unsigned short port, bool keepAlive, SslProtocol protocol,
        const QString& certificateFileName, const QString& certificateFilePath, const QString& passPhrase,
        QObject* parent = nullptr);
    /// \a sendQueueHint as in NuvikaTcpSocket.
    HttpsClient(const QString& host, unsigned short port, bool keepAlive, int sendQueueHint,
        SslProtocol protocol, const QString& certificateFileName, const QString& certificateFilePath,
        const QString& passPhrase, QObject* parent = nullptr);
    /// As shutdown().
    ~HttpsClient() override;

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
    int putJSON(const QString& path, const QByteArray& json, const QString& user, const QString& password,
        bool keepAlive);
    int soapRequest(const QString& path, const QString& action, const QByteArray& content,
        const QString& user, const QString& password, bool keepAlive);
    /// A form of one part (RFC 7578).
    /// \param disposition behind "form-data; ", such as name="file"; filename="a.bin"
    /// \param contentType of the part. Refused where one of the two holds a line end.
    int postMultipartFormData(const QString& path, const QByteArray& content, const QString& disposition,
        const QString& contentType, const QString& user, const QString& password);

    bool sendUploadContentChunk(int id, const char* data, int size, bool last);
    void sendEndOfUploadContent();
    int numOfPendingRequests() const;
    void discardNonePendingRequest(int id);
    /// Removes every request without a signal, and closes the connection.
    void shutdown();
    void setReadLimits(const HttpReadLimits& limits);

    /// For the connections to come.
    void setCertificateFileName(const QString& certificateFileName);
    void setCertificateFilePath(const QString& certificateFilePath);
    void setCertificateVerificationMode(SslVerifyCertificateMode mode);

    QHostAddress lastLocalAddress() const;
    QHostAddress lastPeerAddress() const;
    /// As HttpClient's.
    QString errorString() const;
    /// Of the last TLS handshake, also when it was refused.
    NuvikaSslSocket::PeerCertificate peerCertificate() const;
    /// Of the answer that requestFinished() told last: its body ended with the connection, and that ended
    /// without TLS's goodbye or by an error(). Somebody on the path may have cut it off; many cameras just
    /// never say goodbye, so that it is no failure.
    bool lastAnswerMayBeCut() const;
    /// For connections that begin from now on, as NuvikaTcpSocket's: without eTuned a server 50 ms away sends
    /// little more than 1.3 MB/s (64 KiB in each round trip).
    void setSystemBuffers(NuvikaTcpSocket::SYSTEM_BUFFERS buffers);

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

private slots:
    void slotSockConnected();
    void slotSockDataReceived(const char* pData, int size, NuvikaTcpSocket::QueuedConnNotAllowed);
    void slotSockDisconnected();
    void slotSockDisconnected(unsigned long unannounced);
    void slotSockError(int errorCode);

private:
    class Private;

    void prepareForNonSllMode(const QString& host, unsigned short port, bool keepAlive);
    void prepareForSllMode(const QString& host, unsigned short port, bool keepAlive, int sendQueueHint);
    void prepareForAllModes(const QString& host, unsigned short port, bool keepAlive);
    bool initSsl();
    void shutdownSsl();
    void connectToHost(const QString& host, unsigned short port);
    int sendJSON(const char* method, const QString& path, const QByteArray& json, const QString& user,
        const QString& password, bool keepAlive);

    bool m_bKeepAlive = false;
    SslProtocol m_sslProtocol = NuvikaSslSocket::eSslAny12;
    QString m_certificateFileName;
    QString m_certificateFilePath;
    QString m_passPhrase;
    SslVerifyCertificateMode m_verifyMode = NuvikaSslSocket::eVerifyChainAndHost;
    std::unique_ptr<Private> d;
};
