// Random choices that follow from a seed alone.
#pragma once

#include <cstddef>
#include <cstdint>

namespace sim
{
class Random
{
public:
    explicit Random(std::uint64_t seed) : m_nState(seed) { }

    std::uint64_t next() // splitmix64
    {
        std::uint64_t z = (m_nState += 0x9e3779b97f4a7c15U);
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9U;
        z = (z ^ (z >> 27)) * 0x94d049bb133111ebU;
        return z ^ (z >> 31);
    }
    // 0 to count - 1; 0 when there is nothing to choose from.
    std::uint64_t below(std::uint64_t count) { return count == 0 ? 0 : next() % count; }
    std::uint64_t between(std::uint64_t least, std::uint64_t most) { return least + below(most - least + 1); }
    bool chance(double probability) { return static_cast<double>(next() >> 11) * 0x1p-53 < probability; }
    // Small values often, large ones seldom: each order of magnitude is as likely as another.
    std::uint64_t size(std::uint64_t most)
    {
        std::uint64_t bound = 1;
        while (bound < most && !chance(0.15))
            bound *= 4;
        return between(1, bound < most ? bound : most);
    }
    template <class Container>
    auto& pick(Container& container)
    {
        return container[static_cast<decltype(container.size())>(
            below(static_cast<std::uint64_t>(container.size())))];
    }

private:
    std::uint64_t m_nState;
};
} // namespace sim
