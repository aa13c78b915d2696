#include <KepNuvikaUtil/NuvikaError.h>
#include <KepNuvikaUtil/NuvikaSslSocket.h>
#include <KepNuvikaUtil/NuvikaUdpReceiver.h>
#include <KepNuvikaUtil/SocketCalls.h>
#include <KepNuvikaUtil/SocketError.h>

#include "platform/ErrorCodes_p.h"
#include "support/LogCapture.h"
#include "support/Values.h"

#include <gtest/gtest.h>

// Whatever the system or its resolver says becomes a code that has a name and a text.
TEST(NuvikaError, NamesEveryCodeOfTheSystem)
{
    LogCapture log;
    const auto expectNamed = [](int code, int from) {
        EXPECT_STRNE(NuvikaError::name(code), "") << code << " from " << from;
        EXPECT_NE(SocketError::format(code), QStringLiteral("Unknown")) << code << " from " << from;
    };
    for (int error = 0; error < 200; ++error)
        expectNamed(Nuvika::ErrorCodes::fromErrno(error), error);
    for (int result = -120; result <= 0; ++result)
        expectNamed(Nuvika::ErrorCodes::fromResolver(result), result);
    for (const int code : {5, 995, 10013, 10035, 10054, 10060, 10107, 11001, 11002, 11004})
        expectNamed(code, code);
    EXPECT_TRUE(log.records().empty());
    EXPECT_EQ(SocketError::format(123456), QStringLiteral("Unknown"));
    EXPECT_TRUE(log.has("Failed to get error message for error 123456", QtWarningMsg));
    EXPECT_STREQ(NuvikaError::name(NuvikaError::eConnectionRefused), "ConnectionRefused");
    EXPECT_EQ(SocketError::format(NuvikaError::eConnectionRefused), QStringLiteral("Connection refused"));
    for (const int other : {-1, 1, 404, 10061 << 8})
        EXPECT_STREQ(NuvikaError::name(other), "");
}

TEST(Values, EndsAndCertificatesPrint)
{
    static_assert(moveFreely<NuvikaSslSocket::PeerCertificate>(), "certificates move");
    NuvikaLLSock::ADDR_V4_V6 address{};
    EXPECT_EQ(shown(address), "ADDR_V4_V6(none)");
    NuvikaLLSock::createSockAddr(&address, QHostAddress(QStringLiteral("fe80::1")), 80);
    EXPECT_EQ(shown(address), "ADDR_V4_V6([fe80::1]:80)");
    EXPECT_EQ(shown(NuvikaUdpReceiver::Datagram{"abc", 3, 2, 0x0A000001, nullptr, 5004}),
        "Datagram(bytes 3, from 10.0.0.1:5004)");
    NuvikaSslSocket::PeerCertificate certificate;
    EXPECT_EQ(shown(certificate), "PeerCertificate(none)");
    certificate.subject = QStringLiteral("CN=cam\n");
    certificate.issuer = QStringLiteral("CN=ca");
    certificate.validFrom = QDateTime::fromMSecsSinceEpoch(0, Qt::UTC);
    certificate.validUntil = certificate.validFrom.addDays(1);
    certificate.sha256 = QByteArray("\x01\xFE", 2);
    EXPECT_EQ(shown(certificate),
        "PeerCertificate(\"CN=cam\\n\", by \"CN=ca\", from 1970-01-01T00:00:00Z, until 1970-01-02T00:00:00Z, "
        "sha256 01:fe)");
}
