// A sender and receivers, alone and in a group: what arrives was sent, whole; in fine weather all of it, once
// and in order.
#include "sim/World.h"

#include <KepNuvikaUtil/NuvikaUdpReceiver.h>
#include <KepNuvikaUtil/NuvikaUdpSender.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

namespace
{
// Its number, and bytes that follow from it.
QByteArray datagram(int number, int size)
{
    QByteArray bytes(std::max(size, 4), static_cast<char>(number * 7));
    std::memcpy(bytes.data(), &number, sizeof number);
    return bytes;
}

struct Reception {
    sim::World& world;
    const std::vector<QByteArray>& sent;
    std::vector<int> numbers;

    void take(const char* data, int size)
    {
        int number = -1;
        world.expect(size >= 4, "a datagram of %d bytes", size);
        std::memcpy(&number, data, sizeof number);
        world.expect(
            number >= 0 && number < static_cast<int>(sent.size()), "datagram %d was not sent", number);
        world.expect(QByteArray::fromRawData(data, size) == sent[static_cast<std::size_t>(number)],
            "datagram %d came as %d bytes, and other ones", number, size);
        numbers.push_back(number);
    }
    static void callback(const NuvikaUdpReceiver::Datagram* datagram, void* self)
    {
        static_cast<Reception*>(self)->take(datagram->pData, datagram->nSize);
    }
};

void sendSome(sim::World& world, NuvikaUdpSender& sender, const NuvikaLLSock::ADDR_V4_V6& target,
    std::vector<QByteArray>& sent)
{
    auto& random = world.random();
    const auto first = static_cast<int>(sent.size());
    const auto count = static_cast<int>(random.between(1, 30));
    const auto size = static_cast<int>(random.between(4, 1400));
    const bool bEqual = random.chance(0.7);
    std::vector<KepNuvikaUtil::BUFFER> buffers;
    for (int i = 0; i < count; ++i)
        sent.push_back(datagram(first + i, bEqual ? size : static_cast<int>(random.between(4, 1400))));
    for (int i = 0; i < count; ++i)
        buffers.push_back({sent[static_cast<std::size_t>(first + i)].constData(),
            sent[static_cast<std::size_t>(first + i)].size()});
    const int went = sender.sendMany(buffers.data(), count, target);
    world.expect(went >= 0 && went <= count, "%d of %d datagrams were sent", went, count);
    sent.resize(static_cast<std::size_t>(first + went));
}
} // namespace

SCENARIO(datagrams)
{
    const sim::Weather weather = world.weather();
    world.weather() = sim::Weather();
    const bool bGroup = world.random().chance(0.5);
    const QHostAddress address(bGroup ? QStringLiteral("239.1.2.3") : QStringLiteral("127.0.0.1"));
    unsigned short port = bGroup ? 5004 : 0;
    std::vector<QByteArray> sent;
    std::vector<QByteArray> sentByPeer;
    Reception reception{world, sent, {}};
    NuvikaUdpReceiver receiver;
    receiver.registerCallback(&Reception::callback, &reception);
    const bool bMade = bGroup ? receiver.createMulticast(port, address, QHostAddress(QHostAddress::AnyIPv4))
                              : receiver.createUnicast(port, address);
    world.expect(bMade, "the receiver is not made");
    NuvikaUdpSender sender;
    NuvikaLLSock::ADDR_V4_V6 target;
    NuvikaLLSock::createSockAddr(&target, address, port);
    Reception overheard{world, sent, {}};
    if (bGroup) {
        sim::UdpPeer& peer = world.udp("239.1.2.3", port);
        peer.join(peer.address());
        peer.onDatagram
            = [&](const sim::Address&, const QByteArray& b) { overheard.take(b.constData(), b.size()); };
    }
    const bool bFine = world.random().chance(0.3);
    if (!bFine)
        world.weather() = weather;
    for (std::uint64_t left = world.random().size(50); left > 0; --left) {
        sendSome(world, sender, target, sent);
        world.run(bFine ? 20 : world.random().below(20));
    }
    world.weather() = sim::Weather();
    world.run(2000);
    const std::size_t before = reception.numbers.size();
    if (bFine) {
        world.expect(before == sent.size(), "%zu of %zu datagrams arrived", before, sent.size());
        world.expect(std::is_sorted(reception.numbers.begin(), reception.numbers.end()), "out of order");
        world.expect(
            !bGroup || overheard.numbers == reception.numbers, "the group's other member hears else");
    }
    sendSome(world, sender, target, sent); // and it goes on
    world.run(500);
    world.expect(reception.numbers.size() > before, "the receiver is deaf");
}
