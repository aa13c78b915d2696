// A sender and receivers, alone and in a group: what arrives was sent, whole; in fine weather all of it, once
// and in order.
#include "sim/World.h"

#include <KepNuvikaUtil/NuvikaUdpReceiver.h>
#include <KepNuvikaUtil/NuvikaUdpSender.h>

#include <algorithm>
#include <cstring>

namespace
{
struct Reception {
    sim::World& world;
    const std::vector<QByteArray>& sent;
    std::vector<int> numbers;

    void take(const char* data, int size)
    {
        int number = -1;
        world.expect(size >= 4, "a datagram of %d bytes", size);
        std::memcpy(&number, data, sizeof number);
        world.expect(number >= 0 && number < static_cast<int>(sent.size())
                && QByteArray::fromRawData(data, size) == sent[static_cast<std::size_t>(number)],
            "datagram %d came as %d bytes, and was not sent so", number, size);
        numbers.push_back(number);
    }
};

// Of equal sizes mostly. Each is its number, and bytes that follow from it.
void sendSome(sim::World& world, NuvikaUdpSender& sender, const NuvikaLLSock::ADDR_V4_V6& target,
    std::vector<QByteArray>& sent)
{
    const std::size_t first = sent.size();
    const auto count = static_cast<int>(world.random().between(1, 30));
    const bool bEqual = world.random().chance(0.7);
    auto size = static_cast<int>(world.random().between(4, 1400));
    for (int i = 0; i < count; ++i) {
        const auto number = static_cast<int>(sent.size());
        sent.emplace_back(size, static_cast<char>(number * 7));
        std::memcpy(sent.back().data(), &number, sizeof number);
        size = bEqual ? size : static_cast<int>(world.random().between(4, 1400));
    }
    std::vector<KepNuvikaUtil::BUFFER> buffers;
    for (std::size_t i = first; i < sent.size(); ++i)
        buffers.push_back({sent[i].constData(), sent[i].size()});
    const int went = sender.sendMany(buffers.data(), count, target);
    world.expect(went >= 0 && went <= count, "%d of %d datagrams were sent", went, count);
    sent.resize(first + static_cast<std::size_t>(went));
}
} // namespace

SCENARIO(datagrams)
{
    const sim::Weather weather = std::exchange(world.weather(), sim::Weather());
    const bool bGroup = world.random().chance(0.5);
    const QHostAddress address(bGroup ? QStringLiteral("239.1.2.3") : QStringLiteral("127.0.0.1"));
    unsigned short port = bGroup ? 5004 : 0;
    std::vector<QByteArray> sent;
    Reception reception{world, sent, {}};
    Reception overheard{world, sent, {}};
    NuvikaUdpReceiver receiver;
    receiver.registerCallback(
        [](const NuvikaUdpReceiver::Datagram* datagram, void* self) {
            static_cast<Reception*>(self)->take(datagram->pData, datagram->nSize);
        },
        &reception);
    const bool bMade = bGroup ? receiver.createMulticast(port, address, QHostAddress(QHostAddress::AnyIPv4))
                              : receiver.createUnicast(port, address);
    world.expect(bMade, "the receiver is not made");
    NuvikaUdpSender sender;
    NuvikaLLSock::ADDR_V4_V6 target;
    NuvikaLLSock::createSockAddr(&target, address, port);
    if (bGroup) {
        sim::UdpPeer& peer = world.udp("239.1.2.3", port);
        peer.join(peer.address());
        peer.onDatagram
            = [&](const sim::Address&, const QByteArray& b) { overheard.take(b.constData(), b.size()); };
    }
    const bool bFine = world.random().chance(0.3);
    world.weather() = bFine ? sim::Weather() : weather;
    for (std::uint64_t left = world.random().size(50); left > 0; --left) {
        sendSome(world, sender, target, sent);
        world.run(bFine ? 20 : world.random().below(20));
    }
    world.weather() = sim::Weather();
    world.run(2000);
    const std::vector<int> before = reception.numbers;
    const bool bAll = before.size() == sent.size() && std::is_sorted(before.begin(), before.end());
    world.expect(!bFine || bAll, "%zu of %zu datagrams arrived, or out of order", before.size(), sent.size());
    world.expect(!bFine || !bGroup || overheard.numbers == before, "the group's other member hears else");
    sendSome(world, sender, target, sent); // and it goes on
    world.run(500);
    world.expect(reception.numbers.size() > before.size(), "the receiver is deaf");
}
