#include "sim/World.h"

#include <QtCore/QAbstractEventDispatcher>
#include <QtCore/QEventLoop>
#include <QtCore/QTimer>

#include <algorithm>
#include <cstdarg>
#include <limits>

namespace sim
{
std::vector<Scenario>& Scenario::all()
{
    static std::vector<Scenario> scenarios;
    return scenarios;
}

bool Scenario::add(const char* name, Function run, bool bLong)
{
    auto& scenarios = all(); // by name: the linker's order says nothing
    const auto place = std::find_if(scenarios.begin(), scenarios.end(),
        [=](const Scenario& other) { return std::string(other.name) > name; });
    scenarios.insert(place, {name, run, bLong});
    return true;
}

World::World(std::uint64_t seed) : m_random(seed ^ 0x5ce9a210U) { weather() = Weather::ofSeed(m_random); }

World::~World() = default;

bool World::runUntil(const std::function<bool()>& done, std::uint64_t limitMs)
{
    QEventLoop loop;
    const Time end = Scheduler::get().now() + limitMs * kMs;
    bool bOver = false; // told once: an inner loop may still have to come to its end
    const auto look = [&] {
        if (bOver || (!done() && Scheduler::get().now() < end))
            return;
        bOver = true;
        loop.quit();
    };
    QObject::connect(QAbstractEventDispatcher::instance(), &QAbstractEventDispatcher::awake, &loop, look);
    QTimer limit;
    limit.setTimerType(Qt::PreciseTimer);
    limit.start(static_cast<int>(std::min<std::uint64_t>(limitMs, std::numeric_limits<int>::max() / 2)));
    if (!done())
        loop.exec();
    return done();
}

void World::run(std::uint64_t ms)
{
    runUntil([] { return false; }, ms);
}

void World::setName(const std::string& name, const std::vector<std::string>& addresses)
{
    Kernel::get().names[name] = addresses;
}

void World::listen(
    const std::string& ip, std::uint16_t port, std::function<void(Peer&)> accepted, int backlog)
{
    const auto keep = [this, accepted = std::move(accepted)](const std::shared_ptr<Peer>& peer) {
        m_peers.push_back(peer);
        accepted(*peer);
    };
    m_listeners.push_back(std::make_unique<PeerListener>(Address::of(ip, port), keep, backlog));
}

Peer& World::dial(const std::string& ip, std::uint16_t port, const std::function<void(Peer&)>& prepare)
{
    const Address target = Address::of(ip, port);
    const auto socket = std::make_shared<StreamSocket>(target.nFamily);
    m_peers.push_back(std::make_shared<Peer>(socket));
    Peer& peer = *m_peers.back();
    if (prepare)
        prepare(peer);
    peer.start();
    const int result = socket->connect(target);
    if (result != -EINPROGRESS) // the weather's; the peer is told as of any failure
        trace("a peer does not reach %s", target.text().c_str());
    return peer;
}

UdpPeer& World::udp(const std::string& ip, std::uint16_t port)
{
    m_udpPeers.push_back(std::make_unique<UdpPeer>(Address::of(ip, port)));
    return *m_udpPeers.back();
}

void World::expect(bool condition, const char* text, ...)
{
    if (condition)
        return;
    char buffer[1024];
    va_list arguments;
    va_start(arguments, text);
    std::vsnprintf(buffer, sizeof buffer, text, arguments);
    va_end(arguments);
    fail("%s", buffer);
}
} // namespace sim
