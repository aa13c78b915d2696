#pragma once

#include <KepNuvikaUtil/Export.h>
#include <KepNuvikaUtil/HttpClientBase.h>

/// An HTTP client without TLS. What it does stands with HttpClientBase.
class KEPNUVIKAUTIL_EXPORT HttpClient : public HttpClientBase
{
    Q_OBJECT
public:
    /// \a host: a name or an address; an IPv6 address with or without brackets.
    HttpClient(const QString& host, unsigned short port, bool keepAlive, QObject* parent = nullptr);
    /// \a sendQueueHint as in NuvikaTcpSocket.
    HttpClient(const QString& host, unsigned short port, bool keepAlive, int sendQueueHint,
        QObject* parent = nullptr);
    /// As shutdown(). A handler of requestCancelled() must not delete the client again.
    ~HttpClient() override;

    /// Closes the connection and removes every request, with requestCancelled() for each. What a handler of
    /// that queues is a new request.
    void shutdown() override;
    void setSystemBuffers(NuvikaTcpSocket::SYSTEM_BUFFERS buffers) override;

signals:
    void requestCancelled(int id);

private slots:
    void slotSockConnected();
    void slotSockDataReceived(const char* pData, int size, NuvikaTcpSocket::QueuedConnNotAllowed);
    void slotSockDisconnected();
    void slotSockError(int errorCode);

private:
    class Private;
    Private& data() const;
};
