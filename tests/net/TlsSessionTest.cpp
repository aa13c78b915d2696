#include "support/Certificates.h"

#include "net/TlsSession_p.h"

#include <QtCore/QFile>

#include <algorithm>
#include <functional>
#include <gtest/gtest.h>

using namespace Nuvika;

namespace
{
Certificates& certificates()
{
    static Certificates s_certificates;
    return s_certificates;
}

std::shared_ptr<TlsContext> contextOf(bool bServer, int protocol)
{
    TlsConfig config;
    config.bServer = bServer;
    config.nProtocol = protocol;
    config.nVerify = bServer ? 0 : 2;
    config.ownCertificate = bServer ? certificates().forLocalhost() : QString();
    config.trusted = bServer ? QString() : certificates().authority();
    QString problem;
    auto context = TlsContext::create(config, &problem);
    EXPECT_NE(context, nullptr) << problem.toStdString();
    return context;
}

// One end, in memory.
struct End final : TlsOutput {
    QByteArray sent;
    QByteArray plain;
    TlsSession::Result result = TlsSession::eWantInput;
    bool bOpen = false;
    QString problem;
    std::unique_ptr<TlsSession> session;

    explicit End(const std::shared_ptr<TlsContext>& context)
        : session(TlsSession::create(context, *this,
            context->config().bServer ? QString() : QStringLiteral("localhost"), 443, &problem))
    {
    }
    void sendEncrypted(const char* data, int size) override { sent.append(data, size); }
    QByteArray take() { return std::exchange(sent, QByteArray()); }
    void feed(const QByteArray& bytes, int piece)
    {
        for (int at = 0; at < bytes.size() && result == TlsSession::eWantInput; at += piece) {
            const QByteArray cut = bytes.mid(at, piece);
            session->setInput(cut.constData(), cut.size());
            work();
        }
    }
    void work()
    {
        if (!bOpen) {
            result = session->handshake();
            bOpen = result == TlsSession::eMore;
        }
        while (bOpen && (result == TlsSession::eMore || result == TlsSession::eWantInput)) {
            char buffer[20000];
            int got = 0;
            result = session->read(buffer, sizeof buffer, &got);
            plain.append(buffer, got);
            if (result == TlsSession::eWantInput)
                break;
        }
    }
};

void converse(End& client, End& server, int piece)
{
    client.work();
    while (!client.sent.isEmpty() || !server.sent.isEmpty()) {
        server.feed(client.take(), piece);
        client.feed(server.take(), piece);
    }
}

QByteArray text(int size)
{
    QByteArray bytes(size, '\0');
    for (int i = 0; i < size; ++i)
        bytes[i] = static_cast<char>(i * 31 + i / 256);
    return bytes;
}
} // namespace

TEST(TlsSession, WorksHoweverItsBytesAreCut)
{
    const QByteArray up = text(40000);
    const QByteArray down = text(3);
    for (const int protocol : {4, 5}) {
        const auto clientContext = contextOf(false, protocol);
        const auto serverContext = contextOf(true, protocol);
        for (const int piece : {1, 2, 3, 5, 7, 1000, 1 << 20}) {
            End client(clientContext);
            End server(serverContext);
            converse(client, server, piece);
            ASSERT_TRUE(client.bOpen && server.bOpen) << client.session->failure().text.toStdString()
                                                      << server.session->failure().text.toStdString();
            ASSERT_TRUE(client.session->write(up.constData(), up.size()));
            ASSERT_TRUE(server.session->write(down.constData(), down.size()));
            converse(client, server, piece);
            EXPECT_EQ(server.plain, up) << piece;
            EXPECT_EQ(client.plain, down) << piece;
            client.session->endWriting();
            converse(client, server, piece);
            EXPECT_EQ(server.result, TlsSession::eClosed);
            EXPECT_FALSE(client.session->write("x", 1)) << "the end was announced";
        }
    }
}

TEST(TlsSession, ADamagedOrCutOffHandshakeNeverOpens)
{
    for (const int protocol : {4, 5}) {
        const auto clientContext = contextOf(false, protocol);
        const auto serverContext = contextOf(true, protocol);
        int opened = 0;
        int size = 1000;
        for (int at = 0; at < size; ++at) {
            End client(clientContext);
            End server(serverContext);
            client.work();
            server.feed(client.take(), 1 << 20);
            QByteArray flight = server.take();
            size = flight.size();
            if (at >= size)
                break;
            End cutOff(clientContext);
            End other(serverContext);
            cutOff.work();
            other.feed(cutOff.take(), 1 << 20);
            const QByteArray whole = other.take(); // signatures differ in length
            cutOff.feed(whole.left(std::min(at, whole.size() - 1)), 1 << 20);
            EXPECT_EQ(cutOff.result, TlsSession::eWantInput) << "waits for what does not come: " << at;
            flight[at] = static_cast<char>(flight.at(at) ^ 0x20);
            client.feed(flight, 1 << 20);
            converse(client, server, 1 << 20);
            opened += client.bOpen ? 1 : 0;
            EXPECT_TRUE(client.bOpen || client.result == TlsSession::eWantInput
                || !client.session->failure().text.isEmpty())
                << at;
        }
        EXPECT_GT(size, 500);
        EXPECT_LE(opened, 12) << "only the records' version fields mean nothing";
    }
}

namespace
{
// A server by plain OpenSSL calls, for what our own never does.
struct PlainServer {
    std::shared_ptr<TlsContext> context;
    SSL* ssl;
    explicit PlainServer(int protocol) : context(contextOf(true, protocol)), ssl(SSL_new(context->handle()))
    {
        SSL_clear_options(ssl, SSL_OP_NO_RENEGOTIATION);
        SSL_set_bio(ssl, BIO_new(BIO_s_mem()), BIO_new(BIO_s_mem()));
        SSL_set_accept_state(ssl);
    }
    ~PlainServer() { SSL_free(ssl); }
    QByteArray plain;
    void feed(const QByteArray& bytes)
    {
        if (!bytes.isEmpty())
            BIO_write(SSL_get_rbio(ssl), bytes.constData(), bytes.size());
        char buffer[20000];
        SSL_do_handshake(ssl);
        for (int got = 0; (got = SSL_read(ssl, buffer, sizeof buffer)) > 0;)
            plain.append(buffer, got);
    }
    QByteArray take()
    {
        QByteArray bytes(static_cast<int>(BIO_pending(SSL_get_wbio(ssl))), '\0');
        if (!bytes.isEmpty())
            BIO_read(SSL_get_wbio(ssl), bytes.data(), bytes.size());
        return bytes;
    }
    void converse(End& client)
    {
        for (int i = 0; i < 20; ++i) {
            feed(client.take());
            client.feed(take(), 1 << 20);
        }
    }
};
} // namespace

TEST(TlsSession, FollowsKeyUpdates)
{
    End client(contextOf(false, 5));
    PlainServer server(5);
    client.work();
    server.converse(client);
    ASSERT_TRUE(client.bOpen);
    for (int i = 0; i < 3; ++i) {
        SSL_key_update(server.ssl, SSL_KEY_UPDATE_REQUESTED);
        SSL_write(server.ssl, "down", 4);
        server.converse(client);
        client.session->write("up", 2);
        server.converse(client);
    }
    EXPECT_EQ(client.plain, QByteArray("downdowndown"));
    EXPECT_EQ(server.plain, QByteArray("upupup"));
}

TEST(TlsSession, KeepsWhatIsWrittenWhileTheServerRenegotiates)
{
    End client(contextOf(false, 4));
    PlainServer server(4);
    client.work();
    server.converse(client);
    ASSERT_TRUE(client.bOpen);
    SSL_renegotiate(server.ssl);
    SSL_do_handshake(server.ssl); // asks for it
    client.feed(server.take(), 1 << 20);
    const QByteArray early = client.take();
    ASSERT_FALSE(early.isEmpty()) << "the new handshake has begun";
    ASSERT_TRUE(client.session->write("in between ", 11));
    ASSERT_TRUE(client.session->write("and after", 9));
    EXPECT_TRUE(client.sent.isEmpty()) << "which waits for the handshake's end";
    client.session->endWriting();
    server.feed(early);
    server.converse(client);
    EXPECT_EQ(server.plain, QByteArray("in between and after"));
    EXPECT_EQ(SSL_get_shutdown(server.ssl) & SSL_RECEIVED_SHUTDOWN, SSL_RECEIVED_SHUTDOWN);
}

TEST(TlsLibrary, SharesContextsUntilItsLastHolderGoesAndReadsChangedFilesAnew)
{
    auto library = TlsLibrary::acquire();
    EXPECT_EQ(library, TlsLibrary::acquire());
    TlsConfig config;
    config.trusted = certificates().folder() + QStringLiteral("/changing.pem");
    config.nVerify = 1;
    QFile::copy(certificates().authority(), config.trusted);
    QString problem;
    std::weak_ptr<TlsContext> first = library->context(config, &problem);
    EXPECT_EQ(library->context(config, &problem), first.lock());
    QFile file(config.trusted);
    ASSERT_TRUE(file.open(QIODevice::Append) && file.write("\n") == 1);
    file.close();
    EXPECT_NE(library->context(config, &problem), first.lock());
    library.reset();
    EXPECT_TRUE(first.expired());
}
