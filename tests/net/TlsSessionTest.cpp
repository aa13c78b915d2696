#include "support/Certificates.h"
#include "support/Seams.h"

#include "net/TlsSession_p.h"

#include <QtCore/QFile>

#include <algorithm>
#include <fcntl.h>
#include <functional>
#include <future>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

using namespace Nuvika;

namespace
{
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
            EXPECT_TRUE(result == TlsSession::eFailed || session->writeWaiting());
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

namespace
{
// A client by plain OpenSSL calls over memory, which offers whatever it got last for as long as it likes.
struct PlainClient {
    std::unique_ptr<SSL_CTX, OpenSslFree<SSL_CTX_free>> context{SSL_CTX_new(TLS_client_method())};
    TlsSessionTicket last;

    PlainClient(int version, const QString& certificate)
    {
        SSL_CTX_set_max_proto_version(context.get(), version);
        const QByteArray file = certificate.toLocal8Bit();
        SSL_CTX_use_certificate_chain_file(context.get(), file.constData());
        SSL_CTX_use_PrivateKey_file(context.get(), file.constData(), SSL_FILETYPE_PEM);
    }
    // Whether the server has resumed what is offered.
    bool isResumedBy(const std::shared_ptr<TlsContext>& serverContext)
    {
        End server(serverContext);
        const std::unique_ptr<SSL, OpenSslFree<SSL_free>> ssl(SSL_new(context.get()));
        SSL_set_bio(ssl.get(), BIO_new(BIO_s_mem()), BIO_new(BIO_s_mem()));
        SSL_set_connect_state(ssl.get());
        if (last)
            SSL_set_session(ssl.get(), last.get());
        for (int i = 0; i < 4; ++i) {
            char byte = 0;
            SSL_do_handshake(ssl.get());
            SSL_read(ssl.get(), &byte, 1);
            QByteArray bytes(static_cast<int>(BIO_pending(SSL_get_wbio(ssl.get()))), '\0');
            BIO_read(SSL_get_wbio(ssl.get()), bytes.data(), bytes.size());
            server.feed(bytes, 1 << 20);
            const QByteArray answer = server.take();
            BIO_write(SSL_get_rbio(ssl.get()), answer.constData(), answer.size());
        }
        EXPECT_TRUE(server.bOpen) << server.session->failure().text.toStdString();
        last.reset(SSL_get1_session(ssl.get()));
        const bool bResumed = SSL_session_reused(ssl.get()) == 1;
        SSL_shutdown(ssl.get());
        return bResumed;
    }
};
} // namespace

TEST(TlsSession, AVerdictOnACertificateHoldsForTwoHoursHoweverOftenItsSessionIsResumed)
{
    const long long minutes = 60000;
    for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
        const auto clientContext = contextOf(false, version == TLS1_2_VERSION ? 4 : 5);
        const auto serverContext = contextOf(true, 0);
        const auto isResumed = [&] {
            End client(clientContext);
            End server(serverContext);
            converse(client, server, 1 << 20);
            EXPECT_TRUE(client.bOpen) << client.session->failure().text.toStdString();
            return client.session->isResumed();
        };
        TlsConfig config = serverContext->config();
        config.nVerify = 1;
        config.trusted = certificates().authority();
        QString problem;
        const auto verifying = TlsContext::create(config, &problem);
        PlainClient known(version, certificates().forLocalhost());
        for (const bool bExpected : {false, true, false, true}) {
            EXPECT_EQ(isResumed(), bExpected) << "by our client " << version;
            EXPECT_EQ(known.isResumedBy(verifying), bExpected) << "by our server " << version;
            seams::clockOffsetMs += 90 * minutes;
        }
    }
}

TEST(TlsSession, AVerdictOnACertificateIsNotNewerBecauseItsTicketCameLate)
{
    const long long minutes = 60000;
    const auto clientContext = contextOf(false, 5);
    const auto serverContext = contextOf(true, 0);
    const struct {
        int nTicketMinutes; // between the handshake and its ticket
        int nThenMinutes;
        bool bResumed;
    } connections[] = {{90, 0, false}, {0, 45, true}, {0, 0, false}};
    for (const auto& c : connections) {
        End client(clientContext);
        End server(serverContext);
        client.work();
        server.feed(client.take(), 1 << 20);
        client.feed(server.take(), 1 << 20);
        server.feed(client.take(), 1 << 20);
        EXPECT_TRUE(client.bOpen && server.bOpen);
        EXPECT_EQ(client.session->isResumed(), c.bResumed);
        seams::clockOffsetMs += c.nTicketMinutes * minutes;
        client.feed(server.take(), 1 << 20);
        seams::clockOffsetMs += c.nThenMinutes * minutes;
    }
}

TEST(TlsLibrary, SharesContextsUntilItsLastHolderGoes)
{
    auto library = TlsLibrary::acquire();
    EXPECT_EQ(library, TlsLibrary::acquire());
    TlsConfig config;
    config.trusted = certificates().authority();
    config.nVerify = 1;
    QString problem;
    std::weak_ptr<TlsContext> context = library->context(config, &problem);
    EXPECT_EQ(library->context(config, &problem), context.lock());
    library.reset();
    EXPECT_TRUE(context.expired());
}

TEST(TlsLibrary, ReadsFilesAgainThatHaveChanged)
{
    Certificates others(QStringLiteral("Somebody else"));
    QTemporaryDir folder;
    const QString file = folder.filePath(QStringLiteral("ca.pem"));
    const auto fill = [&](const QString& from, QIODevice::OpenMode mode) {
        QFile source(from);
        QFile target(file);
        ASSERT_TRUE(source.open(QIODevice::ReadOnly) && target.open(mode));
        target.write(source.readAll());
    };
    fill(certificates().authority(), QIODevice::WriteOnly);
    auto library = TlsLibrary::acquire();
    QString problem;
    TlsConfig configs[3];
    configs[0].trusted = file;
    configs[1].trusted = folder.path();
    qputenv("SSL_CERT_FILE", file.toLocal8Bit()); // which is then the system's
    std::shared_ptr<TlsContext> before[3];
    for (int i = 0; i < 3; ++i) {
        configs[i].nVerify = 1;
        before[i] = library->context(configs[i], &problem);
    }
    fill(others.authority(), QIODevice::WriteOnly | QIODevice::Append); // in place: the folder's time stays
    for (int i = 0; i < 3; ++i)
        EXPECT_NE(library->context(configs[i], &problem), before[i]) << i << problem.toStdString();
    qunsetenv("SSL_CERT_FILE");
}

TEST(TlsLibrary, AFileThatIsSlowToReadHoldsUpNobodyElse)
{
    QTemporaryDir folder;
    const QByteArray pipe = folder.filePath(QStringLiteral("slow.pem")).toLocal8Bit();
    ASSERT_EQ(mkfifo(pipe.constData(), 0600), 0);
    auto library = TlsLibrary::acquire();
    QString slowProblem;
    std::thread slow([&] {
        TlsConfig config;
        config.nVerify = 1;
        config.trusted = QFile::decodeName(pipe);
        library->context(config, &slowProblem);
    });
    const int writer = open(pipe.constData(), O_WRONLY); // returns when the other has begun to read
    auto other = std::async(std::launch::async, [&] {
        QString problem;
        return library->context(TlsConfig(), &problem);
    });
    EXPECT_EQ(other.wait_for(std::chrono::seconds(5)), std::future_status::ready);
    close(writer);
    slow.join();
    EXPECT_NE(other.get(), nullptr);
    EXPECT_NE(slowProblem, QString());
}
