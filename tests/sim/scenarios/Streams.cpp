// Sockets that talk to each other through a server: plain and queued ones, and those of messages, plain and
// encrypted, each of which comes once, whole and in order, or not at all. And sockets that talk to peers
// which are not the library: those write when they like, urgent bytes too, end or reset in the middle, and
// read late.
#include "sim/scenarios/Sides.h"

namespace
{
template <class One, class Other>
std::unique_ptr<sim::Side> make(sim::Talk& talk)
{
    if (talk.random.chance(0.5))
        return std::make_unique<sim::SideOf<One>>(talk);
    return std::make_unique<sim::SideOf<Other>>(talk);
}

// Through a server, where it is one of their own.
template <class One, class Other>
void converse(sim::Talk& talk)
{
    const auto makeOne = [&] { return make<One, Other>(talk); };
    NuvikaTcpServer server;
    if (talk.nPort == 0)
        talk.nPort = sim::listen(talk, server, makeOne);
    sim::talkAWhile(talk, makeOne, [&] { talk.world.run(talk.random.size(100)); });
    sim::finish(talk, 0.3);
}

// What a peer does next, and when.
void stepOf(sim::Talk& talk, sim::Stream& out, sim::Peer& peer)
{
    sim::Random& random = talk.random;
    peer.stall(false);
    if (peer.isOver() || out.bEnded || out.bCut || talk.bFinishing)
        return;
    const auto choice = random.below(30);
    const auto bytes = out.next(choice < 5 ? 1 : static_cast<int>(random.size(100000)));
    if (choice < 2) {
        ++talk.nCuts;
        (choice == 0 ? out.bEnded : out.bCut) = true;
        choice == 0 ? peer.end() : peer.reset();
    } else if (choice < 5) {
        peer.writeUrgent(bytes[0]);
        out.nSent += 1;
    } else if (choice < 8) {
        peer.stall(random.chance(0.5));
    } else {
        peer.write(bytes);
        out.nSent += bytes.size();
    }
    talk.world.after(random.size(200), [&] { stepOf(talk, out, peer); });
}

void welcome(sim::Talk& talk, sim::Peer& peer)
{
    const auto in = std::make_shared<sim::Reception>();
    sim::Stream& out = talk.streams.make();
    peer.onBytes = [&talk, in](const QByteArray& bytes) {
        in->read(talk.world, talk.streams, bytes.constData(), bytes.size());
    };
    peer.onEnd = [&out, &peer] {
        out.bEnded = true;
        peer.close();
    };
    stepOf(talk, out, peer);
}
} // namespace

SCENARIO(streams)
{
    sim::Talk talk(world, 8 << 20, 300000);
    world.setName("here", {"127.0.0.1"});
    world.setName("at last", {"10.7.7.7", "fd00::1", "10.0.0.1", "127.0.0.1"}); // no answer, then refusals
    world.setName("nobody", {});
    for (const char* host : {"127.0.0.1", "127.0.0.1", "127.0.0.1", "here", "at last", "nobody"})
        talk.hosts.push_back(QString::fromLatin1(host));
    converse<NuvikaTcpSocket, NuvikaTcpSocketQueued>(talk);
}

SCENARIO(messages)
{
    sim::Talk talk(world, 12 << 20, 2000000);
    talk.hosts = {QStringLiteral("127.0.0.1"), QStringLiteral("127.0.0.1"), QStringLiteral("nowhere")};
    converse<BufferSocketFixedFifo, BufferSocketQueued>(talk);
}

SCENARIO(strangers)
{
    sim::Talk talk(world, 4 << 20, 100000);
    talk.hosts = {QStringLiteral("10.0.0.9")};
    talk.nPort = 1000;
    world.listen("10.0.0.9", talk.nPort, [&](sim::Peer& peer) { welcome(talk, peer); });
    converse<NuvikaTcpSocket, NuvikaTcpSocketQueued>(talk);
}
