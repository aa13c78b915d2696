#include "platform/WorkerPool_p.h"
#include "support/EventLoop.h"
#include "support/LogCapture.h"
#include "support/RawPeer.h"
#include "support/Seams.h"

#include <KepNuvikaUtil/NuvikaTcpSocket.h>
#include <KepNuvikaUtil/NuvikaUdpReceiver.h>
#include <KepNuvikaUtil/NuvikaUdpSender.h>
#include <KepNuvikaUtil/SocketCalls.h>
#include <KepNuvikaUtil/SocketError.h>

#include <algorithm>
#include <fcntl.h>
#include <functional>
#include <future>
#include <gtest/gtest.h>
#include <vector>

#include <sys/wait.h>

using namespace NuvikaLLSock;

TEST(SocketCalls, FailuresOnTheWorkerAreTheCallersLastError)
{
    RawListener listener;
    RawSocket s(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ADDR_V4_V6 address{};
    createSockAddr(&address, QHostAddress(QHostAddress::LocalHost), listener.port());
    const auto fails = [](int result, int code) { return result == -1 && SocketError::getLast() == code; };
    EXPECT_TRUE(fails(NuvikaLLSock::bind(s.fd(), &address.sa, sizeof address.v4), 10048));
    EXPECT_EQ(SocketError::formatLast(), QStringLiteral("Address already in use"));
    EXPECT_TRUE(fails(NuvikaLLSock::sendto(-1, "x", 1, 0, &address.sa, sizeof address.v4), 10038));
    EXPECT_TRUE(fails(NuvikaLLSock::closesocket(-1), 10038));
    EXPECT_EQ(WSAConnect(s.fd(), &address.sa, sizeof address.v4), 0);
    EXPECT_TRUE(fails(WSAConnect(s.fd(), &address.sa, sizeof address.v4), 10056));
}

TEST(SocketCalls, ARefusedWorkItemGives10107AndOneMessage)
{
    Nuvika::WorkerPool::endSocketCallWorkers(std::chrono::milliseconds(2000));
    RawSocket s(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int before = SocketError::getLast();
    int length = 0;
    const std::pair<const char*, std::function<int()>> calls[] = {
        {"bind", [&] { return NuvikaLLSock::bind(s.fd(), nullptr, 0); }},
        {"closesocket", [&] { return NuvikaLLSock::closesocket(s.fd()); }},
        {"shutdownWrite", [&] { return NuvikaLLSock::shutdownWrite(s.fd()); }},
        {"sendto", [&] { return NuvikaLLSock::sendto(s.fd(), "", 0, 0, nullptr, 0); }},
        {"setsockopt", [&] { return NuvikaLLSock::setsockopt(s.fd(), 0, 0, nullptr, 0); }},
        {"getsockname", [&] { return NuvikaLLSock::getsockname(s.fd(), nullptr, &length); }},
        {"WSAConnect", [&] { return NuvikaLLSock::WSAConnect(s.fd(), nullptr, 0); }},
    };
    LogCapture log;
    for (const auto& [name, call] : calls) {
        seams::threadCreation.arm(1, EAGAIN);
        EXPECT_EQ(call(), 10107) << name;
        const std::string text = std::string("NuvikaLLSock::") + name + "(): QueueUserWorkItem failed";
        EXPECT_EQ(log.count(text.c_str(), QtCriticalMsg), 1) << name;
    }
    EXPECT_EQ(SocketError::getLast(), before);
    EXPECT_GE(::fcntl(s.fd(), F_GETFD), 0) << "the descriptor was not closed";
}

TEST(SocketCalls, WhatCannotBlockNeverWaitsForWhatDoes)
{
    constexpr std::size_t kBlocked = 40;
    struct Pair {
        Pair() { socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds); }
        int fds[2];
        std::future<int> call;
    };
    const std::vector<char> big(4 << 20);
    std::vector<Pair> pairs(kBlocked);
    for (Pair& pair : pairs)
        pair.call = std::async(std::launch::async, [&] {
            return NuvikaLLSock::sendto(pair.fds[0], big.data(), unsigned(big.size()), 0, nullptr, 0);
        });
    const auto begun = [&](const Pair& pair) {
        char byte = 0;
        return recv(pair.fds[1], &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 1;
    };
    EXPECT_TRUE(waitFor([&] { return std::all_of(pairs.begin(), pairs.end(), begun); }, 3000))
        << "blocking calls hold up each other";
    RawSocket s(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ADDR_V4_V6 address{};
    createSockAddr(&address, QHostAddress(QHostAddress::LocalHost), 0);
    auto bound = std::async(
        std::launch::async, [&] { return NuvikaLLSock::bind(s.fd(), &address.sa, sizeof address.v4); });
    EXPECT_EQ(bound.wait_for(std::chrono::seconds(3)), std::future_status::ready) << "a bind waits for sends";
    for (Pair& pair : pairs) {
        ::close(pair.fds[1]);
        EXPECT_GE(pair.call.get(), -1);
        ::close(pair.fds[0]);
    }
    EXPECT_EQ(bound.get(), 0);
}

TEST(SocketCalls, TheLibrarysClassesHandOverOnlyWhatMayBlock)
{
    Nuvika::WorkerPool::endSocketCallWorkers(std::chrono::milliseconds(2000));
    const int threads = seams::threadCreation.nCalls;
    RawListener listener;
    NuvikaTcpSocket socket;
    socket.connectToHost(QHostAddress(QHostAddress::LocalHost), listener.port());
    ASSERT_TRUE(waitFor([&] { return socket.getState() == NuvikaTcpSocket::eConnected; }));
    socket.sendEndOfData();
    socket.close();
    NuvikaUdpReceiver receiver;
    unsigned short port = 0;
    ASSERT_TRUE(receiver.createUnicast(port, QHostAddress(QHostAddress::LocalHost)));
    ADDR_V4_V6 address{};
    createSockAddr(&address, QHostAddress(QHostAddress::LocalHost), port);
    NuvikaUdpSender sender;
    EXPECT_TRUE(sender.sendTo("x", 1, address));
    sender.close(); // a reopened one blocks: only what the system does not take at once goes to a worker
    EXPECT_TRUE(sender.sendTo("x", 1, address));
    EXPECT_EQ(seams::threadCreation.nCalls, threads);
    seams::sendingTo.arm(1, EAGAIN);
    EXPECT_TRUE(sender.sendTo("x", 1, address));
    EXPECT_EQ(seams::threadCreation.nCalls, threads + 1) << "what may block is made by a worker";

    Nuvika::WorkerPool::endSocketCallWorkers(std::chrono::milliseconds(2000));
    const std::vector<char> asManyAsTheRefusal(10107);
    seams::sendingTo.arm(1, EAGAIN);
    seams::threadCreation.arm(1, EAGAIN);
    EXPECT_FALSE(sender.sendTo(asManyAsTheRefusal.data(), 10107, address)) << "a refusal is no byte count";
}

TEST(SocketCalls, WorkInTheChildOfAFork)
{
    RawSocket s(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    int length = sizeof(ADDR_V4_V6);
    ADDR_V4_V6 name{};
    ASSERT_EQ(NuvikaLLSock::getsockname(s.fd(), &name, &length), 0); // the parent has workers now
    const pid_t child = fork();
    if (child == 0) {
        alarm(5); // ends a child that hangs
        _exit(NuvikaLLSock::getsockname(s.fd(), &name, &length) == 0 ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
    EXPECT_EQ(NuvikaLLSock::getsockname(s.fd(), &name, &length), 0) << "and in the parent";
}

TEST(SocketCalls, ConvertsAddressesBothWays)
{
    static_assert(sizeof(ADDR_V4_V6) == 28, "the size of an IPv6 socket address");
    ADDR_V4_V6 address;
    QHostAddress out(QHostAddress::LocalHost);
    unsigned short port = 7;
    createSockAddr(&address, QHostAddress(), 80);
    EXPECT_EQ(QByteArray(reinterpret_cast<char*>(&address), 28), QByteArray(28, '\0'));
    getPortAndAddress(&address, &out, &port);
    EXPECT_TRUE(out.isNull() && port == 7);
    for (const char* text : {"0.0.0.0", "192.168.1.2", "::1", "2001:db8::5"}) {
        createSockAddr(&address, QHostAddress(QString::fromLatin1(text)), 8080);
        getPortAndAddress(&address, &out, &port);
        EXPECT_EQ(out.toString(), QString::fromLatin1(text));
        EXPECT_EQ(port, 8080);
    }
    createSockAddr(&address, QHostAddress(QHostAddress::Any), 80);
    EXPECT_EQ(address.sa.sa_family, AF_INET);
}
