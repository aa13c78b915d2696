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

World::~World()
{
    for (StreamSocket* listener : m_listeners)
        listener->released();
    for (Peer* peer : m_peers)
        peer->finish();
}

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
    for (int i = 0; i < 2 && !done(); ++i) { // the rest of the first's last pass may have undone it
        bOver = false;
        loop.exec();
    }
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

Peer& World::add(StreamSocket& socket)
{
    m_peers.push_back(&Kernel::get().make<Peer>(socket));
    return *m_peers.back();
}

void World::listen(
    const std::string& ip, std::uint16_t port, std::function<void(Peer&)> accepted, int backlog)
{
    const Address address = Address::of(ip, port);
    auto& listener = Kernel::get().make<StreamSocket>(address.nFamily);
    m_listeners.push_back(&listener);
    listener.local = address;
    expect(listener.listen(backlog) == 0, "%s has a listener already", address.text().c_str());
    const auto acceptAll = [this, &listener, accepted = std::move(accepted)] {
        while (StreamSocket* connection = listener.takeAccepted()) {
            Peer& peer = add(*connection);
            accepted(peer);
            peer.start();
        }
    };
    listener.onWake = [=] { Scheduler::get().after(Kernel::get().delay(), acceptAll); };
}

Peer& World::dial(const std::string& ip, std::uint16_t port, const std::function<void(Peer&)>& prepare)
{
    const Address target = Address::of(ip, port);
    auto& socket = Kernel::get().make<StreamSocket>(target.nFamily);
    Peer& peer = add(socket);
    if (prepare)
        prepare(peer);
    peer.start();
    socket.connect(target); // the weather's failure is told as any other
    return peer;
}

UdpPeer& World::udp(const std::string& ip, std::uint16_t port)
{
    return m_udpPeers.emplace_back(Address::of(ip, port));
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
