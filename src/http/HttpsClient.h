#pragma once

#include <KepNuvikaUtil/Export.h>
#include <KepNuvikaUtil/HttpClientBase.h>
#include <KepNuvikaUtil/NuvikaSslSocket.h>

/// An HTTP client, plain or over TLS. What it does stands with HttpClientBase, but that shutdown() says
/// nothing about the requests it removes.
///
/// TLS: error() may also tell 5, 10013 and 10053 of NuvikaSslSocket, and errorString() the reason in a
/// sentence. A refused certificate and a wrong pass phrase are tried as often as a lost connection: three
/// error() for one request, 30 s where the handshake stalls. A body that ends with the connection may have
/// been cut off where the server says no goodbye: lastAnswerMayBeCut().
///
/// "Host" carries the port unless it is 80: also 443 is written out.
class KEPNUVIKAUTIL_EXPORT HttpsClient : public HttpClientBase
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

    /// Removes every request without a signal, and closes the connection.
    void shutdown() override;

    /// For the connections to come.
    void setCertificateFileName(const QString& certificateFileName);
    void setCertificateFilePath(const QString& certificateFilePath);
    void setCertificateVerificationMode(SslVerifyCertificateMode mode);

    /// Of the last TLS handshake, also when it was refused.
    NuvikaSslSocket::PeerCertificate peerCertificate() const;
    /// Of the answer that requestFinished() told last: its body ended with the connection, and that ended
    /// without TLS's goodbye or by an error(). Somebody on the path may have cut it off; many cameras just
    /// never say goodbye, so that it is no failure.
    bool lastAnswerMayBeCut() const;
    void setSystemBuffers(NuvikaTcpSocket::SYSTEM_BUFFERS buffers) override;

private slots:
    void slotSockConnected();
    void slotSockDataReceived(const char* pData, int size, NuvikaTcpSocket::QueuedConnNotAllowed);
    void slotSockDisconnected();
    void slotSockDisconnected(unsigned long unannounced);
    void slotSockError(int errorCode);

private:
    class Private;
    Private& data() const;

    void prepareForNonSllMode(const QString& host, unsigned short port, bool keepAlive);
    void prepareForSllMode(const QString& host, unsigned short port, bool keepAlive, int sendQueueHint);
    void prepareForAllModes(const QString& host, unsigned short port, bool keepAlive);
    bool initSsl();
    void shutdownSsl();
    void connectToHost(const QString& host, unsigned short port);

    SslProtocol m_sslProtocol = NuvikaSslSocket::eSslAny12;
    QString m_certificateFileName;
    QString m_certificateFilePath;
    QString m_passPhrase;
    SslVerifyCertificateMode m_verifyMode = NuvikaSslSocket::eVerifyChainAndHost;
};
