#include "net/SslTalkers.h"
#include "support/Seams.h"

#include "net/TlsSession_p.h"

#include <QtCore/QFile>

#include <fcntl.h>
#include <future>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

using namespace Nuvika;

namespace
{
std::shared_ptr<TlsContext> contextOf(bool bServer, int protocol, bool bVerify)
{
    TlsConfig config;
    config.bServer = bServer;
    config.nProtocol = protocol;
    config.nVerify = !bVerify ? 0 : bServer ? 1 : 2;
    config.ownCertificate = bServer ? certificates().forLocalhost() : QString();
    config.trusted = bVerify ? certificates().authority() : QString();
    QString problem;
    auto context = TlsContext::create(config, &problem);
    EXPECT_NE(context, nullptr) << problem.toStdString();
    return context;
}

// One end, in memory.
struct End final : TlsOutput {
    QByteArray sent;
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
    void feed(const QByteArray& bytes)
    {
        session->setInput(bytes.constData(), bytes.size());
        if (!bOpen)
            bOpen = session->handshake() == TlsSession::eMore;
        char buffer[20000];
        for (int got = 0; bOpen && session->read(buffer, sizeof buffer, &got) == TlsSession::eMore;) { }
    }
};

const long long kMinutes = 60000;
} // namespace

TEST(TlsSession, AVerdictOnACertificateHoldsForTwoHoursHoweverOftenItsSessionIsResumed)
{
    for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
        const auto clientContext = contextOf(false, version == TLS1_2_VERSION ? 4 : 5, true);
        const auto serverContext = contextOf(true, 0, false);
        const auto verifying = contextOf(true, 0, true);
        TlsSessionTicket last; // a stranger offers what it got last for as long as it likes
        for (const bool bExpected : {false, true, false, true}) {
            End client(clientContext);
            End server(serverContext);
            PlainTls stranger(false, version, certificates().forLocalhost());
            End verifier(verifying);
            if (last)
                SSL_set_session(stranger.ssl, last.get());
            client.feed({});
            for (int i = 0; i < 4; ++i) {
                server.feed(client.take());
                client.feed(server.take());
                stranger.feed(verifier.take());
                verifier.feed(stranger.output());
            }
            stranger.feed(verifier.take());
            EXPECT_TRUE(client.bOpen) << client.session->failure().text.toStdString();
            EXPECT_EQ(client.session->isResumed(), bExpected) << "by our client " << version;
            EXPECT_TRUE(verifier.bOpen) << verifier.session->failure().text.toStdString();
            EXPECT_EQ(SSL_session_reused(stranger.ssl) == 1, bExpected) << "by our server " << version;
            last.reset(SSL_get1_session(stranger.ssl));
            SSL_shutdown(stranger.ssl);
            seams::clockOffsetMs += 90 * kMinutes;
        }
    }
}

TEST(TlsSession, AVerdictOnACertificateIsNotNewerBecauseItsTicketCameLate)
{
    const auto clientContext = contextOf(false, 5, true);
    const auto serverContext = contextOf(true, 0, false);
    const struct {
        int nTicketMinutes; // between the handshake and its ticket
        int nThenMinutes;
        bool bResumed;
    } connections[] = {{90, 0, false}, {0, 45, true}, {0, 0, false}};
    for (const auto& c : connections) {
        End client(clientContext);
        End server(serverContext);
        client.feed({});
        server.feed(client.take());
        client.feed(server.take());
        server.feed(client.take());
        EXPECT_TRUE(client.bOpen && server.bOpen);
        EXPECT_EQ(client.session->isResumed(), c.bResumed);
        seams::clockOffsetMs += c.nTicketMinutes * kMinutes;
        client.feed(server.take());
        seams::clockOffsetMs += c.nThenMinutes * kMinutes;
    }
}

TEST(TlsLibrary, SharesContextsAndReadsFilesAgainThatHaveChanged)
{
    Certificates others(QStringLiteral("Somebody else"));
    QTemporaryDir folder;
    const QString file = folder.filePath(QStringLiteral("ca.pem"));
    const auto fill = [&](const QString& from, QIODevice::OpenMode mode) {
        QFile source(from), target(file);
        ASSERT_TRUE(source.open(QIODevice::ReadOnly) && target.open(mode));
        target.write(source.readAll());
    };
    fill(certificates().authority(), QIODevice::WriteOnly);
    auto library = TlsLibrary::acquire();
    EXPECT_EQ(library, TlsLibrary::acquire());
    qputenv("SSL_CERT_FILE", file.toLocal8Bit()); // which is then the system's
    QString problem;
    TlsConfig configs[3];
    configs[0].trusted = file;
    configs[1].trusted = folder.path();
    std::vector<std::weak_ptr<TlsContext>> before;
    for (TlsConfig& config : configs) {
        config.nVerify = 1;
        before.push_back(library->context(config, &problem));
        EXPECT_EQ(library->context(config, &problem), before.back().lock()) << problem.toStdString();
    }
    fill(others.authority(), QIODevice::WriteOnly | QIODevice::Append); // in place: the folder's time stays
    for (std::size_t i = 0; i < before.size(); ++i)
        EXPECT_NE(library->context(configs[i], &problem), before[i].lock()) << i << problem.toStdString();
    qunsetenv("SSL_CERT_FILE");
    library.reset();
    for (const auto& context : before)
        EXPECT_TRUE(context.expired()) << "its last holder has gone";
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
