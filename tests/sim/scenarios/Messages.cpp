// Message sockets of both kinds, plain and encrypted: every message comes once, whole and in order, or not at
// all. And a peer that lies about lengths and talks nonsense.
#include "sim/scenarios/Sides.h"

#include <QtCore/QtEndian>

namespace
{
constexpr const char* kLiar = "10.0.0.8";
constexpr quint16 kLiarPort = 7;

std::unique_ptr<sim::Side> makeSide(sim::Talk& talk)
{
    if (talk.random.chance(0.5))
        return std::make_unique<sim::SideOf<BufferSocketFixedFifo>>(talk);
    return std::make_unique<sim::SideOf<BufferSocketQueued>>(talk);
}

QByteArray frame(const char* magic, quint32 length, const QByteArray& payload)
{
    QByteArray bytes(magic);
    bytes.resize(8);
    qToBigEndian(length, bytes.data() + 4);
    return bytes + payload;
}

// Without a byte with which a frame may begin.
QByteArray nonsense(sim::Random& random, std::uint64_t size)
{
    QByteArray bytes(static_cast<int>(size), '\0');
    for (char& byte : bytes)
        byte = static_cast<char>(random.below(0x40));
    return bytes;
}

// Some are what they say; an encrypted one that cannot be read is an empty one.
QByteArray truths(sim::Random& random, std::vector<QByteArray>* heard)
{
    QByteArray bytes;
    for (std::uint64_t left = random.size(20); left > 0; --left) {
        const bool bToken = random.chance(0.3);
        const QByteArray payload = nonsense(random, random.size(30000));
        heard->push_back(bToken ? QByteArray() : payload);
        bytes += frame(bToken ? "GEUD" : "FDTC", static_cast<quint32>(payload.size()), payload);
    }
    return bytes;
}

QByteArray lie(sim::Random& random)
{
    const QByteArray rest = nonsense(random, 9 + random.size(3000));
    switch (random.below(3)) {
    case 0:
        return rest; // no frame at all
    case 1:
        return frame("FDTC", static_cast<quint32>(0x6400000 + random.below(0x90000000)), rest);
    default: // the message goes on behind its end
        return frame("FDTC", 3, "abc" + rest);
    }
}

struct Hearing {
    explicit Hearing(sim::World& w) : world(w) { }
    sim::World& world;
    BufferSocketQueued socket{false, static_cast<int>(world.random().below(3))};
    sim::Peer* pLiar = nullptr;
    std::vector<QByteArray> due;
    std::size_t nHeard = 0;
    bool bLied = false; // what is due then comes, or does not
    bool bOver = false;

    void hear(const QByteArray& message)
    {
        world.expect(!bOver, "a message behind the end");
        while (bLied && nHeard < due.size() && due[nHeard] != message)
            ++nHeard;
        world.expect(nHeard < due.size() && due[nHeard] == message, "message %zu: %d bytes that nobody sent",
            nHeard, message.size());
        nHeard += bLied ? 0 : 1; // a lie may be repeated
        bLied = bLied && message != due.back();
    }
};
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

// The truth is heard to the letter; and behind each lie again, once there was a pause.
SCENARIO(liars)
{
    sim::Weather& weather = world.weather();
    weather.reset = weather.refuse = weather.lose = weather.noDescriptor = weather.noMemory = 0;
    Hearing hearing(world);
    world.listen(kLiar, kLiarPort, [&](sim::Peer& peer) { hearing.pLiar = &peer; });
    QObject::connect(&hearing.socket, &BufferSocketBase::incomingBuffer,
        [&](const char* data, int size) { hearing.hear(QByteArray(data, size)); });
    QObject::connect(&hearing.socket, &BufferSocketBase::disconnected, [&] { hearing.bOver = true; });
    QObject::connect(&hearing.socket, &BufferSocketBase::error,
        [&](int code) { world.expect(false, "error %d without a reason", code); });
    hearing.socket.connectToHost(QHostAddress(QString::fromLatin1(kLiar)), kLiarPort);
    world.expect(world.runUntil([&] { return hearing.pLiar != nullptr; }, 10000), "nobody connects");
    sim::Random& random = world.random();
    for (std::uint64_t left = random.size(10); left > 0; --left) {
        hearing.due.clear();
        hearing.nHeard = 0;
        const QByteArray bytes = truths(random, &hearing.due);
        hearing.pLiar->write(bytes);
        const auto isHeard = [&] { return hearing.nHeard == hearing.due.size(); };
        world.expect(
            world.runUntil(isHeard, 300000), "%zu of %zu messages", hearing.nHeard, hearing.due.size());
        const QByteArray lies = lie(random);
        hearing.due = {"abc", "the truth"};
        hearing.nHeard = lies.startsWith("FDTC") ? 0 : 1;
        hearing.bLied = true;
        hearing.pLiar->write(lies);
        for (int tries = 0; tries < 100 && hearing.bLied; ++tries) {
            world.run(20000); // longer than any stall
            if (hearing.bLied)
                hearing.pLiar->write(frame("FDTC", 9, "the truth"));
        }
        world.expect(!hearing.bLied, "nothing is heard any more");
        world.run(20000);
    }
    hearing.pLiar->write(frame("FDTC", static_cast<quint32>(random.size(0x63fffff)), ""));
    hearing.pLiar->end();
    world.expect(world.runUntil([&] { return hearing.bOver; }, 60000), "it does not end");
}
