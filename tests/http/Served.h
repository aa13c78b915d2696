// A connection of a server under test, in the clear or over TLS, with a peer that speaks byte by byte.
#pragma once

#include "http/HttpExchange.h"
#include "net/SslTalkers.h"
#include "support/RawPeer.h"

#include <KepNuvikaUtil/HttpResponseClient.h>

#include <mutex>
#include <optional>

// The peer's end.
class ServedPeer
{
public:
    explicit ServedPeer(RawSocket socket) : m_socket(std::move(socket)) { }

    // From now on; the server's side must be there when the loop runs.
    void startTls(const QString& certificate = QString())
    {
        m_tls.emplace(false, TLS1_3_VERSION, certificate);
    }
    bool finishHandshake()
    {
        return waitFor([&] {
            received();
            return SSL_is_init_finished(m_tls->ssl) == 1 || m_socket.atEnd();
        }) && SSL_is_init_finished(m_tls->ssl) == 1;
    }
    // Whether close_notify has come.
    bool hasGoodbye() const { return (SSL_get_shutdown(m_tls->ssl) & SSL_RECEIVED_SHUTDOWN) != 0; }
    RawSocket& raw() { return m_socket; }

    void write(const QByteArray& bytes)
    {
        constexpr int kPiece = 65536; // or the test's own memory would count
        for (int at = 0; at < bytes.size(); at += kPiece)
            m_socket.write(m_tls ? encrypted(bytes.mid(at, kPiece)) : bytes.mid(at, kPiece));
    }
    const QByteArray& received()
    {
        if (!m_tls)
            return m_socket.received();
        const std::lock_guard lock(m_mutex);
        m_plain += m_tls->feed(m_socket.take());
        m_socket.write(m_tls->output());
        return m_plain;
    }
    QByteArray take() { return m_tls ? (received(), std::exchange(m_plain, QByteArray())) : m_socket.take(); }
    bool atEnd()
    {
        received();
        return m_socket.atEnd();
    }
    bool wasReset() const { return m_socket.wasReset(); }
    void shutdownWrite()
    {
        sayGoodbye();
        m_socket.shutdownWrite();
    }
    void sayGoodbye()
    {
        if (m_tls) {
            SSL_shutdown(m_tls->ssl);
            m_socket.write(m_tls->output());
        }
    }
    void close() { m_socket.close(); }

private:
    QByteArray encrypted(const QByteArray& bytes)
    {
        const std::lock_guard lock(m_mutex);
        SSL_write(m_tls->ssl, bytes.constData(), bytes.size());
        return m_tls->output();
    }

    RawSocket m_socket;
    std::optional<PlainTls> m_tls;
    std::mutex m_mutex; // a test may write in a thread of its own
    QByteArray m_plain;
};

// Without a certificate: in the clear.
struct ServedWish {
    QString certificate = {};
    QString trusted = {};
    QString clients = {}; // certificate
    bool bHandshake = true;
};

struct Served : Told {
    static inline ServedWish s_usual; // of the tests that run over both

    RawListener listener;
    ServedPeer client;
    std::unique_ptr<HttpResponseClient> server;

    explicit Served(const ServedWish& wish = s_usual) : client(RawSocket::connectTo(listener.port()))
    {
        RawSocket accepted;
        waitFor([&] { return (accepted = listener.accept()).isOpen(); });
        if (wish.certificate.isEmpty())
            server = std::make_unique<HttpResponseClient>(accepted.release(), false);
        else
            server = std::make_unique<HttpResponseClient>(
                accepted.release(), NuvikaSslSocket::eSslAny12, wish.certificate, wish.trusted, QString());
        watch();
        if (!wish.certificate.isEmpty() && wish.bHandshake) {
            client.startTls(wish.clients);
            EXPECT_TRUE(client.finishHandshake());
        }
    }
    void watch()
    {
        using Connection = HttpResponseClient;
        Connection* s = server.get();
        QObject::connect(s, &Connection::requestReceived,
            [this](const HttpRequestHeader& header, const char* data, int size, Marker) {
                note(header.method() + QLatin1Char(' ') + header.path() + QLatin1Char(' ')
                    + latin1(data, size));
            });
        QObject::connect(s, &Connection::contentChunk,
            [this](const HttpRequestHeader&, const char* data, int size, Marker) {
                note(QStringLiteral("chunk ") + latin1(data, size));
            });
        QObject::connect(s, &Connection::multipartReplaceContent,
            [this](const HttpRequestHeader&, const char*, const char* data, int size, Marker) {
                note(QStringLiteral("part ") + latin1(data, size));
            });
        QObject::connect(s, &Connection::responseFinished, [this] { note(QStringLiteral("finished")); });
        QObject::connect(s, &Connection::error, [this] { note(QStringLiteral("error")); });
        QObject::connect(s, &Connection::disconnected, [this] { note(QStringLiteral("disconnected")); });
    }
    std::string reason() const
    {
        const HttpFailure failure = server->failure();
        return QStringLiteral("%1 %2 %3")
            .arg(QString::number(failure.reason), QString::number(failure.code), failure.text)
            .toStdString();
    }
    void respond(int code, const QByteArray& body, const char* field = nullptr, const char* value = nullptr,
        bool bMore = false)
    {
        HttpResponseHeader header(code, QStringLiteral("X"));
        if (field == nullptr)
            header.setContentLength(body.size());
        else
            header.addValue(QLatin1String(field), QLatin1String(value));
        SharedPoolBuffer content = pool->getBuffer();
        content.setData(body.constData(), body.size());
        server->response(header, bMore, &content);
    }
    SharedBufferPool* pool = new SharedBufferPool;
    ~Served() { pool->release(); }
};
