#include "platform/WorkerPool_p.h"
#include "support/LogCapture.h"
#include "support/RawPeer.h"
#include "support/Seams.h"

#include <KepNuvikaUtil/SocketCalls.h>
#include <KepNuvikaUtil/SocketError.h>

#include <fcntl.h>
#include <gtest/gtest.h>

using namespace NuvikaLLSock;

TEST(SocketCalls, FailuresOnTheWorkerAreTheCallersLastError)
{
    RawListener listener;
    RawSocket s(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ADDR_V4_V6 address{};
    createSockAddr(&address, QHostAddress(QHostAddress::LocalHost), listener.port());
    EXPECT_EQ(NuvikaLLSock::bind(s.fd(), &address.sa, sizeof address.v4), -1);
    EXPECT_EQ(SocketError::getLast(), 10048);
    EXPECT_EQ(SocketError::formatLast(), QStringLiteral("Address already in use"));
    EXPECT_EQ(NuvikaLLSock::sendto(-1, "x", 1, 0, &address.sa, sizeof address.v4), -1);
    EXPECT_EQ(SocketError::getLast(), 10038);
    EXPECT_EQ(NuvikaLLSock::closesocket(-1), -1);
    EXPECT_EQ(SocketError::getLast(), 10038);
    EXPECT_EQ(WSAConnect(s.fd(), &address.sa, sizeof address.v4), 0);
    EXPECT_EQ(WSAConnect(s.fd(), &address.sa, sizeof address.v4), -1);
    EXPECT_EQ(SocketError::getLast(), 10056);
}

TEST(SocketCalls, ARefusedWorkItemGives10107AndOneMessage)
{
    Nuvika::WorkerPool::endSocketCallWorkers(std::chrono::milliseconds(2000));
    RawSocket s(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int before = SocketError::getLast();
    seams::threadCreation.arm(7, EAGAIN);
    LogCapture log;
    int length = 0;
    EXPECT_EQ(NuvikaLLSock::bind(s.fd(), nullptr, 0), 10107);
    EXPECT_EQ(NuvikaLLSock::closesocket(s.fd()), 10107);
    EXPECT_EQ(NuvikaLLSock::shutdownWrite(s.fd()), 10107);
    EXPECT_EQ(NuvikaLLSock::sendto(s.fd(), "", 0, 0, nullptr, 0), 10107);
    EXPECT_EQ(NuvikaLLSock::setsockopt(s.fd(), 0, 0, nullptr, 0), 10107);
    EXPECT_EQ(NuvikaLLSock::getsockname(s.fd(), nullptr, &length), 10107);
    EXPECT_EQ(NuvikaLLSock::WSAConnect(s.fd(), nullptr, 0), 10107);
    for (const char* name :
        {"bind", "closesocket", "shutdownWrite", "sendto", "setsockopt", "getsockname", "WSAConnect"})
        EXPECT_EQ(
            log.count(
                qPrintable(
                    QStringLiteral("NuvikaLLSock::%1(): QueueUserWorkItem failed").arg(QLatin1String(name))),
                QtCriticalMsg),
            1)
            << name;
    EXPECT_EQ(SocketError::getLast(), before);
    EXPECT_GE(::fcntl(s.fd(), F_GETFD), 0) << "the descriptor was not closed";
}

TEST(SocketCalls, ConvertsAddressesBothWays)
{
    static_assert(sizeof(ADDR_V4_V6) == 28, "the size of an IPv6 socket address");
    ADDR_V4_V6 address;
    createSockAddr(&address, QHostAddress(), 80);
    EXPECT_EQ(QByteArray(reinterpret_cast<char*>(&address), 28), QByteArray(28, '\0'));
    QHostAddress out(QHostAddress::LocalHost);
    unsigned short port = 7;
    getPortAndAddress(&address, &out, &port);
    EXPECT_EQ(port, 7);
    EXPECT_TRUE(out.isNull());
    createSockAddr(&address, QHostAddress(QHostAddress::Any), 80);
    EXPECT_EQ(address.sa.sa_family, AF_INET);
    for (const char* text : {"192.168.1.2", "::1", "2001:db8::5"}) {
        createSockAddr(&address, QHostAddress(QString::fromLatin1(text)), 8080);
        getPortAndAddress(&address, &out, &port);
        EXPECT_EQ(out.toString(), QString::fromLatin1(text));
        EXPECT_EQ(port, 8080);
    }
}

TEST(SocketError, HasTextsForItsCodesAndUnknownForOthers)
{
    EXPECT_EQ(SocketError::format(0), QStringLiteral("Success"));
    EXPECT_EQ(SocketError::format(10061), QStringLiteral("Connection refused"));
    for (const int code : {5, 995, 10013, 10035, 10054, 10060, 10107, 11001, 11002, 11004})
        EXPECT_NE(SocketError::format(code), QStringLiteral("Unknown")) << code;
    LogCapture log;
    EXPECT_EQ(SocketError::format(123456), QStringLiteral("Unknown"));
    EXPECT_TRUE(log.has("Failed to get error message for error 123456", QtWarningMsg));
}
