// TLS sockets that write down what they say, a server of them, and a peer by plain OpenSSL calls.
#pragma once

#include "support/Certificates.h"
#include "support/EventLoop.h"
#include "support/RawPeer.h"

#include <KepNuvikaUtil/NuvikaSslSocket.h>
#include <KepNuvikaUtil/NuvikaTcpServer.h>

#include <functional>
#include <gtest/gtest.h>
#include <openssl/ssl.h>
#include <vector>

using Marker = NuvikaTcpSocket::QueuedConnNotAllowed;
using Ssl = NuvikaSslSocket;

// A TLS socket that writes down what it says.
struct Talker {
    std::unique_ptr<Ssl> socket = std::make_unique<Ssl>();
    QByteArray got;
    int connections = 0;
    std::vector<unsigned long> ends;
    std::vector<int> errors;
    std::function<void()> onConnected, onData;

    Talker()
    {
        QObject::connect(socket.get(), &Ssl::connected, [this] {
            ++connections;
            call(onConnected);
        });
        QObject::connect(socket.get(), &Ssl::dataReceived, [this](const char* data, int size, Marker) {
            got.append(data, size);
            call(onData);
        });
        QObject::connect(
            socket.get(), &Ssl::disconnected, [this](unsigned long how) { ends.push_back(how); });
        QObject::connect(socket.get(), &Ssl::error, [this](int code) { errors.push_back(code); });
    }
    void send(const QByteArray& bytes) { EXPECT_TRUE(socket->sendData(bytes.constData(), bytes.size())); }
    bool isOver() const { return !ends.empty() || !errors.empty(); }
    std::string problem() const { return socket->errorString().toStdString(); }

private:
    static void call(const std::function<void()>& handler)
    {
        if (handler)
            handler();
    }
};

struct ServerWish {
    Ssl::SslProtocol protocol = Ssl::eSslAny12;
    QString certificate;
    QString trusted;
    bool bEcho = false;
};

// Accepts TLS connections.
struct Server {
    NuvikaTcpServer listener;
    std::vector<std::unique_ptr<Talker>> talkers;
    std::vector<int> descriptors;

    explicit Server(const ServerWish& wish = {})
    {
        QObject::connect(&listener, &NuvikaTcpServer::newConnectionDesc, [this, wish](int descriptor) {
            talkers.push_back(std::make_unique<Talker>());
            Talker& talker = *talkers.back();
            EXPECT_TRUE(talker.socket->initSsl(true, wish.protocol,
                wish.certificate.isEmpty() ? certificates().forLocalhost() : wish.certificate, wish.trusted,
                QString()))
                << talker.problem();
            if (wish.bEcho)
                talker.onData = [&talker] { talker.send(std::exchange(talker.got, QByteArray())); };
            descriptors.push_back(descriptor);
            talker.socket->setSocketDescriptor(descriptor);
        });
        EXPECT_TRUE(listener.listen(QHostAddress(QHostAddress::LocalHost), 0));
    }
    Talker& last() { return *talkers.back(); }
};

struct Client : Talker {
    explicit Client(Ssl::SslProtocol protocol = Ssl::eSslAny12, const QString& certificate = QString(),
        Ssl::SslVerifyCertificateMode mode = Ssl::eVerifyChainAndHost)
    {
        socket->setCertificateVerificationMode(mode);
        EXPECT_TRUE(socket->initSsl(false, protocol, certificate, certificates().authority(), QString()));
    }
    void connectTo(unsigned short port)
    {
        socket->connectToHost(QHostAddress(QHostAddress::LocalHost), port);
    }
    // With the server's end, once both have finished the handshake.
    void meet(Server& server)
    {
        const int before = connections;
        connectTo(server.listener.serverPort());
        ASSERT_TRUE(waitFor([&] {
            return connections > before && !server.talkers.empty() && server.last().connections == 1;
        })) << problem();
    }
};

inline QByteArray text(int size)
{
    QByteArray bytes(size, '\0');
    for (int i = 0; i < size; ++i)
        bytes[i] = static_cast<char>(i * 7 + i / 251);
    return bytes;
}

// A server by plain OpenSSL calls over a raw socket, for what our own never does.
class PlainTlsServer
{
public:
    explicit PlainTlsServer(int version, const QString& certificate = certificates().forLocalhost())
        : m_pContext(SSL_CTX_new(TLS_server_method()))
    {
        const QByteArray file = certificate.toLocal8Bit();
        SSL_CTX_use_certificate_chain_file(m_pContext, file.constData());
        SSL_CTX_use_PrivateKey_file(m_pContext, file.constData(), SSL_FILETYPE_PEM);
        SSL_CTX_set_max_proto_version(m_pContext, version);
        ssl = SSL_new(m_pContext);
        SSL_set_bio(ssl, BIO_new(BIO_s_mem()), BIO_new(BIO_s_mem()));
        SSL_set_accept_state(ssl);
    }
    ~PlainTlsServer()
    {
        SSL_free(ssl);
        SSL_CTX_free(m_pContext);
    }
    PlainTlsServer(const PlainTlsServer&) = delete;
    PlainTlsServer& operator=(const PlainTlsServer&) = delete;

    void meet(Client& client)
    {
        client.connectTo(m_listener.port());
        ASSERT_TRUE(waitFor([&] { return (peer = m_listener.accept()).isOpen(); }));
        ASSERT_TRUE(waitFor([&] {
            converse();
            return client.connections == 1 && SSL_is_init_finished(ssl) == 1;
        })) << client.problem();
    }
    void converse()
    {
        const QByteArray bytes = peer.take();
        if (!bytes.isEmpty())
            BIO_write(SSL_get_rbio(ssl), bytes.constData(), bytes.size());
        SSL_do_handshake(ssl);
        char buffer[20000];
        for (int size = 0; (size = SSL_read(ssl, buffer, sizeof buffer)) > 0;)
            plain.append(buffer, size);
        peer.write(output());
    }
    QByteArray output()
    {
        QByteArray bytes(static_cast<int>(BIO_pending(SSL_get_wbio(ssl))), '\0');
        if (!bytes.isEmpty())
            BIO_read(SSL_get_wbio(ssl), bytes.data(), bytes.size());
        return bytes;
    }

    SSL* ssl;
    RawSocket peer;
    QByteArray plain; // what the client sent

private:
    SSL_CTX* m_pContext;
    RawListener m_listener;
};
