// Message sockets of both kinds, plain and encrypted: every message comes once, whole and in order, or not at
// all.
#include "sim/scenarios/Sides.h"

namespace
{
std::unique_ptr<sim::Side> makeSide(sim::Talk& talk)
{
    if (talk.random.chance(0.5))
        return std::make_unique<sim::SideOf<BufferSocketFixedFifo>>(talk);
    return std::make_unique<sim::SideOf<BufferSocketQueued>>(talk);
}

} // namespace

SCENARIO(messages)
{
    NuvikaTcpServer server;
    sim::Talk talk(world, 12 << 20, 2000000);
    talk.hosts = {QStringLiteral("127.0.0.1"), QStringLiteral("127.0.0.1"), QStringLiteral("nowhere")};
    talk.nPort = sim::listen(talk, server, [&] { return makeSide(talk); });
    sim::talkAWhile(
        talk, [&] { return makeSide(talk); }, [&] { world.run(talk.random.size(100)); });
    sim::finish(talk, 0.2);
}
