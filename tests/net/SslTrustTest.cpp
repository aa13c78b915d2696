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

bool initialise(Client& client, const QList<TlsPin>& pins, Ssl::SslProtocol protocol = Ssl::eSslAny12)
{
    client.socket->setPins(pins);
    return client.socket->initSsl(false, protocol, QString(), certificates().authority(), QString());
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

TEST(SslTrust, APinHoldsWhateverTheCertificateSaysAndNoOtherDoes)
{
    const TlsPin other = TlsPin::publicKey(QByteArray(32, 'x'));
    const QString good = certificates().forLocalhost();
    const struct {
        QString shown;
        QList<TlsPin> pins;
        bool bHolds;
        Ssl::SslVerifyCertificateMode mode = Ssl::eVerifyChainAndHost;
    } rows[] = {
        {camera(), {pinOf(camera())}, true},
        {camera(), {keyPinOf(camera())}, true},
        {camera(), {other, TlsPin(), keyPinOf(camera())}, true},
        {camera(), {}, false},
        {good, {}, true},
        {good, {pinOf(camera()), keyPinOf(camera())}, false},
        {good, {TlsPin::certificate(keyPinOf(good).sha256()), TlsPin::publicKey(pinOf(good).sha256())},
            false},
        {good, {TlsPin()}, false},
        {good, {pinOf(certificates().authority())}, false},
        {good, {other}, false, Ssl::eVerifyNone},
    };
    for (const Ssl::SslProtocol protocol : {Ssl::eTls12, Ssl::eTls13}) {
        for (const auto& row : rows) {
            const auto n = &row - rows;
            Server server({protocol, row.shown, {}, false});
            Client client(protocol, QString(), row.mode);
            ASSERT_TRUE(initialise(client, row.pins, protocol));
            client.connectTo(server.listener.serverPort());
            ASSERT_TRUE(waitFor([&] { return client.isOver() || client.connections > 0; })) << n;
            EXPECT_EQ(client.connections == 1, row.bHolds) << n << client.problem();
            EXPECT_EQ(client.errors, row.bHolds ? std::vector<int>{} : std::vector<int>{10013}) << n;
            const Ssl::PeerCertificate shown = client.socket->peerCertificate();
            EXPECT_EQ(shown.der, read(row.shown).toDer());
            EXPECT_EQ(shown.publicKeySha256, keyPinOf(row.shown).sha256());
            if (row.bHolds || row.pins.isEmpty())
                continue;
            EXPECT_EQ(client.problem(),
                "the certificate of 127.0.0.1 is not pinned; its fingerprint is "
                    + pinOf(row.shown).toText().toStdString() + ", its public key's "
                    + keyPinOf(row.shown).toText().toStdString());
            ASSERT_TRUE(waitFor([&] { return server.last().isOver(); }));
            EXPECT_EQ(server.last().errors, std::vector<int>{10013}) << server.last().problem();
        }
    }
}

TEST(SslTrust, SessionsAreResumedAmongTheSamePinsOnly)
{
    const QString good = certificates().forLocalhost();
    const QList<TlsPin> right{pinOf(good)}, wrong{pinOf(camera())};
    const struct {
        QList<TlsPin> pins;
        bool bHolds, bResumed;
    } steps[] = {{{}, true, false}, {{}, true, true}, {wrong, false, false}, {right, true, false},
        {right, true, true}, {wrong, false, false}, {{}, true, true}};
    for (const Ssl::SslProtocol protocol : {Ssl::eTls12, Ssl::eTls13}) {
        Server server({protocol, good, {}, true});
        Client client(protocol);
        for (const auto& step : steps) {
            const auto n = &step - steps;
            ASSERT_TRUE(initialise(client, step.pins, protocol));
            client.connections = 0;
            client.errors.clear();
            client.got.clear();
            client.connectTo(server.listener.serverPort());
            ASSERT_TRUE(waitFor([&] { return client.isOver() || client.connections > 0; })) << n;
            EXPECT_EQ(client.connections == 1, step.bHolds) << n << client.problem();
            EXPECT_EQ(client.socket->isSessionResumed(), step.bResumed) << n;
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
        NuvikaTcpServer listener;
        Talker server;
        server.socket->setPins({pinOf(known)});
        ASSERT_TRUE(server.socket->initSsl(
            true, Ssl::eSslAny12, certificates().forLocalhost(), QString(), QString()));
        QObject::connect(&listener, &NuvikaTcpServer::newConnectionDesc,
            [&](int descriptor) { server.socket->setSocketDescriptor(descriptor); });
        ASSERT_TRUE(listener.listen(QHostAddress(QHostAddress::LocalHost), 0));
        Client client(Ssl::eSslAny12, row.shown);
        client.connectTo(listener.serverPort());
        ASSERT_TRUE(waitFor([&] { return server.isOver() || server.connections > 0; }));
        EXPECT_EQ(server.connections == 1, row.words == nullptr) << server.problem();
        if (row.words != nullptr) {
            EXPECT_NE(server.problem().find(row.words), std::string::npos) << server.problem();
        }
    }
}

TEST(SslTrust, AHandlerDecidesBeforeAnythingOfOursHasLeft)
{
    const QString good = certificates().forLocalhost();
    const QString ours = certificates().issue({QStringLiteral("recorder"), QString()});
    const struct {
        QString shown;
        Ssl::SslVerifyCertificateMode mode;
        bool bGoOn;
        std::vector<int> reasons; // X509_V_ERR_...
        const char* words;
        QList<TlsPin> pins = {};
    } rows[] = {
        {good, Ssl::eVerifyChainAndHost, true, {}, ""},
        {good, Ssl::eVerifyChainAndHost, false, {},
            "the certificate of 127.0.0.1 was refused by the verdict handler"},
        {camera(), Ssl::eVerifyChainAndHost, true,
            {X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT, X509_V_ERR_IP_ADDRESS_MISMATCH,
                X509_V_ERR_CERT_HAS_EXPIRED},
            ""},
        {camera(), Ssl::eVerifyChainAndHost, false,
            {X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT, X509_V_ERR_IP_ADDRESS_MISMATCH,
                X509_V_ERR_CERT_HAS_EXPIRED},
            "the certificate of 127.0.0.1 is self-signed, and not among the trusted ones"},
        {camera(), Ssl::eVerifyNone, true, {}, ""},
        {camera(), Ssl::eVerifyNone, false, {}, "refused by the verdict handler"},
        {camera(), Ssl::eVerifyChainAndHost, true, {X509_V_ERR_CERT_REJECTED}, "", {pinOf(good)}},
        {camera(), Ssl::eVerifyChainAndHost, false, {X509_V_ERR_CERT_REJECTED}, "is not pinned",
            {pinOf(good)}},
        {camera(), Ssl::eVerifyChainAndHost, true, {}, "", {pinOf(camera())}},
    };
    for (const Ssl::SslProtocol protocol : {Ssl::eTls12, Ssl::eTls13}) {
        for (const auto& row : rows) {
            const auto n = &row - rows;
            Server server({protocol, row.shown, certificates().authority(), false});
            Client client(protocol, ours, row.mode);
            client.socket->setPins(row.pins);
            ASSERT_TRUE(client.socket->initSsl(false, protocol, ours, certificates().authority(), QString()));
            int asked = 0;
            std::vector<int> reasons;
            client.socket->setVerdictHandler([&](const Ssl::PeerChain& chain) {
                ++asked;
                EXPECT_EQ(client.connections, 0);
                EXPECT_EQ(chain.host, QLatin1String("127.0.0.1"));
                EXPECT_EQ(chain.port, server.listener.serverPort());
                EXPECT_EQ(chain.certificates.value(0).der, read(row.shown).toDer());
                EXPECT_EQ(client.socket->peerCertificate().der, read(row.shown).toDer());
                EXPECT_FALSE(client.socket->sendData("x", 1));
                for (const Ssl::CertificateReason& reason : chain.reasons)
                    reasons.push_back(reason.code);
                settle();
                EXPECT_EQ(server.last().connections, 0) << "our end of the handshake waits";
                return row.bGoOn;
            });
            client.connectTo(server.listener.serverPort());
            ASSERT_TRUE(waitFor([&] { return asked > 0; })) << n << client.problem();
            ASSERT_TRUE(waitFor([&] {
                return row.bGoOn ? client.connections + server.last().connections == 2
                                 : client.isOver() && server.last().isOver();
            })) << n
                << client.problem();
            EXPECT_EQ(asked, 1) << n;
            EXPECT_EQ(reasons, row.reasons) << n;
            EXPECT_EQ(client.problem().empty(), row.bGoOn) << n;
            EXPECT_NE(client.problem().find(row.words), std::string::npos) << n << client.problem();
            EXPECT_EQ(client.errors, row.bGoOn ? std::vector<int>{} : std::vector<int>{10013});
            EXPECT_EQ(server.last().socket->peerCertificate().subject,
                row.bGoOn ? QStringLiteral("CN=recorder") : QString());
        }
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

TEST(SslTrust, AHandlerHasAllTheTimeThatItWants)
{
    for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
        PlainTlsServer server(version, camera());
        Client client;
        client.socket->setVerdictHandler([](const Ssl::PeerChain&) {
            seams::clockOffsetMs += 60000;
            settle(600);
            return true;
        });
        server.meet(client);
    }
}

TEST(SslTrust, WhatAHandlerAcceptedIsAskedAgainAndResumedByNobody)
{
    for (const Ssl::SslProtocol protocol : {Ssl::eTls12, Ssl::eTls13}) {
        Server server({protocol, camera(), {}, true});
        Client client(protocol);
        int asked = 0;
        client.socket->setVerdictHandler([&](const Ssl::PeerChain&) { return ++asked > 0; });
        for (int i = 1; i <= 3; ++i) {
            client.got.clear();
            client.meet(server);
            client.send("x");
            EXPECT_TRUE(waitFor([&] { return !client.got.isEmpty(); })) << "and a ticket with it";
            EXPECT_FALSE(client.socket->isSessionResumed());
            EXPECT_EQ(asked, i);
            client.socket->close();
        }
        client.socket->setVerdictHandler({});
        client.connectTo(server.listener.serverPort());
        ASSERT_TRUE(waitFor([&] { return client.isOver(); }));
        EXPECT_EQ(client.errors, std::vector<int>{10013}) << "what the handler accepted holds for it only";
    }
}

TEST(SslTrust, WithinAConnectionTheCertificateStaysWhatWasAccepted)
{
    for (const bool bSame : {true, false}) {
        PlainTlsServer server(TLS1_2_VERSION, camera());
        Client client(Ssl::eTls12);
        int asked = 0;
        client.socket->setVerdictHandler([&](const Ssl::PeerChain&) { return ++asked > 0; });
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
