#include "support/EventLoop.h"
#include "support/LogCapture.h"
#include "support/OwnNetwork.h"
#include "support/OwnThread.h"
#include "support/RawPeer.h"
#include "support/Seams.h"

#include <KepNuvikaUtil/NuvikaUdpReceiver.h>
#include <KepNuvikaUtil/NuvikaUdpSender.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <net/if.h>
#include <netinet/udp.h>
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

// A plain socket that sends to the receiver under test.
struct RawSender {
    RawSocket s;
    explicit RawSender(int family = AF_INET) : s(::socket(family, SOCK_DGRAM | SOCK_CLOEXEC, 0)) { }
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

struct Hearing : NuvikaUdpReceiver, Listener {
    Hearing() { listenTo(*this); }
};

struct Bound : Hearing {
    unsigned short port = 0;
    explicit Bound(const QHostAddress& address = kLocal)
    {
        EXPECT_TRUE(createUnicast(port, address)) << errorString().toStdString();
    }
    bool waitForCount(std::size_t count)
    {
        return waitFor([&] { return got.size() >= count; });
    }
};
} // namespace

TEST(UdpReceiver, ReceivesInBatchesAndTellsTheSender)
{
    for (const QHostAddress& local : {kLocal, kLocal6}) {
        Bound receiver(local);
        EXPECT_EQ(receiver.localPort(), receiver.port) << "the chosen port is written back";
        EXPECT_EQ(receiver.localAddress(), local);
        receiver.listenTo(receiver); // a second time changes nothing
        RawSender sender(local == kLocal ? AF_INET : AF_INET6);
        QHostAddress peer;
        receiver.react = [&](const QByteArray&) {
            const auto& datagram = receiver.raw.back();
            peer = datagram.pIPv6 == nullptr ? QHostAddress(datagram.nIPv4) : QHostAddress(datagram.pIPv6);
        };
        sender.send(QByteArray(), receiver.port, local);
        for (int i = 0; i < 40; ++i)
            sender.send(QByteArray::number(i), receiver.port, local);
        seams::receivingMany.nCalls = 0;
        ASSERT_TRUE(receiver.waitForCount(40));
        EXPECT_LE(seams::receivingMany.nCalls, 3) << "received in batches";
        EXPECT_EQ(receiver.got.front(), "0") << "empty ones are not handed out";
        EXPECT_EQ(receiver.got.back(), "39");
        EXPECT_EQ(receiver.raw.back().nFamily, local == kLocal ? 2 : 23);
        EXPECT_EQ(peer, local);
        EXPECT_EQ(receiver.raw.back().nPort, sender.s.localPort());
        receiver.close();
        EXPECT_TRUE(receiver.localAddress().isNull());
    }
}

TEST(UdpReceiver, DropsTruncatedDatagramsAndGrows)
{
    Bound receiver;
    RawSender sender;
    // 1500 bytes fit at first; a longer one, or a burst of such, doubles that. 65507 are the most there are.
    const struct {
        int count, size;
        std::size_t received;
    } steps[] = {{10, 2000, 0}, {1, 3001, 0}, {1, 3001, 1}, {1, 100, 2}, {1, 65507, 2}, {1, 65507, 2},
        {1, 65507, 2}, {1, 65507, 2}, {1, 65507, 3}, {1, 65507, 4}};
    for (const auto& step : steps) {
        for (int i = 0; i < step.count; ++i)
            sender.send(QByteArray(step.size, 'x'), receiver.port);
        settle(15);
        EXPECT_EQ(receiver.got.size(), step.received) << "behind " << step.size << " bytes";
    }
    Bound second; // and in a run of one call
    const QByteArray run = QByteArray(8000, 'a') + "end";
    sender.sendRun(run, 2000, second.port);
    sender.send("behind", second.port);
    settle(15);
    EXPECT_TRUE(second.got.empty()) << "what had arrived by then goes with it";
    sender.sendRun(run, 2000, second.port);
    ASSERT_TRUE(second.waitForCount(5)) << "1500 -> 3000, once";
    EXPECT_EQ(second.got.back(), "end");
}

TEST(UdpReceiver, HandsOutARunAsItsDatagrams)
{
    Bound receiver;
    RawSender sender, other;
    std::vector<QByteArray> expected;
    const auto send = [&](RawSender& from, std::initializer_list<std::pair<int, int>> counts, int size) {
        QByteArray run;
        for (const auto& [count, each] : counts) {
            for (int i = 0; i < count; ++i) {
                expected.push_back(QByteArray(each, static_cast<char>(expected.size())));
                run += expected.back();
            }
        }
        from.sendRun(run, size, receiver.port);
    };
    send(sender, {{30, 1200}, {1, 700}}, 1200);
    send(other, {{1, 50}}, 50);
    send(sender, {{64, 1}}, 1);
    send(other, {{2, 1500}}, 1500);
    seams::receivingMany.nCalls = 0;
    ASSERT_TRUE(receiver.waitForCount(expected.size()));
    settle(10);
    EXPECT_TRUE(receiver.got == expected);
    EXPECT_EQ(seams::receivingMany.nCalls, 1) << "all of it in one call";
    EXPECT_EQ(receiver.raw[30].nPort, sender.s.localPort());
    EXPECT_EQ(receiver.raw[31].nPort, other.s.localPort());
}

TEST(UdpReceiver, ANestedLoopGoesOnWithARunAndACloseDropsIt)
{
    Bound receiver;
    RawSender sender;
    int nDepth = 0, nDeepest = 0;
    const auto& got = receiver.got;
    receiver.react = [&](const QByteArray&) {
        nDeepest = std::max(++nDepth, nDeepest);
        const std::size_t before = got.size();
        waitFor([&] { return got.size() > before; }, 50);
        --nDepth;
    };
    sender.sendRun(QByteArray(30, 'r'), 1, receiver.port);
    ASSERT_TRUE(receiver.waitForCount(30));
    EXPECT_GT(nDeepest, 1) << "the others are served meanwhile";
    EXPECT_LE(nDeepest, 10) << "a peer that sends enough would use up the stack";
    receiver.react = [&](const QByteArray&) {
        if (got.size() == 33) {
            receiver.close();
            settle(10);
        }
    };
    sender.sendRun(QByteArray(30, 'r'), 1, receiver.port);
    ASSERT_TRUE(receiver.waitForCount(33));
    settle(20);
    EXPECT_EQ(got.size(), 33U);
    ASSERT_TRUE(receiver.createUnicast(receiver.port, kLocal));
    sender.send("new", receiver.port);
    ASSERT_TRUE(receiver.waitForCount(34));
    EXPECT_EQ(got.back(), "new") << "nothing of the run comes back";
}

TEST(UdpReceiver, CallbacksAndHandlersStandInOneOrderAndMayEndThemselvesAndIt)
{
    using Datagram = NuvikaUdpReceiver::Datagram;
    RawSender sender;
    auto receiver = std::make_unique<Bound>();
    receiver->leave(*receiver);
    Listener a, b, late;
    std::string order;
    const auto held = std::make_shared<int>();
    int first = 0, third = 0;
    const auto set = [&order](Listener& listener, char name, const char* when, std::function<void()> act) {
        listener.react = [&order, name, when, act](const QByteArray& bytes) {
            order += name;
            if (bytes == when)
                act();
        };
    };
    set(a, 'a', "1", [&] { a.leave(*receiver); });
    set(b, 'b', "2", [&] { late.listenTo(*receiver); });
    set(late, 'l', "4", [&] { receiver->close(); });
    a.listenTo(*receiver);
    EXPECT_EQ(receiver->addHandler(nullptr), 0);
    first = receiver->addHandler([&, kept = held](const Datagram& datagram) {
        order += '1';
        if (*datagram.pData == '3') {
            receiver->removeHandler(third);
            receiver->removeHandler(first);
            EXPECT_EQ(kept.use_count(), 2) << "what runs is gone";
        }
    });
    b.listenTo(*receiver);
    third = receiver->addHandler([&](const Datagram&) { order += '3'; });
    for (const char* text : {"1", "2", "3", "4"})
        sender.send(text, receiver->port);
    ASSERT_TRUE(waitFor([&] { return late.got.size() == 2; }));
    EXPECT_EQ(order, "a1b31b31blbl")
        << "a removed itself and the next missed nothing; the added one waits for the next";
    EXPECT_EQ(held.use_count(), 1) << "a removed handler is kept";
    settle(10);
    ASSERT_TRUE(receiver->createUnicast(receiver->port, kLocal));
    receiver->addHandler([&](const Datagram&) {
        receiver.reset();
        order += '.';
    });
    a.listenTo(*receiver);
    for (const char* text : {"5", "6"})
        sender.send(text, receiver->port);
    ASSERT_TRUE(waitFor([&] { return receiver == nullptr; }));
    settle(10);
    EXPECT_EQ(order, "a1b31b31blblbl.") << "nothing is called behind the deletion";
}

TEST(UdpReceiver, JoinsAGroupTwiceInOneProcess)
{
    Hearing receivers[3];
    unsigned short port = 0;
    for (int i = 0; i < 3; ++i) {
        const QHostAddress other(QStringLiteral("239.255.77.2"));
        ASSERT_TRUE(receivers[i].createMulticast(port, i < 2 ? kGroup : other, kLocal))
            << receivers[i].errorString().toStdString();
    }
    EXPECT_EQ(receivers[0].localAddress(), kGroup);
    NuvikaUdpSender sender;
    ASSERT_TRUE(sender.setMulticastInterface(kLocal));
    ASSERT_TRUE(sender.setMulticastTtl(0));
    ASSERT_TRUE(sender.sendTo("hello", 5, addressOf(kGroup, port))) << sender.errorString().toStdString();
    ASSERT_TRUE(waitFor([&] { return receivers[0].got.size() == 1 && receivers[1].got.size() == 1; }));
    settle(10);
    EXPECT_TRUE(receivers[2].got.empty()) << "another group on that port does not leak in";
}

TEST(UdpReceiver, HearsAnIPv6GroupOnTheChosenInterfaceOnly)
{
    const auto test = [] {
        const QHostAddress interfaces[]
            = {QHostAddress(QStringLiteral("fd00:1::1")), QHostAddress(QStringLiteral("fd00:2::1"))};
        for (const char* group : {"ff12::77:1", "ff15::77:1", "ff1e::77:1"}) {
            const QHostAddress address(QString::fromLatin1(group));
            Hearing receivers[2];
            unsigned short port = 0;
            for (int i = 0; i < 2; ++i) {
                ASSERT_TRUE(receivers[i].createMulticast(port, address, interfaces[i]))
                    << group << ": " << receivers[i].errorString().toStdString();
            }
            for (int i = 0; i < 2; ++i) {
                RawSender sender(AF_INET6);
                const unsigned int index = if_nametoindex(i == 0 ? "one" : "two");
                setsockopt(sender.s.fd(), IPPROTO_IPV6, IPV6_MULTICAST_IF, &index, sizeof index);
                sender.send(QByteArray::number(i), port, address);
                NuvikaUdpSender own(QAbstractSocket::IPv6Protocol);
                ASSERT_TRUE(own.setMulticastInterface(interfaces[i]) && own.setMulticastTtl(1));
                ASSERT_TRUE(own.sendTo(i == 0 ? "a" : "b", 1, addressOf(address, port)));
            }
            const auto heard = [&](int i) { return receivers[i].got; };
            EXPECT_TRUE(waitFor([&] { return heard(0).size() > 1 && heard(1).size() > 1; }));
            settle(10);
            EXPECT_EQ(heard(0), (std::vector<QByteArray>{"0", "a"})) << group << " of the other interface";
            EXPECT_EQ(heard(1), (std::vector<QByteArray>{"1", "b"})) << group << " of the other interface";
        }
    };
    if (!inOwnNetwork(
            {"link add one type veth peer name one.peer", "link add two type veth peer name two.peer",
                "link set one up", "link set two up", "link set one.peer up", "link set two.peer up",
                "addr add fd00:1::1/64 dev one nodad", "addr add fd00:2::1/64 dev two nodad"},
            test))
        GTEST_SKIP() << kNoOwnNetwork;
}

TEST(UdpReceiver, SaysWhyItCannotBeCreated)
{
    LogCapture log;
    const Bound receiver;
    const int before = openDescriptors();
    NuvikaUdpReceiver other;
    const auto unicast = [&](unsigned short port, const QHostAddress& address) {
        return other.createUnicast(port, address);
    };
    const auto multicast = [&](const char* group, const char* interface) {
        unsigned short port = 0;
        return other.createMulticast(
            port, QHostAddress(QString::fromLatin1(group)), QHostAddress(QString::fromLatin1(interface)));
    };
    EXPECT_FALSE(other.setReceiveBufferSize(1 << 20));
    EXPECT_FALSE(unicast(receiver.port, kLocal));
    EXPECT_EQ(other.errorString(), QStringLiteral("Address already in use"));
    EXPECT_FALSE(unicast(0, QHostAddress())) << "a null address is no address";
    EXPECT_FALSE(multicast("127.0.0.1", "127.0.0.1")) << "no group";
    EXPECT_FALSE(multicast("10.255.255.254", "127.0.0.1"));
    for (const auto& [group, interface] :
        {std::pair("239.255.77.1", "203.0.113.9"), std::pair("239.255.77.1", "::1"),
            std::pair("ff12::77:1", "2001:db8::9"), std::pair("ff15::77:1", "2001:db8::9"),
            std::pair("ff15::77:1", "fe80::9%none"), std::pair("ff15::77:1", "fe80::9%9999")}) {
        EXPECT_FALSE(multicast(group, interface)) << group << " on " << interface;
        EXPECT_EQ(other.errorString(), QStringLiteral("No such device")) << group << " on " << interface;
    }
    EXPECT_EQ(log.count(" failed: No such device"), 6);
    seams::opening.arm(2, EMFILE);
    EXPECT_FALSE(unicast(0, kLocal));
    EXPECT_FALSE(multicast("239.255.77.1", "127.0.0.1"));
    EXPECT_EQ(other.socketDescriptor(), -1);
    EXPECT_EQ(openDescriptors(), before) << "a descriptor is left over";
    seams::settingOptions.arm(1, ENOPROTOOPT);
    EXPECT_TRUE(unicast(0, kLocal)) << "an option that fails is only warned of";
    EXPECT_TRUE(other.setReceiveBufferSize(1 << 20));
    EXPECT_FALSE(unicast(0, kLocal));
    EXPECT_FALSE(multicast("239.255.77.1", "127.0.0.1"));
    for (const char* text : {"setReceiveBufferSize() failed; no socket created yet",
             "createUnicast(): setting SO_RCVBUF failed: Protocol not available",
             "createMulticast(): IP_ADD_MEMBERSHIP failed: ", "createUnicast(); already created",
             "createMulticast(); already created"})
        EXPECT_TRUE(log.has((std::string("NuvikaUdpReceiver::") + text).c_str(), QtWarningMsg)) << text;
    for (const char* text : {"createUnicast(): bind failed: Address already in use",
             "createMulticast(): bind failed: ", "createUnicast(): WSASocket failed: Too many open files",
             "createMulticast(): WSASocket failed: Too many open files"})
        EXPECT_TRUE(log.has((std::string("NuvikaUdpReceiver::") + text).c_str(), QtCriticalMsg)) << text;
}

TEST(UdpReceiver, GoesOnAfterAFailedReceive)
{
    inOwnThread([] { // whose port has no buffers yet
        Bound receiver;
        RawSender sender;
        std::size_t sent = 0;
        const struct {
            seams::Fault& fault;
            int times, error;
        } cases[] = {{seams::allocating, 2, ENOMEM}, {seams::receivingMany, 12, ENOMEM},
            {seams::receivingMany, 1, ENOBUFS}}; // a new failure is told again
        for (const auto& c : cases) {
            LogCapture log;
            c.fault.arm(c.times, c.error);
            seams::receivingMany.nCalls = 0;
            for (int i = 0; i < 50; ++i, ++sent)
                sender.send("x", receiver.port);
            settle(20);
            EXPECT_TRUE(c.times < 12 || seams::receivingMany.nCalls <= 2) << "tried again without a pause";
            EXPECT_TRUE(receiver.waitForCount(sent)) << "nothing that waits in the system is lost";
            EXPECT_LE(c.fault.nTimes, 0);
            EXPECT_EQ(
                log.count("NuvikaUdpReceiverIO::RecvCompletion(): WSARecvFrom failed; ", QtWarningMsg), 1);
        }
    });
}

TEST(UdpSender, BindsByItselfAndSendsInItsFamily)
{
    const struct {
        QHostAddress local, other, noInterface;
        const char* why;
        int level, hops, trafficClass;
    } families[] = {{kLocal, kLocal6, QHostAddress(QStringLiteral("203.0.113.9")),
                        "Cannot assign requested address", IPPROTO_IP, IP_MULTICAST_TTL, IP_TOS},
        {kLocal6, kLocal, QHostAddress(QStringLiteral("2001:db8::9")), "No such device", IPPROTO_IPV6,
            IPV6_MULTICAST_HOPS, IPV6_TCLASS}};
    for (const auto& family : families) {
        Bound receiver(family.local);
        const int fd = ::dup(0); // the number that the sender's socket gets
        ::close(fd);
        NuvikaUdpSender sender(family.local.protocol());
        const auto to = addressOf(family.local, receiver.port);
        const KepNuvikaUtil::BUFFER parts[] = {{"one", 3}, {"two", 3}, {"six", 3}, {"4", 1}};
        for (std::size_t count : {7U, 14U}) {
            EXPECT_EQ(sender.localPort(), 0);
            EXPECT_EQ(sender.sendMany(parts, 4, to), 4) << sender.errorString().toStdString();
            EXPECT_EQ(sender.sendPackets(parts, 2, 2, to), 2) << sender.errorString().toStdString();
            EXPECT_FALSE(sender.sendTo("x", 1, addressOf(family.other, receiver.port))) << "of its family";
            EXPECT_FALSE(sender.errorString().isEmpty());
            EXPECT_FALSE(sender.sendTo("x", 70000, to));
            EXPECT_EQ(sender.errorString(), QStringLiteral("Message too long"));
            EXPECT_FALSE(sender.sendTo("x", -1, to));
            EXPECT_TRUE(sender.sendTo("end", 3, to)) << "usable after errors";
            ASSERT_TRUE(receiver.waitForCount(count)) << receiver.got.size();
            EXPECT_EQ(receiver.got[count - 2], "six4");
            EXPECT_EQ(receiver.raw.back().nPort, sender.localPort());
            EXPECT_TRUE(sender.setMulticastTtl(5) && sender.setTosBits(0xB8));
            for (const auto& [name, value] :
                {std::pair(family.hops, 5), std::pair(family.trafficClass, 0xB8)}) {
                int set = 0;
                socklen_t size = sizeof set;
                getsockopt(fd, family.level, name, &set, &size);
                EXPECT_EQ(set, value) << name;
            }
            sender.close(); // and once more from the socket that comes after it
        }
        EXPECT_FALSE(sender.setMulticastInterface(family.noInterface));
        EXPECT_EQ(sender.errorString(), QLatin1String(family.why));
        EXPECT_FALSE(sender.bind(0, QHostAddress()));
        LogCapture log;
        EXPECT_FALSE(sender.bind(receiver.port, family.local));
        EXPECT_TRUE(log.has("NuvikaUdpSender::bind() failed; Address already in use", QtWarningMsg));
        EXPECT_TRUE(sender.bind(0, family.local));
        EXPECT_EQ(sender.localAddress(), family.local);
    }
}

namespace
{
// A plain socket that the sender under test sends to.
struct RawReceiver {
    RawSocket s{::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    RawReceiver()
    {
        const int size = 1 << 20;
        setsockopt(s.fd(), SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
        const auto local = addressOf(kLocal, 0);
        EXPECT_EQ(bind(s.fd(), &local.sa, sizeof local.v4), 0) << strerror(errno);
    }
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
    const auto to = addressOf(kLocal, receiver.s.localPort());
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
    Packets packets(picture);
    for (const int partsEach : {0, -1, 17})
        EXPECT_EQ(sender.sendPackets(packets.parts.data(), partsEach, 1, to), 0);
    EXPECT_EQ(sender.errorString(), QStringLiteral("Invalid argument"));
    EXPECT_EQ(sender.sendMany(packets.parts.data(), 0, to), 0);
    EXPECT_EQ(sender.sendMany(packets.parts.data(), 1, addressOf(kLocal6, 1)), 0);
    const QByteArray tooLong(70000, 'x');
    packets.parts[10] = {tooLong.constData(), tooLong.size()};
    EXPECT_EQ(sender.sendMany(packets.parts.data(), 30, to), 10) << "up to the one that could not";
    EXPECT_EQ(sender.errorString(), QStringLiteral("Message too long"));
    EXPECT_EQ(receiver.take().size(), 10U);
    packets.parts[10] = {"x", -1};
    EXPECT_EQ(sender.sendMany(packets.parts.data(), 30, to), 0);
}

TEST(UdpSender, ARefusedRunGoesAsDatagrams)
{
    const Packets packets(std::vector<int>(70, 100));
    RawReceiver receiver;
    const auto to = addressOf(kLocal, receiver.s.localPort());
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
        RawReceiver far;
        NuvikaUdpSender sender;
        const auto to = addressOf(kLocal, far.s.localPort());
        for (const int size : {100, 1472, 1473, 4000}) {
            const Packets packets(std::vector<int>(10, size));
            ASSERT_EQ(sender.sendMany(packets.parts.data(), 10, to), 10) << size;
            EXPECT_TRUE(far.take() == packets.bytes) << size;
        }
    };
    if (!inOwnNetwork({"link set lo mtu 1500"}, test))
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
    EXPECT_EQ(sender.errorString(), QStringLiteral("Too many open files"));
    EXPECT_FALSE(sender.setTosBits(0));
    EXPECT_TRUE(sender.setTosBits(0x88)) << "the next call repairs it";
    EXPECT_TRUE(sender.setMulticastInterface(QHostAddress()));
    EXPECT_TRUE(sender.setSendBufferSize(1 << 20));
    EXPECT_FALSE(sender.setMulticastTtl(1000));
    EXPECT_FALSE(sender.setMulticastInterface(QHostAddress(QStringLiteral("203.0.113.9"))));
    seams::settingOptions.arm(3, ENOPROTOOPT);
    EXPECT_FALSE(sender.setTosBits(1));
    EXPECT_FALSE(sender.setSendBufferSize(1));
    const NuvikaUdpSender second;
    for (const auto& [type, text] :
        {std::pair(QtCriticalMsg, "NuvikaUdpSender() socket creation failed: Too many open files"),
            std::pair(QtCriticalMsg, "checkSock() socket creation failed: Too many open files"),
            std::pair(QtWarningMsg, "setMulticastOptions(): Failed setting IP_MULTICAST_TTL; "),
            std::pair(QtWarningMsg, "setMulticastOptions(): Failed setting IP_MULTICAST_IF; "),
            std::pair(QtWarningMsg, "setMulticastOptions(): Failed setting IP_TOS; "),
            std::pair(QtWarningMsg, "setSendBufferSize(): Failed setting SO_SNDBUF; "),
            std::pair(QtWarningMsg, "NuvikaUdpSender(): SO_SNDBUF failed: ")})
        EXPECT_TRUE(log.has((std::string("NuvikaUdpSender::") + text).c_str(), type)) << text;
}
