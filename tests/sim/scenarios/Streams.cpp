// Plain and queued sockets that talk to each other through a server; and to peers which are not the library:
// those write when they like, urgent bytes too, end or reset in the middle, and read late.
#include "sim/scenarios/Sides.h"

namespace
{
std::unique_ptr<sim::Side> makeSide(sim::Talk& talk)
{
    if (talk.random.chance(0.5))
        return std::make_unique<sim::SideOf<NuvikaTcpSocket>>(talk);
    return std::make_unique<sim::SideOf<NuvikaTcpSocketQueued>>(talk);
}

void converse(sim::Talk& talk)
{
    sim::talkAWhile(
        talk, [&] { return makeSide(talk); }, [&] { talk.world.run(talk.random.size(100)); });
    sim::finish(talk, 0.5);
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
    NuvikaTcpServer server;
    sim::Talk talk(world, 8 << 20, 300000);
    world.setName("here", {"127.0.0.1"});
    world.setName("at last", {"10.7.7.7", "fd00::1", "10.0.0.1", "127.0.0.1"}); // no answer, then refusals
    world.setName("nobody", {});
    for (const char* host : {"127.0.0.1", "127.0.0.1", "127.0.0.1", "here", "at last", "nobody"})
        talk.hosts.push_back(QString::fromLatin1(host));
    talk.nPort = sim::listen(talk, server, [&] { return makeSide(talk); });
    converse(talk);
}

SCENARIO(strangers)
{
    sim::Talk talk(world, 4 << 20, 100000);
    talk.hosts = {QStringLiteral("10.0.0.9")};
    talk.nPort = 1000;
    world.listen("10.0.0.9", talk.nPort, [&](sim::Peer& peer) { welcome(talk, peer); });
    converse(talk);
}
