// TLS sockets that write down what they say, a server of them, and a peer by plain OpenSSL calls.
#pragma once

#include "support/Certificates.h"
#include "support/EventLoop.h"
#include "support/RawPeer.h"

#include "net/TlsContext_p.h"

#include <KepNuvikaUtil/NuvikaSslSocket.h>
#include <KepNuvikaUtil/NuvikaTcpServer.h>

#include <functional>
#include <gtest/gtest.h>
#include <openssl/ssl.h>
#include <vector>

using Marker = NuvikaTcpSocket::QueuedConnNotAllowed;
using Ssl = NuvikaSslSocket;

// A socket that writes down what it says.
template <class Socket>
struct TalkerOf {
    std::unique_ptr<Socket> socket = std::make_unique<Socket>();
    QByteArray got;
    int connections = 0;
    std::vector<unsigned long> ends;
    std::vector<int> errors;
    std::function<void()> onConnected = [] {}, onData = [] {}, onError = [] {};

    TalkerOf()
    {
        QObject::connect(socket.get(), &Socket::connected, [this] {
            ++connections;
            onConnected();
        });
        QObject::connect(socket.get(), &Socket::dataReceived, [this](const char* data, int size, Marker) {
            got.append(data, size);
            onData();
        });
        QObject::connect(
            socket.get(), &Socket::disconnected, [this](auto... how) { ends.push_back((0UL + ... + how)); });
        QObject::connect(socket.get(), &Socket::error, [this](int code) {
            errors.push_back(code);
            onError();
        });
    }
    void send(const QByteArray& bytes) { EXPECT_TRUE(socket->sendData(bytes.constData(), bytes.size())); }
    bool isOver() const { return !ends.empty() || !errors.empty(); }
    bool isSettled() const { return isOver() || connections > 0; }
    std::string problem() const { return socket->errorString().toStdString(); }
};
using Talker = TalkerOf<Ssl>;

struct ServerWish {
    Ssl::SslProtocol protocol = Ssl::eSslAny12;
    QString certificate;
    QString trusted;
    bool bEcho = false;
    QList<TlsPin> pins = {};
};

// Accepts TLS connections.
struct Server {
    NuvikaTcpServer listener;
    std::vector<std::unique_ptr<Talker>> talkers;

    explicit Server(const ServerWish& wish = {})
    {
        QObject::connect(&listener, &NuvikaTcpServer::newConnectionDesc, [this, wish](int descriptor) {
            talkers.push_back(std::make_unique<Talker>());
            Talker& talker = *talkers.back();
            talker.socket->setPins(wish.pins);
            EXPECT_TRUE(talker.socket->initSsl(true, wish.protocol,
                wish.certificate.isEmpty() ? certificates().forLocalhost() : wish.certificate, wish.trusted,
                QString()))
                << talker.problem();
            if (wish.bEcho)
                talker.onData = [&talker] { talker.send(std::exchange(talker.got, QByteArray())); };
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

// One end by plain OpenSSL calls in memory, for what our own never does.
struct PlainTls {
    std::unique_ptr<SSL_CTX, Nuvika::OpenSslFree<SSL_CTX_free>> context;
    std::unique_ptr<SSL, Nuvika::OpenSslFree<SSL_free>> owner;
    SSL* ssl;

    PlainTls(bool bServer, int version, const QString& certificate)
        : context(SSL_CTX_new(bServer ? TLS_server_method() : TLS_client_method()))
    {
        const QByteArray file = certificate.toLocal8Bit();
        SSL_CTX_use_certificate_chain_file(context.get(), file.constData());
        SSL_CTX_use_PrivateKey_file(context.get(), file.constData(), SSL_FILETYPE_PEM);
        SSL_CTX_set_max_proto_version(context.get(), version);
        owner.reset(ssl = SSL_new(context.get()));
        SSL_set_bio(ssl, BIO_new(BIO_s_mem()), BIO_new(BIO_s_mem()));
        bServer ? SSL_set_accept_state(ssl) : SSL_set_connect_state(ssl);
    }
    // Takes these bytes, and returns what it has read of them.
    QByteArray feed(const QByteArray& bytes)
    {
        if (!bytes.isEmpty())
            BIO_write(SSL_get_rbio(ssl), bytes.constData(), bytes.size());
        SSL_do_handshake(ssl);
        QByteArray plain;
        char buffer[20000];
        for (int size = 0; (size = SSL_read(ssl, buffer, sizeof buffer)) > 0;)
            plain.append(buffer, size);
        return plain;
    }
    QByteArray output()
    {
        QByteArray bytes(static_cast<int>(BIO_pending(SSL_get_wbio(ssl))), '\0');
        if (!bytes.isEmpty())
            BIO_read(SSL_get_wbio(ssl), bytes.data(), bytes.size());
        return bytes;
    }
};

// Such a server behind a raw socket.
struct PlainTlsServer : PlainTls {
    RawListener listener;
    RawSocket peer;
    QByteArray plain; // what the client sent

    explicit PlainTlsServer(int version, const QString& certificate = certificates().forLocalhost())
        : PlainTls(true, version, certificate)
    {
    }
    void meet(Client& client)
    {
        client.connectTo(listener.port());
        ASSERT_TRUE(waitFor([&] { return (peer = listener.accept()).isOpen(); }));
        ASSERT_TRUE(waitFor([&] {
            converse();
            return client.connections == 1 && SSL_is_init_finished(ssl) == 1;
        })) << client.problem();
    }
    void converse()
    {
        plain += feed(peer.take());
        peer.write(output());
    }
};
