// A small HTTP server: one handler answers every request of every connection.
#pragma once

#include <KepNuvikaUtil/HttpResponseClient.h>
#include <KepNuvikaUtil/NuvikaTcpServer.h>

#include <QtCore/QObject>

#include <functional>
#include <memory>

class WebServer : public QObject
{
public:
    using Handler = std::function<void(HttpResponseClient& connection, const HttpRequestHeader& request)>;

    explicit WebServer(Handler handler);
    ~WebServer() override;

    // Over TLS from now on, with the certificate and key of this file. False with a sentence.
    bool useTls(const QString& certificate, QString* problem);
    bool isTls() const { return m_pTls != nullptr; }
    bool listen(const QHostAddress& address, unsigned short port) { return m_server.listen(address, port); }
    unsigned short port() const { return m_server.serverPort(); }

    void answer(HttpResponseClient& connection, int code, const QByteArray& body, const char* type);
    // The head of an endless stream of pictures, and one picture of it.
    static void beginPictures(HttpResponseClient& connection);
    static void sendPicture(HttpResponseClient& connection, const QByteArray& picture, const char* type);

private:
    void accept(int descriptor);
    HttpResponseClient* connectionOf(int descriptor);

    Handler m_handler;
    QString m_certificate;
    std::unique_ptr<NuvikaSslSocket> m_pTls; // keeps what all connections share
    NuvikaTcpServer m_server;
    SharedBufferPool* m_pool; // released, never deleted
};
