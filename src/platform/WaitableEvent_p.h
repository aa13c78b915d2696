// Private: an event that one thread waits on and another sets once.
#pragma once

#include <atomic>
#include <cstdint>

namespace Nuvika
{
class WaitableEvent
{
public:
    void set();
    // Sleeps until it is set. `bSpin`: somebody is just about to set it, so spin first, for at most kSpinNs.
    void wait(bool bSpin = false);

    static constexpr std::uint64_t kSpinNs = 20'000;
    // Runs `done` until it is true or the spin time is over; false at once where only one CPU is usable.
    template <class Done>
    static bool spinUntil(Done done);

private:
    static bool spinTimeIsOver(std::uint64_t* deadline);

    std::atomic<std::uint32_t> m_nSet{0};
};

template <class Done>
bool WaitableEvent::spinUntil(Done done)
{
    for (std::uint64_t deadline = 0; !done();) {
        if (spinTimeIsOver(&deadline))
            return false;
    }
    return true;
}
} // namespace Nuvika
