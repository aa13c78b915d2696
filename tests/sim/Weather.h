// How bad the network and the machine are. All probabilities are those of one call or one delivery.
#pragma once

#include "sim/Random.h"

namespace sim
{
struct Weather {
    // The network.
    std::uint64_t nMinDelayUs = 20;
    std::uint64_t nMaxDelayUs = 500;
    double cut = 0.3; // only a part of what is on its way arrives
    double stall = 0; // nothing does for up to five seconds
    double reset = 0; // the connection is reset on the way
    double refuse = 0; // a connect
    double lose = 0; // a datagram, or what opens a connection
    double duplicate = 0; // a datagram
    double reorder = 0; // a datagram

    // The machine.
    double squeeze = 0; // a send buffer takes less than it has room for
    double interrupt = 0; // EINTR
    double noDescriptor = 0;
    double noMemory = 0; // of the system (ENOBUFS, ENOMEM, ENOSPC) and of the process
    double noThread = 0;
    double slow = 0; // a call takes up to 5 ms
    double preempt = 0; // another thread goes on in the middle of a call
    int nDescriptors = 10000; // that can be open

    bool mayReset() const { return reset > 0; }
    bool mayFail() const { return noMemory > 0 || noDescriptor > 0 || noThread > 0; }

    // From fine to foul; what may not happen in a scenario it sets to 0 itself.
    static Weather ofSeed(Random& random)
    {
        Weather weather;
        if (random.chance(0.3))
            return weather;
        const double foul = random.chance(0.5) ? 1 : 4;
        const auto some = [&](double most) { return random.chance(0.5) ? most * foul : 0; };
        weather.nMaxDelayUs = random.chance(0.5) ? 200000 : 3000;
        weather.cut = random.chance(0.5) ? 0.3 : 0.9;
        weather.stall = some(0.005);
        weather.reset = some(0.008);
        weather.refuse = some(0.05);
        weather.lose = some(0.02);
        weather.duplicate = some(0.02);
        weather.reorder = some(0.05);
        weather.squeeze = some(0.1);
        weather.interrupt = some(0.02);
        weather.noDescriptor = some(0.01);
        weather.noMemory = some(0.002);
        weather.noThread = some(0.02);
        weather.slow = some(0.005);
        weather.preempt = some(0.05);
        return weather;
    }
};
} // namespace sim
