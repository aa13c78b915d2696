#include "support/EventLoop.h"
#include "support/LogCapture.h"
#include "support/OwnNetwork.h"
#include "support/OwnThread.h"
#include "support/RawPeer.h"
#include "support/Seams.h"

#include <KepNuvikaUtil/NuvikaUdpReceiver.h>
#include <KepNuvikaUtil/NuvikaUdpSender.h>
#include <KepNuvikaUtil/SocketError.h>

#include <QtNetwork/QNetworkInterface>

#include <algorithm>
#include <cstring>
#include <functional>
#include <future>
#include <gtest/gtest.h>
#include <memory>
#include <net/if.h>
#include <netinet/udp.h>
#include <thread>
#include <utility>
#include <vector>

namespace
{
const QHostAddress kLocal(QHostAddress::LocalHost);
const QHostAddress kLocal6(QHostAddress::LocalHostIPv6);
const QHostAddress kGroup(QStringLiteral("239.255.77.1"));

NuvikaLLSock::ADDR_V4_V6 addressOf(const QHostAddress& host, unsigned short port)
{
    NuvikaLLSock::ADDR_V4_V6 address;
    NuvikaLLSock::createSockAddr(&address, host, port);
    return address;
}

unsigned short portOf(const RawSocket& s)
{
    NuvikaLLSock::ADDR_V4_V6 name{};
    socklen_t size = sizeof name;
    getsockname(s.fd(), &name.sa, &size);
    return ntohs(name.v4.sin_port);
}

// A plain socket that sends to the receiver under test.
struct RawSender {
    RawSocket s;
    explicit RawSender(int family = AF_INET) : s(::socket(family, SOCK_DGRAM | SOCK_CLOEXEC, 0)) { }
    unsigned short port() const { return portOf(s); }
    // As one message, which the system cuts into datagrams of that size.
    void sendRun(const QByteArray& bytes, int size, unsigned short port)
    {
        ASSERT_EQ(setsockopt(s.fd(), SOL_UDP, UDP_SEGMENT, &size, sizeof size), 0);
        send(bytes, port);
        size = 0;
        setsockopt(s.fd(), SOL_UDP, UDP_SEGMENT, &size, sizeof size);
    }
    void send(const QByteArray& bytes, unsigned short port, const QHostAddress& host = kLocal)
    {
        const auto to = addressOf(host, port);
        ASSERT_EQ(::sendto(s.fd(), bytes.constData(), static_cast<std::size_t>(bytes.size()), 0, &to.sa,
                      host.protocol() == QAbstractSocket::IPv6Protocol ? sizeof to.v6 : sizeof to.v4),
            bytes.size());
    }
};

// Remembers what came, and does as told with each datagram.
struct Listener {
    std::vector<QByteArray> got;
    std::vector<NuvikaUdpReceiver::Datagram> raw;
    std::function<void(const QByteArray&)> react;
    static void callback(const NuvikaUdpReceiver::Datagram* datagram, void* context)
    {
        auto* self = static_cast<Listener*>(context);
        const QByteArray bytes(datagram->pData, datagram->nSize);
        self->got.push_back(bytes);
        self->raw.push_back(*datagram);
        if (self->react)
            self->react(bytes);
    }
    void listenTo(NuvikaUdpReceiver& receiver) { receiver.registerCallback(&callback, this); }
    void leave(NuvikaUdpReceiver& receiver) { receiver.removeCallback(&callback, this); }
};

struct Bound : NuvikaUdpReceiver {
    unsigned short port = 0;
    Listener listener;
    explicit Bound(const QHostAddress& address = kLocal)
    {
        EXPECT_TRUE(createUnicast(port, address)) << errorString().toStdString();
        listener.listenTo(*this);
    }
    bool waitForCount(std::size_t count)
    {
        return waitFor([&] { return listener.got.size() >= count; });
    }
};
} // namespace

TEST(UdpReceiver, ReceivesInOrderAndTellsTheSender)
{
    const Bound portOfThisThread; // made with the first socket, and kept
    const int before = openDescriptors();
    {
        Bound receiver;
        EXPECT_NE(receiver.port, 0) << "the chosen port is written back";
        EXPECT_EQ(receiver.localPort(), receiver.port);
        EXPECT_EQ(receiver.localAddress(), kLocal);
        receiver.listener.listenTo(receiver); // a second time changes nothing
        RawSender sender;
        for (int i = 0; i < 40; ++i)
            sender.send("datagram " + QByteArray::number(i), receiver.port);
        sender.send(QByteArray(), receiver.port);
        sender.send(QByteArray(1500, 'x'), receiver.port);
        seams::receivingMany.nCalls = 0;
        ASSERT_TRUE(receiver.waitForCount(41));
        EXPECT_LE(seams::receivingMany.nCalls, 3) << "received in batches";
        for (int i = 0; i < 40; ++i)
            EXPECT_EQ(
                receiver.listener.got[static_cast<std::size_t>(i)], "datagram " + QByteArray::number(i));
        EXPECT_EQ(receiver.listener.got[40].size(), 1500) << "empty ones are not handed out";
        const NuvikaUdpReceiver::Datagram& datagram = receiver.listener.raw[0];
        EXPECT_EQ(datagram.nFamily, 2);
        EXPECT_EQ(datagram.nIPv4, 0x7F000001U);
        EXPECT_EQ(datagram.pIPv6, nullptr);
        EXPECT_EQ(datagram.nPort, sender.port());
        receiver.close();
        EXPECT_EQ(receiver.socketDescriptor(), -1);
        EXPECT_TRUE(receiver.localAddress().isNull());
        EXPECT_TRUE(receiver.createUnicast(receiver.port, kLocal)) << "usable again, on the same port";
        sender.send("again", receiver.port);
        ASSERT_TRUE(receiver.waitForCount(42));
    }
    EXPECT_TRUE(waitFor([&] { return openDescriptors() == before; })) << "a descriptor is left over";
}

TEST(UdpReceiver, ReceivesOverIPv6)
{
    Bound receiver(kLocal6);
    RawSender sender(AF_INET6);
    sender.send("six", receiver.port, kLocal6);
    Listener& listener = receiver.listener;
    QByteArray peer;
    listener.react = [&](const QByteArray&) {
        peer = QByteArray(reinterpret_cast<const char*>(listener.raw.back().pIPv6), 16);
    };
    ASSERT_TRUE(receiver.waitForCount(1));
    EXPECT_EQ(listener.raw[0].nFamily, 23);
    EXPECT_EQ(peer, QByteArray(15, '\0') + '\1');
}

TEST(UdpReceiver, DropsTruncatedDatagramsAndGrows)
{
    Bound receiver;
    RawSender sender;
    const auto sendAndSettle = [&](int size) {
        sender.send(QByteArray(size, static_cast<char>(size)), receiver.port);
        settle(15);
        return receiver.listener.got.size();
    };
    EXPECT_EQ(sendAndSettle(4000), 0U) << "1500 -> 3000";
    EXPECT_EQ(sendAndSettle(4000), 0U) << "3000 -> 6000";
    EXPECT_EQ(sendAndSettle(4000), 1U);
    EXPECT_EQ(sendAndSettle(100), 2U);
    for (int i = 0; i < 4; ++i)
        sendAndSettle(65507); // the largest there is: 12000, 24000, 48000, 96000
    EXPECT_EQ(sendAndSettle(65507), 3U);
    EXPECT_EQ(sendAndSettle(65507), 4U);
    // A burst of long ones doubles once for each size, not once for each datagram.
    Bound second;
    for (int i = 0; i < 10; ++i)
        sender.send(QByteArray(2000, 'b'), second.port);
    settle(15);
    sender.send(QByteArray(3001, 'c'), second.port);
    settle(15);
    EXPECT_TRUE(second.listener.got.empty());
    sender.send(QByteArray(3001, 'c'), second.port);
    EXPECT_TRUE(second.waitForCount(1));
}

TEST(UdpReceiver, HandsOutARunAsItsDatagrams)
{
    Bound receiver;
    RawSender sender;
    RawSender other;
    std::vector<QByteArray> expected;
    const auto expect = [&](int count, int size) {
        QByteArray run;
        for (int i = 0; i < count; ++i) {
            expected.push_back(QByteArray(size, static_cast<char>(expected.size())));
            run += expected.back();
        }
        return run;
    };
    QByteArray picture = expect(30, 1200);
    picture += expect(1, 700);
    sender.sendRun(picture, 1200, receiver.port);
    other.send(expect(1, 50), receiver.port);
    sender.sendRun(expect(64, 1), 1, receiver.port);
    other.sendRun(expect(2, 1500), 1500, receiver.port);
    seams::receivingMany.nCalls = 0;
    ASSERT_TRUE(receiver.waitForCount(expected.size()));
    settle(10);
    EXPECT_TRUE(receiver.listener.got == expected);
    EXPECT_EQ(seams::receivingMany.nCalls, 1) << "all of it in one call";
    EXPECT_EQ(receiver.listener.raw[30].nPort, sender.port());
    EXPECT_EQ(receiver.listener.raw[31].nPort, other.port());
}

TEST(UdpReceiver, ALongDatagramInARunIsDroppedAndGrowsTheSize)
{
    Bound receiver;
    RawSender sender;
    const QByteArray run = QByteArray(8000, 'a') + "end";
    sender.sendRun(run, 2000, receiver.port);
    sender.send("behind", receiver.port);
    settle(15);
    EXPECT_TRUE(receiver.listener.got.empty()) << "what had arrived by then goes with it";
    sender.sendRun(run, 2000, receiver.port);
    ASSERT_TRUE(receiver.waitForCount(5)) << "1500 -> 3000, once";
    EXPECT_EQ(receiver.listener.got.back(), "end");
}

TEST(UdpReceiver, ANestedLoopGoesOnWithARunAndACloseDropsIt)
{
    const QByteArray run = QByteArray(30, 'r');
    {
        Bound receiver;
        RawSender sender;
        int nDepth = 0;
        int nDeepest = 0;
        receiver.listener.react = [&](const QByteArray&) {
            nDeepest = std::max(++nDepth, nDeepest);
            const std::size_t before = receiver.listener.got.size();
            waitFor([&] { return receiver.listener.got.size() > before; }, 50);
            --nDepth;
        };
        sender.sendRun(run, 1, receiver.port);
        ASSERT_TRUE(receiver.waitForCount(30));
        EXPECT_GT(nDeepest, 1) << "the others are served meanwhile";
        EXPECT_LE(nDeepest, 10) << "a peer that sends enough would use up the stack";
    }
    Bound receiver;
    RawSender sender;
    receiver.listener.react = [&](const QByteArray&) {
        if (receiver.listener.got.size() == 3) {
            receiver.close();
            settle(10);
        }
    };
    sender.sendRun(run, 1, receiver.port);
    ASSERT_TRUE(receiver.waitForCount(3));
    settle(20);
    EXPECT_EQ(receiver.listener.got.size(), 3U);
    ASSERT_TRUE(receiver.createUnicast(receiver.port, kLocal));
    sender.send("new", receiver.port);
    ASSERT_TRUE(receiver.waitForCount(4));
    EXPECT_EQ(receiver.listener.got.back(), "new") << "nothing of the run comes back";
}

TEST(UdpReceiver, CallbacksMayChangeTheListAndEndTheReceiver)
{
    RawSender sender;
    auto receiver = std::make_unique<Bound>();
    receiver->listener.leave(*receiver);
    Listener a, b, c, late;
    std::string order;
    a.react = [&](const QByteArray& bytes) {
        order += 'a';
        if (bytes == "1")
            a.leave(*receiver);
    };
    b.react = [&](const QByteArray& bytes) {
        order += 'b';
        if (bytes == "2") {
            c.leave(*receiver);
            late.listenTo(*receiver);
        }
    };
    c.react = [&](const QByteArray&) { order += 'c'; };
    late.react = [&](const QByteArray& bytes) {
        order += 'l';
        if (bytes == "4")
            receiver->close();
        if (bytes == "5")
            receiver.reset();
    };
    for (Listener* listener : {&a, &b, &c})
        listener->listenTo(*receiver);
    for (const char* text : {"1", "2", "3", "4"})
        sender.send(text, receiver->port);
    ASSERT_TRUE(waitFor([&] { return late.got.size() == 2; }));
    EXPECT_EQ(order, "abcbblbl")
        << "a removed itself and the next missed nothing; the added one waits for the next";
    settle(10);
    ASSERT_TRUE(receiver->createUnicast(receiver->port, kLocal));
    a.listenTo(*receiver);
    sender.send("5", receiver->port);
    sender.send("6", receiver->port);
    ASSERT_TRUE(waitFor([&] { return receiver == nullptr; }));
    settle(10);
    EXPECT_EQ(order, "abcbblblbl") << "the callback behind the deletion is not called";
}

TEST(UdpReceiver, JoinsAGroupTwiceInOneProcess)
{
    NuvikaUdpReceiver first, second, other;
    Listener heard, heardToo, heardOther;
    unsigned short port = 0;
    ASSERT_TRUE(first.createMulticast(port, kGroup, kLocal)) << first.errorString().toStdString();
    ASSERT_NE(port, 0);
    ASSERT_TRUE(second.createMulticast(port, kGroup, kLocal));
    ASSERT_TRUE(other.createMulticast(port, QHostAddress(QStringLiteral("239.255.77.2")), kLocal));
    EXPECT_EQ(first.localAddress(), kGroup);
    heard.listenTo(first);
    heardToo.listenTo(second);
    heardOther.listenTo(other);
    NuvikaUdpSender sender;
    ASSERT_TRUE(sender.setMulticastInterface(kLocal));
    ASSERT_TRUE(sender.setMulticastTtl(0));
    ASSERT_TRUE(sender.sendTo("hello", 5, addressOf(kGroup, port))) << sender.errorString().toStdString();
    ASSERT_TRUE(waitFor([&] { return heard.got.size() == 1 && heardToo.got.size() == 1; }));
    settle(10);
    EXPECT_TRUE(heardOther.got.empty()) << "another group on that port does not leak in";
}

TEST(UdpReceiver, HearsAnIPv6GroupOnTheChosenInterfaceOnly)
{
    const auto test = [] {
        const QHostAddress interfaces[]
            = {QHostAddress(QStringLiteral("fd00:1::1")), QHostAddress(QStringLiteral("fd00:2::1"))};
        for (const char* group : {"ff12::77:1", "ff15::77:1", "ff1e::77:1"}) {
            const QHostAddress address(QString::fromLatin1(group));
            NuvikaUdpReceiver receivers[2];
            Listener listeners[2];
            unsigned short port = 0;
            for (int i = 0; i < 2; ++i) {
                listeners[i].listenTo(receivers[i]);
                ASSERT_TRUE(receivers[i].createMulticast(port, address, interfaces[i]))
                    << group << ": " << receivers[i].errorString().toStdString();
            }
            for (int i = 0; i < 2; ++i) {
                RawSender sender(AF_INET6);
                const unsigned int index = if_nametoindex(i == 0 ? "one" : "two");
                setsockopt(sender.s.fd(), IPPROTO_IPV6, IPV6_MULTICAST_IF, &index, sizeof index);
                sender.send(QByteArray::number(i), port, address);
            }
            EXPECT_TRUE(waitFor([&] { return !listeners[0].got.empty() && !listeners[1].got.empty(); }));
            settle(10);
            EXPECT_EQ(listeners[0].got, std::vector<QByteArray>{"0"}) << group << " of the other interface";
            EXPECT_EQ(listeners[1].got, std::vector<QByteArray>{"1"}) << group << " of the other interface";
        }
    };
    if (!inOwnNetwork(
            {"link add one type veth peer name one.peer", "link add two type veth peer name two.peer",
                "link set one up", "link set two up", "link set one.peer up", "link set two.peer up",
                "addr add fd00:1::1/64 dev one nodad", "addr add fd00:2::1/64 dev two nodad"},
            test))
        GTEST_SKIP() << kNoOwnNetwork;
}

TEST(UdpReceiver, RefusesAnInterfaceThatIsNotThere)
{
    for (const auto& [group, interface] :
        {std::pair("239.255.77.1", "203.0.113.9"), std::pair("239.255.77.1", "::1"),
            std::pair("ff12::77:1", "2001:db8::9"), std::pair("ff15::77:1", "2001:db8::9"),
            std::pair("ff15::77:1", "fe80::9%none"), std::pair("ff15::77:1", "fe80::9%9999")}) {
        NuvikaUdpReceiver receiver;
        LogCapture log;
        unsigned short port = 0;
        EXPECT_FALSE(receiver.createMulticast(
            port, QHostAddress(QString::fromLatin1(group)), QHostAddress(QString::fromLatin1(interface))))
            << group << " on " << interface;
        EXPECT_EQ(receiver.errorString(), QStringLiteral("No such device")) << group << " on " << interface;
        EXPECT_TRUE(log.has(" failed: No such device")) << group << " on " << interface;
        EXPECT_EQ(receiver.socketDescriptor(), -1);
    }
}

TEST(UdpReceiver, SaysWhyItCannotBeCreated)
{
    const Bound portOfThisThread;
    const int before = openDescriptors();
    {
        Bound receiver;
        LogCapture log;
        unsigned short port = 0;
        EXPECT_FALSE(receiver.createUnicast(port, kLocal));
        EXPECT_TRUE(log.has("NuvikaUdpReceiver::createUnicast(); already created", QtWarningMsg));
        EXPECT_FALSE(receiver.createMulticast(port, kGroup, kLocal));
        EXPECT_TRUE(log.has("NuvikaUdpReceiver::createMulticast(); already created", QtWarningMsg));
        NuvikaUdpReceiver other;
        port = receiver.port;
        EXPECT_FALSE(other.createUnicast(port, kLocal));
        EXPECT_TRUE(log.has(
            "NuvikaUdpReceiver::createUnicast(): bind failed: Address already in use", QtCriticalMsg));
        EXPECT_EQ(other.errorString(), QStringLiteral("Address already in use"));
        EXPECT_EQ(other.socketDescriptor(), -1);
        EXPECT_FALSE(other.createUnicast(port, QHostAddress())) << "a null address is no address";
        port = 0;
        EXPECT_FALSE(other.createMulticast(port, kLocal, kLocal)) << "no group";
        EXPECT_TRUE(
            log.has("NuvikaUdpReceiver::createMulticast(): IP_ADD_MEMBERSHIP failed: ", QtWarningMsg));
        EXPECT_FALSE(other.createMulticast(port, QHostAddress(QStringLiteral("10.255.255.254")), kLocal));
        EXPECT_TRUE(log.has("NuvikaUdpReceiver::createMulticast(): bind failed: ", QtCriticalMsg));
        seams::opening.arm(2, EMFILE);
        EXPECT_FALSE(other.createUnicast(port, kLocal));
        EXPECT_FALSE(other.createMulticast(port, kGroup, kLocal));
        EXPECT_TRUE(log.has(
            "NuvikaUdpReceiver::createUnicast(): WSASocket failed: Too many open files", QtCriticalMsg));
        EXPECT_TRUE(log.has(
            "NuvikaUdpReceiver::createMulticast(): WSASocket failed: Too many open files", QtCriticalMsg));
        EXPECT_FALSE(other.setReceiveBufferSize(1 << 20));
        EXPECT_TRUE(
            log.has("NuvikaUdpReceiver::setReceiveBufferSize() failed; no socket created yet", QtWarningMsg));
        seams::settingOptions.arm(1, ENOPROTOOPT);
        EXPECT_TRUE(other.createUnicast(port, kLocal)) << "an option that fails is only warned of";
        EXPECT_TRUE(
            log.has("NuvikaUdpReceiver::createUnicast(): setting SO_RCVBUF failed: Protocol not available",
                QtWarningMsg));
        EXPECT_TRUE(other.setReceiveBufferSize(1 << 20));
    }
    EXPECT_TRUE(waitFor([&] { return openDescriptors() == before; })) << "a descriptor is left over";
}

TEST(UdpReceiver, GoesOnAfterAFailedReceive)
{
    Bound receiver;
    RawSender sender;
    LogCapture log;
    seams::receivingMany.arm(12, ENOMEM);
    seams::receivingMany.nCalls = 0;
    for (int i = 0; i < 50; ++i)
        sender.send(QByteArray::number(i), receiver.port);
    settle(20);
    EXPECT_LE(seams::receivingMany.nCalls, 2) << "tried again and again without a pause";
    ASSERT_TRUE(receiver.waitForCount(50)) << "nothing that waits in the system is lost";
    EXPECT_EQ(log.count("NuvikaUdpReceiverIO::RecvCompletion(): WSARecvFrom failed; ", QtWarningMsg), 1);
    seams::receivingMany.arm(1, ENOBUFS);
    sender.send("x", receiver.port);
    ASSERT_TRUE(receiver.waitForCount(51));
    EXPECT_EQ(log.count("NuvikaUdpReceiverIO::RecvCompletion(): WSARecvFrom failed; ", QtWarningMsg), 2)
        << "a new failure is told again";
}

TEST(UdpReceiver, ReceivesWhatWaitedOnceThereIsMemory)
{
    inOwnThread([] { // whose port has no buffers yet
        Bound receiver;
        RawSender sender;
        LogCapture log;
        seams::allocating.arm(2, ENOMEM);
        for (int i = 0; i < 50; ++i)
            sender.send(QByteArray::number(i), receiver.port);
        EXPECT_TRUE(receiver.waitForCount(50));
        EXPECT_LE(seams::allocating.nTimes, 0);
        EXPECT_EQ(log.count("NuvikaUdpReceiverIO::RecvCompletion(): WSARecvFrom failed; ", QtWarningMsg), 1);
    });
}

TEST(UdpSender, BindsByItselfAndSends)
{
    Bound receiver;
    NuvikaUdpSender sender;
    EXPECT_EQ(sender.localPort(), 0);
    ASSERT_TRUE(sender.sendTo("one", 3, addressOf(kLocal, receiver.port)));
    EXPECT_NE(sender.localPort(), 0);
    ASSERT_TRUE(receiver.waitForCount(1));
    EXPECT_EQ(receiver.listener.raw[0].nPort, sender.localPort());
    EXPECT_FALSE(sender.sendTo("six", 3, addressOf(kLocal6, receiver.port))) << "an IPv4 socket";
    EXPECT_FALSE(sender.errorString().isEmpty());
    EXPECT_FALSE(sender.sendTo("x", 70000, addressOf(kLocal, receiver.port)));
    EXPECT_EQ(sender.errorString(), QStringLiteral("Message too long"));
    EXPECT_FALSE(sender.sendTo("x", -1, addressOf(kLocal, receiver.port)));
    ASSERT_TRUE(sender.sendTo("two", 3, addressOf(kLocal, receiver.port))) << "usable after errors";
    ASSERT_TRUE(receiver.waitForCount(2));
    LogCapture log;
    NuvikaUdpSender second;
    EXPECT_FALSE(second.bind(sender.localPort(), kLocal));
    EXPECT_TRUE(log.has("NuvikaUdpSender::bind() failed; Address already in use", QtWarningMsg));
    EXPECT_FALSE(second.bind(0, QHostAddress()));
    EXPECT_TRUE(second.bind(0, kLocal));
    EXPECT_EQ(second.localAddress(), kLocal);
}

TEST(UdpSender, SendsManyWithOneCall)
{
    Bound receiver;
    receiver.setReceiveBufferSize(1 << 20);
    NuvikaUdpSender sender;
    std::vector<QByteArray> packets;
    std::vector<KepNuvikaUtil::BUFFER> buffers;
    for (int i = 0; i < 30; ++i)
        packets.push_back(QByteArray::number(i));
    for (const QByteArray& packet : packets)
        buffers.push_back({packet.constData(), packet.size()});
    const auto to = addressOf(kLocal, receiver.port);
    EXPECT_EQ(sender.sendMany(buffers.data(), 30, to), 30);
    ASSERT_TRUE(receiver.waitForCount(30));
    EXPECT_EQ(receiver.listener.got, packets);
    EXPECT_EQ(sender.sendMany(buffers.data(), 0, to), 0);
    const QByteArray tooLong(70000, 'x');
    buffers[10] = {tooLong.constData(), tooLong.size()};
    EXPECT_EQ(sender.sendMany(buffers.data(), 30, to), 10) << "how many went, up to the one that could not";
    EXPECT_EQ(sender.errorString(), QStringLiteral("Message too long"));
    buffers[10] = {"x", -1};
    EXPECT_EQ(sender.sendMany(buffers.data(), 30, to), 0);
    EXPECT_EQ(sender.sendMany(buffers.data(), 1, addressOf(kLocal6, 1)), 0);
    ASSERT_TRUE(receiver.waitForCount(40));
}

namespace
{
// A plain socket that the sender under test sends to.
struct RawReceiver {
    RawSocket s{::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    explicit RawReceiver(const QHostAddress& address = kLocal)
    {
        const int size = 1 << 20;
        setsockopt(s.fd(), SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
        const auto local = addressOf(address, 0);
        EXPECT_EQ(bind(s.fd(), &local.sa, sizeof local.v4), 0) << strerror(errno);
    }
    unsigned short port() const { return portOf(s); }
    std::vector<QByteArray> take()
    {
        std::vector<QByteArray> got;
        std::vector<char> buffer(65536);
        for (ssize_t n = 0; (n = recv(s.fd(), buffer.data(), buffer.size(), MSG_DONTWAIT)) >= 0;)
            got.emplace_back(buffer.data(), static_cast<int>(n));
        return got;
    }
};

// Datagrams of these sizes, and the buffers that name them in so many parts each.
struct Packets {
    std::vector<QByteArray> bytes;
    std::vector<KepNuvikaUtil::BUFFER> parts;
    explicit Packets(const std::vector<int>& sizes, int partsEach = 1)
    {
        for (const int size : sizes)
            bytes.push_back(QByteArray(size, static_cast<char>(bytes.size())));
        for (const QByteArray& packet : bytes) {
            for (int i = 0; i < partsEach; ++i) {
                const int from = packet.size() * i / partsEach;
                parts.push_back({packet.constData() + from, packet.size() * (i + 1) / partsEach - from});
            }
        }
    }
    int count() const { return static_cast<int>(bytes.size()); }
};
} // namespace

TEST(UdpSender, EveryListArrivesAsItIs)
{
    const std::vector<int> picture(30, 1200);
    std::vector<int> shorterLast = picture;
    shorterLast.back() = 700;
    const struct {
        std::vector<int> sizes;
        int runs; // calls that begin with one
    } cases[]
        = {{picture, 1}, {shorterLast, 1}, {{1200}, 0}, {{0, 0}, 0}, {{5, 9, 5, 9}, 0}, {{9, 9, 0, 9, 9}, 1},
            {{9, 9, 5, 9, 9}, 1}, {std::vector<int>(65, 10), 1}, {std::vector<int>(200, 1), 1},
            {{30000, 30000, 30000}, 1}, {{65507, 65507}, 0}, {std::vector<int>(64, 1023), 1}};
    NuvikaUdpSender sender;
    RawReceiver receiver;
    const auto to = addressOf(kLocal, receiver.port());
    for (const auto& c : cases) {
        for (const int partsEach : {1, 2, 16}) {
            const Packets packets(c.sizes, partsEach);
            seams::sendingRuns.nCalls = 0;
            EXPECT_EQ(
                sender.sendPackets(packets.parts.data(), partsEach, packets.count(), to), packets.count());
            EXPECT_TRUE(receiver.take() == packets.bytes) << testing::PrintToString(c.sizes);
            if (partsEach == 1) {
                EXPECT_EQ(seams::sendingRuns.nCalls, c.runs) << testing::PrintToString(c.sizes);
            }
        }
    }
    const Packets packets(picture, 2);
    for (const int partsEach : {0, -1, 17})
        EXPECT_EQ(sender.sendPackets(packets.parts.data(), partsEach, 1, to), 0);
    EXPECT_EQ(sender.errorString(), QStringLiteral("Invalid argument"));
}

TEST(UdpSender, ARefusedRunGoesAsDatagrams)
{
    const Packets packets(std::vector<int>(70, 100));
    RawReceiver receiver;
    const auto to = addressOf(kLocal, receiver.port());
    const struct {
        int nError;
        int nTriedAgain; // runs that a second list tries
    } cases[]
        = {{EIO, 0}, {ENOPROTOOPT, 0}, {EINVAL, 1}, {EMSGSIZE, 1}, {EPERM, 1}, {ENOBUFS, 1}, {EAGAIN, 1}};
    for (const auto& c : cases) {
        NuvikaUdpSender sender;
        for (int i = 0; i < 2; ++i) {
            seams::sendingRuns.nCalls = 0;
            seams::sendingRuns.arm(1, c.nError);
            EXPECT_EQ(sender.sendMany(packets.parts.data(), 70, to), 70) << strerror(c.nError);
            EXPECT_TRUE(receiver.take() == packets.bytes) << strerror(c.nError);
        }
        EXPECT_EQ(seams::sendingRuns.nCalls, c.nTriedAgain) << strerror(c.nError);
        seams::sendingRuns.arm(0, 0);
    }
    NuvikaUdpSender sender;
    seams::sendingRuns.nCalls = 0;
    EXPECT_TRUE(sender.bind(0, kLocal));
    seams::settingOptions.arm(1, ENOPROTOOPT);
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(sender.sendMany(packets.parts.data(), 70, to), 70);
    EXPECT_EQ(seams::sendingRuns.nCalls, 0)
        << "a kernel that does not know runs might take one for a datagram";
    EXPECT_EQ(receiver.take().size(), 140U);
}

TEST(UdpSender, ListsPassARouteWithSmallPackets)
{
    const auto test = [] {
        // The far end of the wire has a network of its own; its socket is used from here.
        std::unique_ptr<RawReceiver> far;
        std::promise<pid_t> thread;
        std::promise<void> moved;
        std::thread other([&] {
            const bool bMade = unshare(CLONE_NEWNET) == 0;
            thread.set_value(bMade ? gettid() : 0);
            moved.get_future().wait();
            if (bMade && std::system("ip addr add 10.77.0.2/24 dev far && ip link set far up") == 0)
                far = std::make_unique<RawReceiver>(QHostAddress(QStringLiteral("10.77.0.2")));
        });
        const std::string id = std::to_string(thread.get_future().get());
        EXPECT_EQ(std::system(("ip link set far netns " + id).c_str()), 0);
        moved.set_value();
        other.join();
        ASSERT_NE(far, nullptr);
        NuvikaUdpSender sender;
        const auto to = addressOf(QHostAddress(QStringLiteral("10.77.0.2")), far->port());
        for (const int size : {100, 1472, 1473, 4000}) {
            const Packets packets(std::vector<int>(10, size));
            ASSERT_EQ(sender.sendMany(packets.parts.data(), 10, to), 10) << size;
            std::vector<QByteArray> got;
            waitFor([&] {
                for (const QByteArray& datagram : far->take())
                    got.push_back(datagram);
                return got.size() >= 10;
            });
            EXPECT_TRUE(got == packets.bytes) << size;
        }
    };
    if (!inOwnNetwork(
            {"link add near type veth peer name far", "addr add 10.77.0.1/24 dev near", "link set near up"},
            test))
        GTEST_SKIP() << kNoOwnNetwork;
}

TEST(UdpSender, CopiesShareOneSocket)
{
    const Bound portOfThisThread;
    const int before = openDescriptors();
    Bound receiver;
    const auto to = addressOf(kLocal, receiver.port);
    {
        NuvikaUdpSender first;
        NuvikaUdpSender copy(first);
        EXPECT_TRUE(first.sendTo("1", 1, to));
        const unsigned short port = first.localPort();
        EXPECT_EQ(copy.localPort(), port) << "the copy is bound as well";
        first.close();
        EXPECT_EQ(first.localPort(), 0);
        EXPECT_TRUE(copy.sendTo("2", 1, to)) << "it goes on";
        EXPECT_TRUE(first.sendTo("3", 1, to)) << "with a socket of its own now";
        EXPECT_NE(first.localPort(), port);
        first = copy;
        EXPECT_EQ(first.localPort(), port);
        first = *&first;
        copy.close();
        EXPECT_TRUE(first.sendTo("4", 1, to));
    }
    ASSERT_TRUE(receiver.waitForCount(4));
    receiver.close();
    EXPECT_TRUE(waitFor([&] { return openDescriptors() == before; })) << "closed once, and not left open";
}

TEST(UdpSender, RepairsAFailedConstructionAndReportsItsOptions)
{
    LogCapture log;
    seams::opening.arm(2, EMFILE);
    NuvikaUdpSender sender;
    EXPECT_TRUE(log.has(
        "NuvikaUdpSender::NuvikaUdpSender() socket creation failed: Too many open files", QtCriticalMsg));
    EXPECT_EQ(sender.errorString(), QStringLiteral("Too many open files"));
    EXPECT_FALSE(sender.setTosBits(0));
    EXPECT_TRUE(
        log.has("NuvikaUdpSender::checkSock() socket creation failed: Too many open files", QtCriticalMsg));
    EXPECT_TRUE(sender.setTosBits(0x88)) << "the next call repairs it";
    EXPECT_TRUE(sender.setMulticastInterface(QHostAddress()));
    EXPECT_TRUE(sender.setSendBufferSize(1 << 20));
    EXPECT_FALSE(sender.setMulticastTtl(1000));
    EXPECT_TRUE(
        log.has("NuvikaUdpSender::setMulticastOptions(): Failed setting IP_MULTICAST_TTL; ", QtWarningMsg));
    EXPECT_FALSE(sender.setMulticastInterface(QHostAddress(QStringLiteral("203.0.113.9"))));
    EXPECT_TRUE(
        log.has("NuvikaUdpSender::setMulticastOptions(): Failed setting IP_MULTICAST_IF; ", QtWarningMsg));
    seams::settingOptions.arm(2, ENOPROTOOPT);
    EXPECT_FALSE(sender.setTosBits(1));
    EXPECT_TRUE(log.has("NuvikaUdpSender::setMulticastOptions(): Failed setting IP_TOS; ", QtWarningMsg));
    EXPECT_FALSE(sender.setSendBufferSize(1));
    EXPECT_TRUE(log.has("NuvikaUdpSender::setSendBufferSize(): Failed setting SO_SNDBUF; ", QtWarningMsg));
    seams::settingOptions.arm(1, ENOPROTOOPT);
    const NuvikaUdpSender second;
    EXPECT_TRUE(log.has("NuvikaUdpSender::NuvikaUdpSender(): SO_SNDBUF failed: ", QtWarningMsg));
}
