// Peers that use what TLS allows them against us, and OpenSSL calls that fail.
#include "net/SslTalkers.h"
#include "support/Seams.h"

#include <fcntl.h>
#include <gtest/gtest.h>

TEST(SslPeers, APeerThatOnlyAsksForAnswersIsLeft)
{
    PlainTlsServer server(TLS1_3_VERSION);
    Client client;
    server.meet(client);
    fcntl(server.peer.fd(), F_SETFL, O_NONBLOCK);
    client.send(QByteArray(30000000, 'x')); // which the peer does not read
    QByteArray questions;
    ASSERT_TRUE(waitFor(
        [&] {
            for (int i = 0; i < 500; ++i) {
                SSL_key_update(server.ssl, SSL_KEY_UPDATE_REQUESTED);
                SSL_do_handshake(server.ssl);
                SSL_write(server.ssl, "?", 1);
            }
            questions += server.output();
            const ssize_t sent = ::send(server.peer.fd(), questions.constData(),
                static_cast<std::size_t>(questions.size()), MSG_NOSIGNAL);
            if (sent > 0)
                questions.remove(0, static_cast<int>(sent));
            return client.isOver();
        },
        30000))
        << client.got.size();
    EXPECT_EQ(client.errors, std::vector<int>{10053});
    EXPECT_EQ(client.problem(), "127.0.0.1 asks for answers that it does not read");
}

TEST(SslPeers, ALaterFailureIsToldByItsOwnReasonWhomeverTheSocketTrusts)
{
    Certificates others(QStringLiteral("Somebody else"));
    PlainTlsServer server(TLS1_2_VERSION, others.forLocalhost());
    Client client(Ssl::eSslAny12, QString(), Ssl::eVerifyNone);
    server.meet(client);
    server.peer.write(QByteArray("\x17\x03\x03\0\x20", 5) + QByteArray(32, 'x')); // a record of nobody
    ASSERT_TRUE(waitFor([&] { return client.isOver(); }));
    EXPECT_EQ(client.errors, std::vector<int>{10053}) << client.problem();
    EXPECT_EQ(client.problem(), "TLS with 127.0.0.1 failed: decryption failed or bad record mac");
    EXPECT_FALSE(client.socket->peerCertificate().subject.isEmpty());
}

namespace
{
// Begins a handshake (TLS 1.2) or a message of one (TLS 1.3) within the connection, and keeps the rest back.
struct HoldUp {
    PlainTlsServer server;
    Client client;
    QByteArray rest;
    int rooms = 0; // sigCanSend()
    int sent = 0; // sigAllSent()

    explicit HoldUp(int version) : server(version)
    {
        QObject::connect(client.socket.get(), &Ssl::sigCanSend, [this] { ++rooms; });
        QObject::connect(client.socket.get(), &Ssl::sigAllSent, [this] { ++sent; });
        server.meet(client);
        if (version == TLS1_2_VERSION) {
            SSL_renegotiate(server.ssl);
            SSL_do_handshake(server.ssl);
            server.peer.write(server.output());
        } else {
            SSL_set_max_send_fragment(server.ssl, 512);
            SSL_set_session_id_context(server.ssl, reinterpret_cast<const unsigned char*>("x"), 1);
            SSL_SESSION_set1_ticket_appdata(
                SSL_get_session(server.ssl), QByteArray(1000, 'x').constData(), 1000);
            SSL_new_session_ticket(server.ssl);
            SSL_do_handshake(server.ssl);
            rest = server.output();
            const int first
                = 5 + (static_cast<unsigned char>(rest.at(3)) << 8 | static_cast<unsigned char>(rest.at(4)));
            EXPECT_GT(rest.size(), first) << "the ticket comes in several records";
            server.peer.write(rest.left(first));
            rest.remove(0, first);
        }
        EXPECT_TRUE(waitFor([&] {
            client.send("x");
            return !client.socket->canSend();
        }));
        rooms = 0;
    }
    void goOn()
    {
        server.peer.write(std::exchange(rest, QByteArray()));
        server.converse();
    }
};
} // namespace

TEST(SslPeers, WhatWaitsForThePeersNextStepFollowsItAndTheEndFollowsThat)
{
    for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
        for (const bool bEnd : {false, true}) {
            HoldUp held(version);
            held.client.send(text(3000000)); // more than the peer may make us answer
            if (bEnd)
                held.client.socket->sendEndOfData();
            EXPECT_TRUE(held.client.socket->notifyWhenAllSent()) << "what waits has not left";
            settle();
            EXPECT_FALSE(held.server.peer.atEnd()) << "before what waits";
            EXPECT_EQ(held.rooms + held.sent, 0);
            ASSERT_TRUE(waitFor([&] {
                held.goOn();
                return held.server.plain.size() > 3000000 && (!bEnd || held.server.peer.atEnd());
            })) << version
                << bEnd;
            EXPECT_EQ(held.sent, 1) << version << bEnd;
            if (bEnd) {
                EXPECT_EQ(SSL_get_shutdown(held.server.ssl) & SSL_RECEIVED_SHUTDOWN, SSL_RECEIVED_SHUTDOWN);
            } else {
                EXPECT_TRUE(held.client.socket->canSend());
                EXPECT_EQ(held.rooms, 1);
                seams::clockOffsetMs += 20000;
                settle(600);
            }
            EXPECT_FALSE(held.client.isOver()) << held.client.problem();
        }
    }
}

TEST(SslPeers, APeerThatHoldsUpWhatIsSentIsLeft)
{
    for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
        HoldUp patient(version);
        seams::clockOffsetMs += 9000;
        settle(600);
        EXPECT_FALSE(patient.client.isOver());
        seams::clockOffsetMs += 1500;
        ASSERT_TRUE(waitFor([&] { return patient.client.isOver(); }, 2000));
        EXPECT_EQ(patient.client.errors, std::vector<int>{5}) << patient.client.problem();

        HoldUp much(version);
        const QByteArray block(1 << 20, 'x');
        int taken = 0;
        while (taken < 200 && much.client.socket->sendData(block.constData(), block.size()))
            ++taken;
        EXPECT_EQ(taken, 63);
        EXPECT_TRUE(much.client.errors.empty()) << "never inside the call";
        ASSERT_TRUE(waitFor([&] { return much.client.isOver(); }));
        EXPECT_EQ(much.client.errors, std::vector<int>{10053});
        EXPECT_NE(much.client.problem().find("holds up"), std::string::npos) << much.client.problem();
    }
}

TEST(SslPeers, WhatOpenSslRefusesIsToldInWords)
{
    const struct {
        const char* function;
        const char* words;
        bool bServer = false;
        bool bAtOnce = false; // by initSsl()
        const char* second = "none"; // refused as well
        const char* host = "127.0.0.1";
    } cases[] = {
        {"SSL_CTX_new", "TLS cannot be set up", false, true},
        {"BIO_meth_new", "TLS cannot be set up", true, true},
        {"SSL_CTX_set_session_id_context", "TLS cannot be set up", true, true},
        {"SSL_CTX_load_verify_file", "cannot read trusted certificates", false, true},
        {"SSL_new", "TLS with 127.0.0.1 cannot be set up"},
        {"SSL_new", "TLS with the peer cannot be set up", true},
        {"BIO_new", "TLS with 127.0.0.1 cannot be set up"},
        {"SSL_set_ex_data", "TLS with 127.0.0.1 cannot be set up"},
        {"X509_VERIFY_PARAM_set1_ip_asc", "TLS with 127.0.0.1 cannot be set up", false, false,
            "X509_VERIFY_PARAM_set1_host"},
        {"SSL_ctrl", "TLS with localhost cannot be set up", false, false, "none", "localhost"},
    };
    for (const auto& one : cases) {
        RawListener listener;
        Talker talker;
        const auto begin = [&] {
            return talker.socket->initSsl(one.bServer, Ssl::eSslAny12,
                one.bServer ? certificates().forLocalhost() : QString(),
                one.bServer ? QString() : certificates().authority(), QString());
        };
        ASSERT_TRUE(one.bAtOnce || begin());
        seams::crypto(one.function).arm(1, 0);
        seams::crypto(one.second).arm(1, 0);
        EXPECT_FALSE(one.bAtOnce && begin()) << one.function;
        RawSocket peer = RawSocket::connectTo(listener.port());
        if (one.bServer)
            talker.socket->setSocketDescriptor(listener.accept().release());
        else
            talker.socket->connectToHost(QLatin1String(one.host), listener.port());
        EXPECT_TRUE(talker.errors.empty()) << "never inside the call";
        ASSERT_TRUE(waitFor([&] { return talker.isOver(); })) << one.function;
        EXPECT_EQ(talker.errors, std::vector<int>{10053}) << one.function;
        EXPECT_NE(talker.problem().find(one.words), std::string::npos) << one.function << talker.problem();
        EXPECT_EQ(talker.socket->getState(), NuvikaTcpSocket::eError);
        talker.socket->close();
        EXPECT_TRUE(begin()) << one.function << " was refused once: " << talker.problem();
    }
}
