#include "net/SslTalkers.h"
#include "support/LogCapture.h"
#include "support/RawPeer.h"
#include "support/Seams.h"

#include <QtCore/QUrl>

#include <algorithm>
#include <gtest/gtest.h>

TEST(SslSocket, TalksInEveryProtocolAndResumes)
{
    const char* const names[] = {"TLSv1.3", "TLSv1.3", "TLSv1", "TLSv1.1", "TLSv1.2", "TLSv1.3"};
    const QByteArray block = text(3000000);
    for (int protocol = 0; protocol <= 5; ++protocol) {
        Server server({static_cast<Ssl::SslProtocol>(protocol), {}, {}, true});
        Client client(static_cast<Ssl::SslProtocol>(protocol));
        EXPECT_EQ(client.socket->getSllProtocol(), protocol);
        for (const bool bAgain : {false, true}) {
            client.got.clear();
            client.meet(server);
            EXPECT_EQ(client.socket->getState(), NuvikaTcpSocket::eConnected);
            EXPECT_EQ(client.socket->protocolName(), QLatin1String(names[protocol]));
            EXPECT_EQ(client.socket->isSessionResumed(), bAgain) << protocol;
            EXPECT_EQ(client.socket->peerPort(), server.listener.serverPort());
            client.send(block);
            ASSERT_TRUE(waitFor([&] { return client.got.size() >= block.size(); })) << protocol;
            EXPECT_EQ(client.got, block);
            const Ssl::PeerCertificate peer = client.socket->peerCertificate();
            EXPECT_EQ(peer.subject, QLatin1String("CN=cam-7"));
            EXPECT_EQ(peer.issuer, QLatin1String("CN=Test authority"));
            EXPECT_LT(peer.validFrom, QDateTime::currentDateTimeUtc());
            EXPECT_GT(peer.validUntil, QDateTime::currentDateTimeUtc());
            EXPECT_EQ(peer.sha256.size(), 32);
            client.socket->close();
            ASSERT_TRUE(waitFor([&] { return server.last().isOver(); }));
            EXPECT_EQ(server.last().ends, std::vector<unsigned long>{0}) << "close_notify came";
        }
        EXPECT_TRUE(client.ends.empty()) << "close() says nothing";
    }
}

TEST(SslSocket, RefusesCertificatesInWords)
{
    Certificates others(QStringLiteral("Somebody else"));
    const QString local = QStringLiteral("DNS:localhost,IP:127.0.0.1");
    struct Case {
        QString file;
        const char* words;
        bool bChainIsGood;
    };
    const Case cases[] = {
        {certificates().issue({QStringLiteral("old"), local, -30, -2}),
            "the certificate of 127.0.0.1 expired on", false},
        {certificates().issue({QStringLiteral("young"), local, 2, 30}), "is not valid before", false},
        {certificates().issue({QStringLiteral("x"), QStringLiteral("DNS:other.example,IP:127.0.0.9")}),
            "was issued to another host: other.example, 127.0.0.9", true},
        {certificates().issue({QStringLiteral("bare\x1b[2J"), QString()}), "another host: CN=bare\\1B[2J",
            true},
        {others.issue({QStringLiteral("x"), local}), "was issued by CN=Somebody else, which is not trusted",
            false},
        {certificates().issue({QStringLiteral("x"), local, -1, 30, true}), "self-signed", false},
    };
    for (const Case& one : cases) {
        for (const Ssl::SslProtocol protocol : {Ssl::eTls12, Ssl::eTls13}) {
            Server server({protocol, one.file, {}, false});
            Client client(protocol);
            client.connectTo(server.listener.serverPort());
            ASSERT_TRUE(waitFor([&] { return client.isOver() && server.last().isOver(); })) << one.words;
            EXPECT_EQ(client.errors, std::vector<int>{10013}) << one.words;
            EXPECT_NE(client.problem().find(one.words), std::string::npos) << client.problem();
            EXPECT_EQ(client.connections, 0);
            EXPECT_FALSE(client.socket->peerCertificate().subject.isEmpty()) << "what was refused";
            EXPECT_EQ(server.last().errors.size(), 1U) << server.last().problem();

            Client chain(protocol, QString(), Ssl::eVerifyChain);
            chain.connectTo(server.listener.serverPort());
            ASSERT_TRUE(waitFor([&] { return chain.isOver() || chain.connections > 0; }));
            EXPECT_EQ(chain.connections, one.bChainIsGood ? 1 : 0) << one.words;

            Client anybody(protocol, QString(), Ssl::eVerifyNone);
            anybody.meet(server);
        }
    }
    // Trusting the certificate itself, alone or in a folder of anything, is enough.
    Server server({Ssl::eSslAny12, cases[5].file, {}, false});
    Client client;
    client.socket->initSsl(false, Ssl::eSslAny12, QString(), cases[5].file, QString());
    client.meet(server);
    client.socket->close();
    client.socket->initSsl(false, Ssl::eSslAny12, QString(), certificates().folder(), QString());
    client.meet(server);
}

TEST(SslSocket, MatchesNamesAsTheyStand)
{
    Server server({Ssl::eSslAny12,
        certificates().issue(
            {QStringLiteral("x"), QStringLiteral("DNS:cam_7.test,DNS:*.wild.test,DNS:xn--bro-hoa.test")}),
        {}, false});
    const std::pair<const char*, bool> names[]
        = {{"cam_7.test", true}, {"CAM_7.test.", true}, {"a.wild.test", true}, {"a.b.wild.test", false},
            {"wild.test", false}, {".test", false}, {"b\u00fcro.test", true}};
    for (const auto& [name, bMatches] : names) {
        const QString host = QString::fromUtf8(name);
        seams::setName(name, {"127.0.0.1"});
        seams::setName(QUrl::toAce(host).toStdString(), {"127.0.0.1"});
        Client client;
        client.socket->connectToHost(host, server.listener.serverPort());
        ASSERT_TRUE(waitFor([&] { return client.isOver() || client.connections == 1; })) << name;
        EXPECT_EQ(client.connections == 1, bMatches) << name << ": " << client.problem();
    }
}

TEST(SslSocket, AsksForClientCertificatesWhenToldWhomToTrust)
{
    Certificates others(QStringLiteral("Somebody else"));
    const QString own = certificates().issue({QStringLiteral("recorder"), QString()});
    const QString strange = others.issue({QStringLiteral("stranger"), QString()});
    for (const Ssl::SslProtocol protocol : {Ssl::eTls12, Ssl::eTls13}) {
        Server server({protocol, {}, certificates().authority(), false});
        Client none(protocol);
        none.connectTo(server.listener.serverPort());
        ASSERT_TRUE(waitFor([&] { return none.isOver() && server.last().isOver(); }));
        EXPECT_NE(none.problem().find("certificate of ours"), std::string::npos) << none.problem();
        EXPECT_EQ(server.last().errors, std::vector<int>{10013});
        EXPECT_EQ(server.last().problem(), "the peer has sent no certificate");

        Client stranger(protocol, strange);
        stranger.connectTo(server.listener.serverPort());
        ASSERT_TRUE(waitFor([&] { return stranger.isOver() && server.last().isOver(); }));
        EXPECT_EQ(stranger.errors, std::vector<int>{10013});
        EXPECT_NE(stranger.problem().find("refuses our certificate"), std::string::npos)
            << stranger.problem();
        EXPECT_EQ(server.last().errors, std::vector<int>{10013});

        Client known(protocol, own);
        known.meet(server);
        EXPECT_EQ(server.last().socket->peerCertificate().subject, QLatin1String("CN=recorder"));
    }
}

TEST(SslSocket, SaysWhatIsWrongWithItsConfiguration)
{
    const QString locked
        = certificates().issue({QStringLiteral("locked"), QString(), -1, 30, false, QByteArray("secret")});
    Talker talker;
    const auto init = [&](bool bServer, int protocol, const QString& own, const QString& trusted,
                          const QString& phrase) {
        return talker.socket->initSsl(bServer, static_cast<Ssl::SslProtocol>(protocol), own, trusted, phrase);
    };
    for (const int protocol : {-1, 6}) {
        LogCapture log;
        EXPECT_FALSE(init(false, protocol, {}, {}, {}));
        EXPECT_EQ(log.count("unknown protocol", QtCriticalMsg), 1);
    }
    EXPECT_TRUE(init(false, 0, locked, {}, QStringLiteral("secret"))) << talker.problem();
    EXPECT_FALSE(init(false, 0, locked, {}, QStringLiteral("wrong")));
    EXPECT_NE(talker.problem().find("pass phrase"), std::string::npos) << talker.problem();
    EXPECT_FALSE(init(false, 0, locked, {}, {})) << "and nobody is asked on a terminal";
    EXPECT_FALSE(init(true, 0, {}, {}, {}));
    EXPECT_EQ(talker.problem(), "a server needs a certificate");
    EXPECT_FALSE(init(false, 0, certificates().authority(), {}, {})) << "it has no key";
    EXPECT_FALSE(init(false, 0, QStringLiteral("missing.pem"), {}, {}));
    EXPECT_EQ(talker.problem(), "cannot read a certificate from missing.pem: No such file or directory");
    EXPECT_FALSE(init(false, 0, {}, QStringLiteral("missing.pem"), {}));
    EXPECT_EQ(
        talker.problem(), "cannot read trusted certificates from missing.pem: No such file or directory");

    RawListener listener;
    talker.socket->connectToHost(QHostAddress(QHostAddress::LocalHost), listener.port());
    EXPECT_TRUE(talker.errors.empty()) << "never inside the call";
    EXPECT_EQ(talker.socket->getState(), NuvikaTcpSocket::eConnecting);
    ASSERT_TRUE(waitFor([&] { return talker.isOver(); }));
    EXPECT_EQ(talker.errors, std::vector<int>{10053});
    EXPECT_NE(talker.problem().find("missing.pem"), std::string::npos) << talker.problem();

    talker.socket->close();
    talker.errors.clear();
    EXPECT_TRUE(init(false, 0, {}, {}, {}));
    EXPECT_FALSE(init(false, 6, {}, {}, {}));
    talker.socket->connectToHost(QHostAddress(QHostAddress::LocalHost), listener.port());
    ASSERT_TRUE(waitFor([&] { return talker.isOver(); }));
    EXPECT_EQ(talker.problem(), "there is no TLS protocol 6") << "the earlier configuration does not hold";

    // What setters have stored stands in for empty strings.
    talker.socket->close();
    talker.socket->setCertificateFileName(certificates().forLocalhost());
    EXPECT_TRUE(init(true, 0, {}, {}, {}));
    talker.socket->setCertificateFilePath(QStringLiteral("missing.pem"));
    EXPECT_FALSE(init(false, 0, {}, {}, {}));
}

TEST(SslSocket, GivesUpAHandshakeAfterTenSeconds)
{
    RawListener listener;
    Client client;
    client.connectTo(listener.port());
    RawSocket peer;
    ASSERT_TRUE(waitFor([&] { return (peer = listener.accept()).isOpen(); }));
    ASSERT_TRUE(waitFor([&] { return !peer.received().isEmpty(); })) << "the first flight";
    seams::clockOffsetMs += 9000;
    settle(600);
    EXPECT_FALSE(client.isOver());
    LogCapture log;
    seams::clockOffsetMs += 1500;
    ASSERT_TRUE(waitFor([&] { return client.isOver(); }, 2000));
    EXPECT_EQ(client.errors, std::vector<int>{5});
    EXPECT_GE(log.count("within 10 seconds", QtWarningMsg), 1);
    EXPECT_EQ(client.socket->getState(), NuvikaTcpSocket::eError);
    settle(600);
    EXPECT_EQ(client.errors.size(), 1U) << "once";
}

TEST(SslSocket, ReportsWhatEndsAHandshake)
{
    RawListener listener;
    Client client;
    const auto meet = [&] {
        client.errors.clear();
        client.socket->close();
        client.connectTo(listener.port());
        RawSocket peer;
        waitFor([&] { return (peer = listener.accept()).isOpen(); });
        waitFor([&] { return !peer.received().isEmpty(); });
        return peer;
    };
    RawSocket peer = meet();
    peer.write("HTTP/1.1 400 Bad Request\r\n\r\n");
    ASSERT_TRUE(waitFor([&] { return client.isOver(); }));
    EXPECT_EQ(client.errors, std::vector<int>{10053});
    EXPECT_EQ(client.problem(), "127.0.0.1 does not speak TLS on this port");

    peer = meet();
    peer.close();
    ASSERT_TRUE(waitFor([&] { return client.isOver(); }));
    EXPECT_EQ(client.errors, std::vector<int>{10053});
    EXPECT_NE(client.problem().find("closed the connection during the TLS handshake"), std::string::npos);

    peer = meet();
    peer.reset();
    ASSERT_TRUE(waitFor([&] { return client.isOver(); }));
    EXPECT_EQ(client.errors, std::vector<int>{10054});

    Server server({Ssl::eTls12, {}, {}, false});
    Client newer(Ssl::eTls13);
    newer.connectTo(server.listener.serverPort());
    ASSERT_TRUE(waitFor([&] { return newer.isOver() && server.last().isOver(); }));
    EXPECT_NE(newer.problem().find("none of the TLS versions"), std::string::npos) << newer.problem();
    EXPECT_NE(server.last().problem().find("none of the TLS versions"), std::string::npos);

    RawSocket plain = RawSocket::connectTo(server.listener.serverPort());
    plain.write("GET / HTTP/1.1\r\n\r\n");
    ASSERT_TRUE(waitFor([&] { return server.talkers.size() == 2 && server.last().isOver(); }));
    EXPECT_EQ(server.last().problem(), "the peer does not speak TLS on this port");
}

TEST(SslSocket, TellsAnEndWithoutAGoodbye)
{
    Server server;
    Client client;
    client.meet(server);
    server.last().send("last words");
    ::shutdown(server.descriptors.back(), SHUT_WR);
    ASSERT_TRUE(waitFor([&] { return client.isOver(); }));
    EXPECT_EQ(client.ends, std::vector<unsigned long>{1});
    EXPECT_EQ(client.got, QByteArray("last words"));
    EXPECT_EQ(client.socket->getState(), NuvikaTcpSocket::eUnconnected);
    client.meet(server);
    const linger hard{1, 0};
    setsockopt(server.descriptors.back(), SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
    server.talkers.pop_back();
    ASSERT_TRUE(waitFor([&] { return client.ends.size() + client.errors.size() == 2; }));
    EXPECT_TRUE(client.errors == std::vector<int>{10054} || client.ends.back() == 0);
}

TEST(SslSocket, HalfClosesBehindWhatWasSent)
{
    Server server;
    Client client;
    client.meet(server);
    const QByteArray block = text(2000000);
    client.send(block);
    client.socket->sendEndOfData();
    EXPECT_FALSE(client.socket->sendData("x", 1));
    ASSERT_TRUE(waitFor([&] { return server.last().isOver(); }));
    EXPECT_EQ(server.last().got, block);
    EXPECT_EQ(server.last().ends, std::vector<unsigned long>{0});
    ASSERT_TRUE(waitFor([&] { return client.isOver(); }));
    EXPECT_EQ(client.ends, std::vector<unsigned long>{0});
}

TEST(SslSocket, ClosesBehindWhatWasSentAndPostponesAConnect)
{
    Server server;
    Client client;
    client.meet(server);
    Talker& reader = server.last();
    reader.socket->stallRecv();
    const QByteArray block = text(2000000);
    client.send(block);
    client.socket->close(); // much of it waits here
    EXPECT_EQ(client.socket->getState(), NuvikaTcpSocket::eUnconnected);
    client.connectTo(server.listener.serverPort());
    EXPECT_EQ(client.socket->getState(), NuvikaTcpSocket::eConnecting);
    settle();
    EXPECT_EQ(server.talkers.size(), 1U) << "the connect waits for the close";
    reader.socket->resumeRecv();
    ASSERT_TRUE(waitFor([&] { return reader.isOver() && client.connections == 2; }));
    EXPECT_EQ(reader.got, block) << "nothing was lost";
    EXPECT_EQ(reader.ends, std::vector<unsigned long>{0});

    // A peer that does not read holds the close up for half a second.
    ASSERT_TRUE(waitFor([&] { return server.last().connections == 1; }));
    server.last().socket->stallRecv();
    client.send(block);
    client.socket->close();
    QElapsedTimer time;
    time.start();
    client.connectTo(server.listener.serverPort());
    ASSERT_TRUE(waitFor([&] { return client.connections == 3; }));
    EXPECT_GE(time.elapsed(), 450);
    EXPECT_LT(time.elapsed(), 3000);
    EXPECT_TRUE(client.ends.empty() && client.errors.empty());
}

TEST(SslSocket, StallsItsPeerAndLosesNothing)
{
    Server server;
    Client client;
    client.socket->stallRecv(); // the handshake goes on all the same
    client.meet(server);
    const QByteArray block = text(20000000);
    server.last().send(block);
    settle(100);
    EXPECT_LT(client.got.size(), 2000000);
    client.onData = [&] {
        client.socket->stallRecv();
        QTimer::singleShot(0, client.socket.get(), [&] { client.socket->resumeRecv(); });
    };
    client.socket->resumeRecv();
    ASSERT_TRUE(waitFor([&] { return client.got.size() >= block.size(); }));
    EXPECT_EQ(client.got, block);
}
