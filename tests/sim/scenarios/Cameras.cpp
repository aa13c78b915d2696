// Cameras in trouble, each with a client that asks again: every picture is whole, none comes twice, and in
// fine weather all go on.
#include "sim/scenarios/Cameras.h"

#include <algorithm>

using namespace cameras;

namespace
{
constexpr int kSilenceMs = 10000;

// The longest pause, a silence, three attempts, and a picture: then each has gone on.
constexpr std::uint64_t kPatienceMs = Watcher::kLongestPauseMs + 3 * kSilenceMs + 60000 + 100000;
} // namespace

SCENARIO(cameras)
{
    sim::Random& random = world.random();
    std::vector<std::unique_ptr<Camera>> cameras;
    std::vector<std::unique_ptr<Watcher>> watchers;
    int depth = 0;
    bool bCounting = false; // a handler with an event loop of its own would hold pictures up
    const auto act = [&] {
        if (bCounting)
            return;
        if (random.chance(0.02))
            world.work(random.size(100000));
        if (random.chance(0.02) && depth < 3) {
            ++depth;
            world.run(random.size(2000));
            --depth;
        }
    };
    const auto count = static_cast<int>(random.size(12));
    for (int i = 0; i < count; ++i) {
        cameras.push_back(
            std::make_unique<Camera>(world, i, static_cast<int>(random.between(50, 3000)), 60000));
        cameras.back()->trouble = random.chance(0.3) ? 0 : 0.05;
        watchers.push_back(std::make_unique<Watcher>(world, *cameras.back(), kSilenceMs));
        watchers.back()->onPicture = act;
        watchers.back()->ask();
    }
    world.run(random.size(200000));
    world.weather() = sim::Weather();
    for (const auto& camera : cameras)
        camera->calmDown();
    const std::uint64_t begin = world.nowMs();
    const auto goesOn = [&](const auto& watcher) { return watcher->lastMs() > begin; };
    world.runUntil([&] { return std::all_of(watchers.begin(), watchers.end(), goesOn); }, kPatienceMs);
    for (const auto& watcher : watchers)
        world.expect(goesOn(watcher), "a camera that is there is not asked any more");

    // And then without a gap, where nothing went wrong.
    bCounting = true;
    world.run(static_cast<std::uint64_t>(kSilenceMs) * 2); // who was silent is noticed
    std::vector<int> before;
    std::vector<int> interruptions;
    for (std::size_t i = 0; i < cameras.size(); ++i) {
        before.push_back(watchers[i]->pictures() - cameras[i]->nSentPictures);
        interruptions.push_back(watchers[i]->interruptions());
    }
    world.run(10000);
    for (std::size_t i = 0; i < cameras.size(); ++i) {
        const int behind = before[i] - (watchers[i]->pictures() - cameras[i]->nSentPictures);
        world.expect(watchers[i]->interruptions() == interruptions[i], "camera %zu is interrupted", i);
        world.expect(behind <= 3, "camera %zu: %d pictures are missing", i, behind);
    }
}
