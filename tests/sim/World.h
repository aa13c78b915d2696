// What a scenario has: a seed's random choices, weather, peers, an event loop with an end, and checks.
// README.md shows one. It runs on the thread that made the application object, with the library started. What
// it makes it also destroys; then nothing may be left: no descriptor, timer, notifier or thread.
#pragma once

#include "sim/Kernel.h"
#include "sim/Peer.h"

#include <QtCore/QString>

#include <deque>
#include <functional>
#include <string>
#include <vector>

namespace sim
{
class World
{
public:
    explicit World(std::uint64_t seed);
    ~World();
    World(const World&) = delete;
    World& operator=(const World&) = delete;

    Random& random() { return m_random; } // the scenario's own: the kernel's choices do not change it
    Weather& weather() { return Kernel::get().weather; }

    // Runs the event loop until it is so; false when the time is over first.
    bool runUntil(const std::function<bool()>& done, std::uint64_t limitMs);
    void run(std::uint64_t ms);
    // Time that a handler takes.
    void work(std::uint64_t microseconds) { Scheduler::get().pass(microseconds * 1000); }
    std::uint64_t nowMs() const { return Scheduler::get().now() / kMs; }
    // In the kernel, as what peers do.
    void after(std::uint64_t ms, std::function<void()> event)
    {
        Scheduler::get().after(ms * kMs, std::move(event));
    }

    // What the resolver knows; an empty list is not found.
    void setName(const std::string& name, const std::vector<std::string>& addresses);
    // Peers live as long as the world.
    void listen(
        const std::string& ip, std::uint16_t port, std::function<void(Peer&)> accepted, int backlog = 128);
    Peer& dial(const std::string& ip, std::uint16_t port, const std::function<void(Peer&)>& prepare);
    UdpPeer& udp(const std::string& ip, std::uint16_t port);

    // Ends the run with that text when it is not so.
    [[gnu::format(printf, 3, 4)]] void expect(bool condition, const char* text, ...);

private:
    Peer& add(StreamSocket& socket);

    Random m_random;
    std::vector<Peer*> m_peers;
    std::deque<UdpPeer> m_udpPeers;
    std::vector<StreamSocket*> m_listeners;
};

struct Scenario {
    using Function = void (*)(World& world);
    const char* name;
    Function run;
    bool bLong; // runs only where it is named, or with --long
    static std::vector<Scenario>& all();
    static bool add(const char* name, Function run, bool bLong);
};

// One run, in a process of its own, so that each begins from the same memory and a crash ends nobody else.
// Does not return. The report lies in shared memory.
[[noreturn]] void runHere(const Scenario& scenario, std::uint64_t seed, Report& report);
} // namespace sim

#define SCENARIO_OF_LENGTH(name, bLong)                                                                      \
    static void scenario_##name(sim::World& world);                                                          \
    [[maybe_unused]] static const bool s_bScenario_##name                                                    \
        = sim::Scenario::add(#name, &scenario_##name, bLong);                                                \
    static void scenario_##name([[maybe_unused]] sim::World& world)
#define SCENARIO(name) SCENARIO_OF_LENGTH(name, false)
// One that takes minutes.
#define LONG_SCENARIO(name) SCENARIO_OF_LENGTH(name, true)
