// The milliseconds of the monotonic clock wrap every 49.7 days: what measures time goes on as before, and
// what was kept before a whole round is old, not new.
#include "sim/World.h"

#include <KepNuvikaUtil/DateTimeExt.h>
#include <KepNuvikaUtil/HostLookup.h>
#include <KepNuvikaUtil/HttpResponseClient.h>
#include <KepNuvikaUtil/NuvikaTcpServer.h>
#include <KepNuvikaUtil/RTPPacket.h>
#include <KepNuvikaUtil/RtpStatistics.h>
#include <KepNuvikaUtil/SDP.h>

#include <QtCore/QTimer>
#include <QtNetwork/QHostInfo>

#include <memory>
#include <vector>

namespace
{
constexpr std::uint64_t kRoundMs = std::uint64_t(1) << 32;
constexpr std::uint64_t kPeerEndedMs = 5000;
constexpr std::uint64_t kAnswerLastsMs = 60000; // a name's

// Time that passes while nobody looks.
void leap(sim::World& world, std::uint64_t ms)
{
    while (ms > 0) {
        const std::uint64_t step = std::min<std::uint64_t>(ms, 1000000000);
        world.work(step * 1000);
        ms -= step;
    }
}

// So much before the next one.
void leapToWrap(sim::World& world, std::uint64_t before)
{
    const std::uint64_t left = kRoundMs - world.nowMs() % kRoundMs;
    leap(world, left > before ? left - before : 0);
}

void countPackets(sim::World& world)
{
    const auto interval = static_cast<unsigned int>(world.random().between(100, 5000));
    RtpStatistics statistics;
    QTimer source;
    std::vector<unsigned char> bytes(1000);
    quint16 number = 0;
    int reports = 0;
    QObject::connect(&source, &QTimer::timeout, [&] {
        bytes[0] = 0x80;
        bytes[2] = static_cast<unsigned char>(++number >> 8);
        bytes[3] = static_cast<unsigned char>(number);
        statistics.update(RTPPacket(bytes.data(), static_cast<unsigned int>(bytes.size())));
    });
    QObject::connect(&statistics, &RtpStatistics::sigStatistics,
        [&](const QString&, unsigned int ticks, double rate, unsigned int received, unsigned int lost,
            double) {
            ++reports;
            world.expect(ticks >= interval - interval / 18 - 2 && ticks <= interval + interval / 18 + 10,
                "an interval of %u ms took %u", interval, ticks);
            world.expect(
                lost == 0 && received + 3 >= ticks / 22, "%u packets came, %u are lost", received, lost);
            world.expect(rate > 0 && rate < 1, "%f Mbit/s", rate);
        });
    statistics.start("packets", interval, false, true);
    source.start(20);
    world.run(120000);
    world.expect(
        reports >= static_cast<int>(110000 / (interval + interval / 18 + 10)), "%d reports", reports);
}

void readClocks(sim::World& world)
{
    DateTimeExt::MonotonicTime64 wide;
    DateTimeExt::TimeDiff watch;
    watch.start();
    const quint64 begin = wide();
    const unsigned int narrow = DateTimeExt::getMonotonicTimeMs();
    const std::uint64_t now = world.nowMs();
    for (int i = 0; i < 100; ++i) {
        world.run(world.random().size(5000));
        const std::uint64_t passed = world.nowMs() - now;
        world.expect(
            wide() - begin <= passed + 2 && wide() - begin + 2 >= passed, "the wide clock goes wrong");
        world.expect(DateTimeExt::getMonotonicTimeMs() - narrow <= passed + 2, "the narrow clock goes wrong");
        world.expect(
            watch.end() / 1000 <= passed + 2 && watch.end() / 1000 + 2 >= passed, "the watch goes wrong");
    }
}

// A peer that ends behind its request and gets no answer is let go in time, neither early nor late.
void endPatiently(sim::World& world)
{
    NuvikaTcpServer server;
    std::unique_ptr<HttpResponseClient> connection;
    std::uint64_t end = 0;
    QObject::connect(&server, &NuvikaTcpServer::newConnectionDesc, [&](int descriptor) {
        connection = std::make_unique<HttpResponseClient>(descriptor, false);
        QObject::connect(connection.get(), &HttpResponseClient::disconnected, [&] { end = world.nowMs(); });
    });
    world.expect(server.listen(QHostAddress(QHostAddress::LocalHost), 0), "the server does not listen");
    const std::uint64_t begin = world.nowMs();
    world.dial("127.0.0.1", server.serverPort(), [](sim::Peer& peer) {
        peer.onConnected = [&peer] {
            peer.write("GET / HTTP/1.1\r\nHost: x\r\n\r\n");
            peer.end();
        };
    });
    world.runUntil([&] { return end != 0; }, 60000);
    world.expect(end >= begin + kPeerEndedMs && end <= begin + kPeerEndedMs + 1000,
        "a peer is let go after %lld ms", static_cast<long long>(end) - static_cast<long long>(begin));
}

class Asker : public QObject
{
    Q_OBJECT
public:
    QString answer;
public slots:
    void take(const QHostInfo& info) { answer = info.addresses().value(0).toString(); }
};

std::string lookUp(sim::World& world)
{
    Asker asker;
    NuvikaUtil::lookupHost(QStringLiteral("camera"), &asker, SLOT(take(QHostInfo)));
    world.runUntil([&] { return !asker.answer.isEmpty(); }, 30000);
    return asker.answer.toStdString();
}

void askForNames(sim::World& world, std::uint64_t pause)
{
    world.setName("camera", {"10.0.0.1"});
    world.expect(lookUp(world) == "10.0.0.1", "a name is not found");
    world.setName("camera", {"10.0.0.2"});
    world.expect(lookUp(world) == "10.0.0.1", "an answer is not kept");
    leap(world, pause);
    world.expect(lookUp(world) == "10.0.0.2", "an answer is kept for %llu s",
        static_cast<unsigned long long>(pause / 1000));
}
} // namespace

SCENARIO(wraps)
{
    world.weather() = sim::Weather();
    sim::Random& random = world.random();
    const std::uint64_t kind = random.below(5);
    leapToWrap(world, random.between(1, kind == 2 ? 6000 : 90000));
    switch (kind) {
    case 0:
        countPackets(world);
        break;
    case 1:
        readClocks(world);
        break;
    case 2:
        endPatiently(world);
        break;
    case 3:
        askForNames(world, kAnswerLastsMs + random.below(60000));
        break;
    default:
        askForNames(world, kRoundMs - random.below(3000));
    }
}

#include "Wraps.moc"
