// Whom a TLS socket trusts beside what authorities say: pins, and the verdict of its owner.
#include "net/SslTalkers.h"
#include "support/Seams.h"

#include <QtNetwork/QSslCertificate>
#include <QtNetwork/QSslKey>

#include <gtest/gtest.h>

namespace
{
QSslCertificate read(const QString& file) { return QSslCertificate::fromPath(file).value(0); }

TlsPin pinOf(const QString& file)
{
    return TlsPin::certificate(read(file).digest(QCryptographicHash::Sha256));
}

TlsPin keyPinOf(const QString& file)
{
    const QByteArray key = read(file).publicKey().toDer();
    return TlsPin::publicKey(QCryptographicHash::hash(key, QCryptographicHash::Sha256));
}

// Self-signed, for another host, and expired.
const QString& camera()
{
    static const QString file
        = certificates().issue({QStringLiteral("camera"), QStringLiteral("DNS:other.test"), -30, -2, true});
    return file;
}

const QByteArray kHex = "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f";
const QByteArray kBase64 = "sha256//AAECAwQFBgcICQoLDA0ODxAREhMUFRYXGBkaGxwdHh8=";
} // namespace

TEST(TlsPin, ReadsFingerprintsAndCurlsPinsAndTellsWhatIsNone)
{
    const QByteArray colons = QByteArray::fromHex(kHex).toHex(':').toUpper();
    const struct {
        QByteArray text;
        TlsPin::Kind kind;
        QByteArray outcome; // the pin's text, or words of the problem
    } rows[] = {
        {kBase64, TlsPin::ePublicKey, kBase64},
        {" " + kBase64 + "\n", TlsPin::ePublicKey, kBase64},
        {kHex, TlsPin::eCertificate, colons},
        {kHex.toUpper(), TlsPin::eCertificate, colons},
        {colons, TlsPin::eCertificate, colons},
        {QByteArray(colons).replace(':', ' '), TlsPin::eCertificate, colons},
        {"sha256 Fingerprint=" + colons, TlsPin::eCertificate, colons},
        {"", TlsPin::eNothing, "neither sha256//BASE64 nor a fingerprint"},
        {"\xff=;", TlsPin::eNothing, "neither"},
        {"sha256//", TlsPin::eNothing, "32 bytes in Base64"},
        {kBase64 + kBase64, TlsPin::eNothing, "32 bytes in Base64"},
        {kBase64.left(40), TlsPin::eNothing, "32 bytes in Base64"},
        {"sha256//" + kHex, TlsPin::eNothing, "32 bytes in Base64"},
        {kHex.left(40), TlsPin::eNothing,
            "it has 40 hexadecimal digits, a SHA-256 has 64 (this may be a SHA-1)"},
        {kHex + "0", TlsPin::eNothing, "it has 65"},
        {kHex.left(63) + "g", TlsPin::eNothing, "neither"},
    };
    for (const auto& row : rows) {
        QString problem = QStringLiteral("untouched");
        const TlsPin pin = TlsPin::fromText(QString::fromLatin1(row.text), &problem);
        EXPECT_EQ(pin.kind(), row.kind) << row.text.constData();
        EXPECT_EQ(pin.isNull(), !problem.isEmpty()) << row.text.constData();
        EXPECT_EQ(TlsPin::fromText(pin.toText()), pin);
        EXPECT_EQ(pin.sha256(), pin.isNull() ? QByteArray() : QByteArray::fromHex(kHex));
        const QString told = pin.isNull() ? problem : pin.toText();
        EXPECT_TRUE(told.contains(QLatin1String(row.outcome))) << told.toStdString();
    }
    EXPECT_TRUE(TlsPin::certificate("short").isNull());
}

TEST(SslTrust, PinsAndHandlersDecideBeforeAnythingOfOursHasLeft)
{
    enum Handler { eNobody, eGoesOn, eRefuses };
    const TlsPin other = TlsPin::publicKey(QByteArray(32, 'x'));
    const QString good = certificates().forLocalhost();
    const QString ours = certificates().issue({QStringLiteral("recorder"), QString()});
    const std::vector<int> much{
        X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT, X509_V_ERR_IP_ADDRESS_MISMATCH, X509_V_ERR_CERT_HAS_EXPIRED};
    const auto notPinned = [](const QString& file) {
        return "the certificate of 127.0.0.1 is not pinned; its fingerprint is "
            + pinOf(file).toText().toStdString() + ", its public key's "
            + keyPinOf(file).toText().toStdString();
    };
    const std::string selfSigned = "the certificate of 127.0.0.1 is self-signed, and not among the trusted";
    const std::string byHandler = "the certificate of 127.0.0.1 was refused by the verdict handler";
    const struct {
        QString shown;
        QList<TlsPin> pins;
        std::string words; // none: the connection holds
        Handler handler = eNobody;
        std::vector<int> reasons = {}; // that a handler is told: X509_V_ERR_...
        Ssl::SslVerifyCertificateMode mode = Ssl::eVerifyChainAndHost;
    } rows[] = {
        {camera(), {pinOf(camera())}, ""},
        {camera(), {keyPinOf(camera())}, ""},
        {camera(), {other, TlsPin(), keyPinOf(camera())}, ""},
        {camera(), {}, selfSigned},
        {good, {}, ""},
        {good, {pinOf(camera()), keyPinOf(camera())}, notPinned(good)},
        {good, {TlsPin::certificate(keyPinOf(good).sha256()), TlsPin::publicKey(pinOf(good).sha256())},
            notPinned(good)},
        {good, {TlsPin()}, notPinned(good)},
        {good, {pinOf(certificates().authority())}, notPinned(good)},
        {good, {other}, notPinned(good), eNobody, {}, Ssl::eVerifyNone},
        {good, {}, "", eGoesOn},
        {good, {}, byHandler, eRefuses},
        {camera(), {}, "", eGoesOn, much},
        {camera(), {}, selfSigned, eRefuses, much},
        {camera(), {}, "", eGoesOn, {}, Ssl::eVerifyNone},
        {camera(), {}, byHandler, eRefuses, {}, Ssl::eVerifyNone},
        {camera(), {pinOf(good)}, "", eGoesOn, {X509_V_ERR_CERT_REJECTED}},
        {camera(), {pinOf(good)}, notPinned(camera()), eRefuses, {X509_V_ERR_CERT_REJECTED}},
        {camera(), {pinOf(camera())}, "", eGoesOn},
    };
    for (const Ssl::SslProtocol protocol : {Ssl::eTls12, Ssl::eTls13}) {
        for (const auto& row : rows) {
            const auto n = &row - rows;
            const bool bHolds = row.words.empty();
            Server server({protocol, row.shown, certificates().authority(), false});
            Client client(protocol, ours, row.mode);
            client.socket->setPins(row.pins);
            ASSERT_TRUE(client.socket->initSsl(false, protocol, ours, certificates().authority(), QString()));
            int asked = 0;
            const auto decide = [&](const Ssl::PeerChain& chain) {
                ++asked;
                EXPECT_EQ(client.connections, 0);
                EXPECT_EQ(chain.host, QLatin1String("127.0.0.1"));
                EXPECT_EQ(chain.port, server.listener.serverPort());
                EXPECT_EQ(chain.certificates.value(0).der, read(row.shown).toDer());
                EXPECT_EQ(client.socket->peerCertificate().der, read(row.shown).toDer());
                EXPECT_FALSE(client.socket->sendData("x", 1));
                std::vector<int> reasons;
                for (const Ssl::CertificateReason& reason : chain.reasons)
                    reasons.push_back(reason.code);
                EXPECT_EQ(reasons, row.reasons) << n;
                settle();
                EXPECT_EQ(server.last().connections, 0) << "our end of the handshake waits";
                return row.handler == eGoesOn;
            };
            client.socket->setVerdictHandler(row.handler == eNobody ? Ssl::VerdictHandler() : decide);
            client.connectTo(server.listener.serverPort());
            ASSERT_TRUE(waitFor([&] { return client.isSettled(); })) << n;
            ASSERT_TRUE(waitFor([&] { return server.last().isSettled(); })) << n;
            EXPECT_EQ(client.connections + server.last().connections, bHolds ? 2 : 0) << n;
            EXPECT_EQ(asked, row.handler == eNobody ? 0 : 1) << n;
            EXPECT_EQ(client.problem().empty(), bHolds) << n;
            EXPECT_EQ(client.problem().find(row.words), 0U) << n << client.problem();
            const std::vector<int> errors = bHolds ? std::vector<int>{} : std::vector<int>{10013};
            EXPECT_EQ(client.errors, errors) << n;
            EXPECT_EQ(server.last().errors, errors) << n << server.last().problem();
            const Ssl::PeerCertificate shown = client.socket->peerCertificate();
            EXPECT_EQ(shown.der, read(row.shown).toDer());
            EXPECT_EQ(shown.publicKeySha256, keyPinOf(row.shown).sha256());
            EXPECT_EQ(server.last().socket->peerCertificate().subject,
                bHolds ? QStringLiteral("CN=recorder") : QString());
        }
    }
}

TEST(SslTrust, SessionsAreResumedAmongTheSamePinsAndNeverWhereAHandlerIsAsked)
{
    const QString good = certificates().forLocalhost();
    const QList<TlsPin> right{pinOf(good)}, wrong{pinOf(camera())};
    const struct {
        QList<TlsPin> pins;
        bool bHolds, bResumed;
        bool bHandler = false; // which takes anybody
        bool bCamera = false; // is who shows its certificate
    } steps[] = {{{}, true, false}, {{}, true, true}, {wrong, false, false}, {right, true, false},
        {right, true, true}, {wrong, false, false}, {{}, true, true}, {{}, true, false, true},
        {{}, true, false, true, true}, {{}, true, false, true, true}, {{}, false, false, false, true}};
    for (const Ssl::SslProtocol protocol : {Ssl::eTls12, Ssl::eTls13}) {
        Server known({protocol, good, {}, true}), unknown({protocol, camera(), {}, true});
        Client client(protocol);
        for (const auto& step : steps) {
            const auto n = &step - steps;
            int asked = 0;
            client.socket->setPins(step.pins);
            ASSERT_TRUE(
                client.socket->initSsl(false, protocol, QString(), certificates().authority(), QString()));
            client.socket->setVerdictHandler(
                step.bHandler ? [&](const Ssl::PeerChain&) { return ++asked > 0; } : Ssl::VerdictHandler());
            client.connections = 0;
            client.errors.clear();
            client.got.clear();
            client.connectTo((step.bCamera ? unknown : known).listener.serverPort());
            ASSERT_TRUE(waitFor([&] { return client.isSettled(); })) << n;
            EXPECT_EQ(client.connections == 1, step.bHolds) << n << client.problem();
            EXPECT_EQ(client.socket->isSessionResumed(), step.bResumed) << n;
            EXPECT_EQ(asked, step.bHandler ? 1 : 0) << n;
            if (step.bHolds) { // the ticket has come with the echo
                client.send("x");
                EXPECT_TRUE(waitFor([&] { return !client.got.isEmpty(); }));
            }
            client.socket->close();
        }
    }
}

TEST(SslTrust, AServerPinsItsClients)
{
    const QString known = certificates().issue({QStringLiteral("recorder"), QString(), -1, 30, true});
    const struct {
        QString shown;
        const char* words; // none: it is let in
    } rows[]
        = {{known, nullptr}, {certificates().forLocalhost(), "the certificate of the peer is not pinned"},
            {QString(), "the peer has sent no certificate"}};
    for (const auto& row : rows) {
        Server server({Ssl::eSslAny12, {}, {}, false, {pinOf(known)}});
        Client client(Ssl::eSslAny12, row.shown);
        client.connectTo(server.listener.serverPort());
        ASSERT_TRUE(waitFor([&] { return !server.talkers.empty() && server.last().isSettled(); }));
        const std::string problem = server.last().problem();
        EXPECT_EQ(server.last().connections == 1, row.words == nullptr) << problem;
        EXPECT_TRUE(row.words == nullptr || problem.find(row.words) != std::string::npos) << problem;
    }
}

TEST(SslTrust, AHandlerMayDoAsItLikesWithItsSocket)
{
    struct Case {
        Client client;
        Server* pServer = nullptr;
    };
    const struct {
        const char* name;
        std::function<bool(Case&)> act;
        int connections; // told in the end; -1: that depends on the protocol
    } rows[] = {
        {"closes", [](Case& c) { return c.client.socket->close(), true; }, 0},
        {"deletes", [](Case& c) { return c.client.socket.reset(), true; }, 0},
        {"begins another connection",
            [](Case& c) {
                c.client.socket->setVerdictHandler({}); // which is on the stack
                c.client.socket->close();
                c.client.connectTo(c.pServer->listener.serverPort());
                return false; // which is no word on that one
            },
            1},
        {"thinks until the peer has left",
            [](Case& c) {
                c.pServer->talkers.clear();
                settle();
                return true;
            },
            -1},
    };
    for (const Ssl::SslProtocol protocol : {Ssl::eTls12, Ssl::eTls13}) {
        for (const auto& row : rows) {
            Server server({protocol, {}, {}, false});
            Case c{Client(protocol), &server};
            int asked = 0;
            bool bAnswered = false;
            c.client.socket->setVerdictHandler([&](const Ssl::PeerChain&) {
                ++asked;
                const bool bGoOn = row.act(c);
                bAnswered = true;
                return bGoOn;
            });
            c.client.connectTo(server.listener.serverPort());
            ASSERT_TRUE(waitFor([&] { return bAnswered; })) << row.name;
            const bool bLeft = row.connections < 0;
            EXPECT_TRUE(waitFor([&] {
                return bLeft ? c.client.isOver() : c.client.connections == row.connections;
            })) << row.name;
            settle();
            EXPECT_EQ(asked, 1) << row.name;
            EXPECT_EQ(c.client.isOver(), bLeft) << row.name;
        }
    }
}

TEST(SslTrust, AHandlerHasAllTheTimeThatItWantsAndIsAskedOnceInAConnection)
{
    for (const bool bSame : {true, false}) {
        PlainTlsServer server(TLS1_2_VERSION, camera());
        Client client(Ssl::eTls12);
        int asked = 0;
        client.socket->setVerdictHandler([&](const Ssl::PeerChain&) {
            seams::clockOffsetMs += 60000;
            settle(600);
            return ++asked > 0;
        });
        server.meet(client);
        if (!bSame) { // one that would be trusted, too
            const QByteArray file = certificates().forLocalhost().toLocal8Bit();
            SSL_use_certificate_chain_file(server.ssl, file.constData());
            SSL_use_PrivateKey_file(server.ssl, file.constData(), SSL_FILETYPE_PEM);
        }
        SSL_set_options(server.ssl, SSL_OP_NO_SESSION_RESUMPTION_ON_RENEGOTIATION);
        SSL_renegotiate(server.ssl);
        SSL_do_handshake(server.ssl);
        ASSERT_TRUE(waitFor([&] {
            server.converse();
            return client.isOver() || SSL_CTX_sess_accept_good(server.context.get()) == 2;
        }));
        SSL_write(server.ssl, "on", 2);
        waitFor([&] {
            server.converse();
            return client.got == "on" || client.isOver();
        });
        EXPECT_EQ(client.got, bSame ? QByteArray("on") : QByteArray());
        EXPECT_EQ(client.errors, bSame ? std::vector<int>{} : std::vector<int>{10013}) << client.problem();
        EXPECT_EQ(asked, 1);
    }
}
