#include "net/SslTalkers.h"
#include "support/LogCapture.h"
#include "support/RawPeer.h"
#include "support/Seams.h"

#include <QtCore/QUrl>

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
            EXPECT_EQ(client.socket->protocolName(), QLatin1String(names[protocol]));
            EXPECT_EQ(client.socket->isSessionResumed(), bAgain) << protocol;
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
            ASSERT_TRUE(waitFor([&] { return chain.isSettled(); }));
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
    Server bare({Ssl::eSslAny12, certificates().issue({QStringLiteral("cam-9.test"), QString()}), {}, false});
    Server named({Ssl::eSslAny12,
        certificates().issue(
            {QStringLiteral("x"), QStringLiteral("DNS:cam_7.test,DNS:*.wild.test,DNS:xn--bro-hoa.test")}),
        {}, false});
    const struct {
        const char* name;
        bool bMatches;
        Server& server;
    } cases[] = {{"cam_7.test", true, named}, {"CAM_7.test.", true, named}, {"a.wild.test", true, named},
        {"a.b.wild.test", false, named}, {"wild.test", false, named}, {".test", false, named},
        {"b\u00fcro.test", true, named}, {"x", false, named}, {"cam-9.test", true, bare}};
    for (const auto& [name, bMatches, server] : cases) {
        const QString host = QString::fromUtf8(name);
        seams::setName(name, {"127.0.0.1"});
        seams::setName(QUrl::toAce(host).toStdString(), {"127.0.0.1"});
        Client client;
        client.socket->connectToHost(host, server.listener.serverPort());
        ASSERT_TRUE(waitFor([&] { return client.isSettled(); })) << name;
        EXPECT_EQ(client.connections == 1, bMatches) << name << ": " << client.problem();
    }
}

TEST(SslSocket, AsksForClientCertificatesWhenToldWhomToTrust)
{
    Certificates others(QStringLiteral("Somebody else"));
    const struct {
        QString own;
        const char* words;
        const char* serversWords;
    } refused[] = {{QString(), "certificate of ours", "the peer has sent no certificate"},
        {others.issue({QStringLiteral("stranger"), QString()}), "refuses our certificate", ""}};
    for (const Ssl::SslProtocol protocol : {Ssl::eTls12, Ssl::eTls13}) {
        Server server({protocol, {}, certificates().authority(), false});
        for (const auto& one : refused) {
            Client client(protocol, one.own);
            client.connectTo(server.listener.serverPort());
            ASSERT_TRUE(waitFor([&] { return client.isOver() && server.last().isOver(); }));
            EXPECT_TRUE(one.own.isEmpty() || client.errors == std::vector<int>{10013}) << client.problem();
            EXPECT_NE(client.problem().find(one.words), std::string::npos) << client.problem();
            EXPECT_EQ(server.last().errors, std::vector<int>{10013});
            EXPECT_NE(server.last().problem().find(one.serversWords), std::string::npos);
        }
    }
}

TEST(SslSocket, SaysWhatIsWrongWithItsConfiguration)
{
    const QString locked
        = certificates().issue({QStringLiteral("locked"), QString(), -1, 30, false, QByteArray("secret")});
    const QString missing = QStringLiteral("missing.pem");
    const struct {
        bool bServer;
        int protocol;
        QString own, trusted, phrase;
        const char* words; // none: it is taken
    } cases[] = {
        {false, -1, {}, {}, {}, "there is no TLS protocol -1"},
        {false, 6, {}, {}, {}, "there is no TLS protocol 6"},
        {false, 0, locked, {}, QStringLiteral("secret"), nullptr},
        {false, 0, locked, {}, QStringLiteral("wrong"), "pass phrase"},
        {false, 0, locked, {}, {}, "pass phrase"}, // and nobody is asked on a terminal
        {true, 0, {}, {}, {}, "a server needs a certificate"},
        {false, 0, certificates().authority(), {}, {}, ""}, // it has no key
        {false, 0, missing, {}, {}, "cannot read a certificate from missing.pem: No such file or directory"},
        {false, 0, {}, missing, {},
            "cannot read trusted certificates from missing.pem: No such file or directory"},
    };
    Talker talker;
    LogCapture log;
    RawListener listener;
    for (const auto& c : cases) {
        const bool bTaken = talker.socket->initSsl(
            c.bServer, static_cast<Ssl::SslProtocol>(c.protocol), c.own, c.trusted, c.phrase);
        const std::string problem = talker.problem();
        ASSERT_EQ(bTaken, c.words == nullptr) << problem;
        if (bTaken)
            continue; // that configuration does not hold for the next
        EXPECT_NE(problem.find(c.words), std::string::npos) << problem;
        talker.socket->connectToHost(QHostAddress(QHostAddress::LocalHost), listener.port());
        EXPECT_TRUE(talker.errors.empty()) << "never inside the call";
        EXPECT_EQ(talker.socket->getState(), NuvikaTcpSocket::eConnecting);
        ASSERT_TRUE(waitFor([&] { return talker.isOver(); }));
        EXPECT_EQ(std::exchange(talker.errors, {}), std::vector<int>{10053});
        EXPECT_EQ(talker.problem(), problem);
        talker.socket->close();
    }
    EXPECT_EQ(log.count("unknown protocol", QtCriticalMsg), 2);
    // What setters have stored stands in for empty strings.
    talker.socket->setCertificateFileName(certificates().forLocalhost());
    EXPECT_TRUE(talker.socket->initSsl(true, Ssl::eSslAny12, {}, {}, {}));
    talker.socket->setCertificateFilePath(missing);
    EXPECT_FALSE(talker.socket->initSsl(false, Ssl::eSslAny12, {}, {}, {}));
}

TEST(SslSocket, ReportsWhatEndsAHandshake)
{
    LogCapture log;
    const struct {
        std::function<void(RawSocket&, Client&)> act;
        int code;
        const char* words;
    } cases[] = {
        {[](RawSocket& peer, Client&) { peer.write("HTTP/1.1 400 Bad Request\r\n\r\n"); }, 10053,
            "127.0.0.1 does not speak TLS on this port"},
        {[](RawSocket& peer, Client&) { peer.close(); }, 10053,
            "closed the connection during the TLS handshake"},
        {[](RawSocket& peer, Client&) { peer.reset(); }, 10054, ""},
        {[](RawSocket&, Client& client) {
             seams::clockOffsetMs += 9000;
             settle(600);
             EXPECT_FALSE(client.isOver());
             seams::clockOffsetMs += 1500;
         },
            5, "within 10 seconds"},
    };
    for (const auto& c : cases) {
        RawListener listener;
        RawSocket peer;
        Client client;
        client.connectTo(listener.port());
        ASSERT_TRUE(waitFor([&] { return (peer = listener.accept()).isOpen(); }));
        ASSERT_TRUE(waitFor([&] { return !peer.received().isEmpty(); })) << "the first flight";
        c.act(peer, client);
        ASSERT_TRUE(waitFor([&] { return client.isOver(); })) << c.words;
        settle(c.code == 5 ? 600 : 0);
        EXPECT_EQ(client.errors, std::vector<int>{c.code}) << c.words << ", once";
        EXPECT_NE(client.problem().find(c.words), std::string::npos) << client.problem();
        EXPECT_EQ(client.socket->getState(), NuvikaTcpSocket::eError);
    }
    EXPECT_TRUE(log.has("within 10 seconds", QtWarningMsg));
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
