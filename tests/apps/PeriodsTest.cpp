#include "cameras/Periods.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

namespace
{
unsigned long s_nCompared = 0;

// A point in time that counts the comparisons.
struct Instant {
    int value = 0;
    bool operator<(const Instant& other) const { return ++s_nCompared > 0 && value < other.value; }
    Instant operator+(const Instant& other) const { return {value + other.value}; }
};

constexpr Instant kTolerance{2};

using Pairs = std::vector<std::pair<int, int>>;

Pairs pairsOf(const Periods<Instant>& periods)
{
    Pairs pairs;
    for (const auto& period : periods.all())
        pairs.emplace_back(period.first.value, period.second.value);
    return pairs;
}

} // namespace

TEST(Periods, AreInOrderAndDisjoint)
{
    const struct {
        const char* situation;
        Pairs added;
        Pairs expected;
    } cases[] = {
        {"apart", {{0, 10}, {20, 30}}, {{0, 10}, {20, 30}}},
        {"touching", {{0, 10}, {10, 30}}, {{0, 30}}},
        {"within the tolerance", {{0, 10}, {12, 30}}, {{0, 30}}},
        {"behind the tolerance", {{0, 10}, {13, 30}}, {{0, 10}, {13, 30}}},
        {"overlapping", {{0, 10}, {5, 8}, {9, 12}}, {{0, 12}}},
        {"a clock set back", {{100, 110}, {0, 10}, {10, 20}}, {{0, 20}, {100, 110}}},
        {"set back into what is recorded", {{0, 10}, {20, 30}, {5, 25}}, {{0, 30}}},
        {"one that swallows all", {{20, 30}, {40, 50}, {60, 70}, {10, 60}}, {{10, 70}}},
        {"up to the begin of another", {{20, 30}, {10, 20}}, {{10, 30}}},
        {"single moments", {{5, 5}, {6, 6}, {20, 20}}, {{5, 6}, {20, 20}}},
        {"an end before its begin", {{0, 10}, {30, 20}}, {{0, 10}}},
    };
    for (const auto& c : cases) {
        Periods<Instant> periods;
        for (const auto& pair : c.added)
            periods.add({pair.first}, {pair.second}, kTolerance);
        EXPECT_EQ(pairsOf(periods), c.expected) << c.situation;
        EXPECT_EQ(periods.gaps(), static_cast<int>(c.expected.size()) - 1) << c.situation;
    }
}

TEST(Periods, LimitsForgetWhatLiesWhollyOutside)
{
    Periods<Instant> periods;
    for (const int begin : {0, 20, 40, 60, 80})
        periods.add({begin}, {begin + 10}, kTolerance);
    periods.limitTo({30}, {60});
    EXPECT_EQ(pairsOf(periods), (Pairs{{20, 30}, {40, 50}, {60, 70}}));
    periods.limitTo({100}, {200});
    EXPECT_EQ(periods.gaps(), 0);
}

TEST(Periods, AClockThatJumpsCostsTheLogarithmOfABoundedNumber)
{
    constexpr int kReports = 16000;
    std::mt19937 random(7);
    Periods<Instant> periods;
    s_nCompared = 0;
    for (int i = 0; i < kReports; ++i) {
        const int begin = static_cast<int>(random() % 1000000000);
        periods.add({begin}, {begin + 1}, kTolerance);
        ASSERT_LE(periods.all().size(), Periods<Instant>::kMost);
    }
    EXPECT_LT(s_nCompared, kReports * 40UL);
}
