// Fifty cameras and a recorder over days: nothing grows, nobody is forgotten, every picture is whole.
#include "sim/scenarios/Cameras.h"

#include <algorithm>

#include <malloc.h>

using namespace cameras;

namespace
{
constexpr std::uint64_t kHourMs = 3600000;
constexpr std::size_t kMostHeld = 64 << 10; // bytes for each camera

struct Plant {
    Plant(sim::World& w, int count, int periodMs) : world(w)
    {
        for (int i = 0; i < count; ++i) {
            cameras.push_back(std::make_unique<Camera>(w, i, periodMs, 3000));
            watchers.push_back(std::make_unique<Watcher>(w, *cameras.back(), 3 * periodMs));
            watchers.back()->ask();
        }
    }
    int pictures() const
    {
        int sum = 0;
        for (const auto& watcher : watchers)
            sum += watcher->pictures();
        return sum;
    }

    sim::World& world;
    std::vector<std::unique_ptr<Camera>> cameras;
    std::vector<std::unique_ptr<Watcher>> watchers;
};

// Some of the hours are bad. Behind a good one everybody is there, and little is missing.
void watch(sim::World& world, int cameras, int periodMs, int steps, std::uint64_t stepMs)
{
    const sim::Weather weather = world.weather();
    world.weather() = sim::Weather();
    Plant plant(world, cameras, periodMs);
    for (int step = 0; step < steps; ++step) {
        const bool bBad = world.random().chance(0.3);
        for (const auto& camera : plant.cameras)
            camera->trouble = bBad ? 0.05 : 0;
        world.weather() = bBad ? weather : sim::Weather();
        world.run(stepMs);
        world.weather() = sim::Weather();
        for (const auto& camera : plant.cameras)
            camera->trouble = 0;
        world.run(stepMs / 4); // who was cut off comes back
        const std::uint64_t begin = world.nowMs();
        const int pictures = plant.pictures();
        world.run(stepMs / 2);
        const auto expected = static_cast<int>(stepMs / 2 / static_cast<std::uint64_t>(periodMs)) * cameras;
        world.expect(plant.pictures() - pictures >= expected - 2 * cameras, "step %d: %d pictures, not %d",
            step, plant.pictures() - pictures, expected);
        for (const auto& watcher : plant.watchers)
            world.expect(watcher->lastMs() > begin, "step %d: a camera is forgotten", step);
        world.expect(sim::Kernel::get().openDescriptors() <= static_cast<std::size_t>(cameras) + 10,
            "%zu descriptors are open", sim::Kernel::get().openDescriptors());
    }
    // What the network keeps of closed connections is the simulation's.
    const std::size_t before = mallinfo2().uordblks;
    plant.watchers.clear();
    world.run(1000);
    const std::size_t held = before - mallinfo2().uordblks;
    world.expect(
        held < kMostHeld * static_cast<std::size_t>(cameras), "%d cameras hold %zu bytes", cameras, held);
}
} // namespace

LONG_SCENARIO(day) { watch(world, 50, 60000, 14, kHourMs); }

// Through the wrap of the milliseconds, whatever the clock says at the beginning.
LONG_SCENARIO(weeks) { watch(world, 5, 3600000, 30, 24 * kHourMs); }
