#include "cameras/StreamRecord.h"

#include <gtest/gtest.h>

#include <vector>

namespace
{
constexpr qint64 kMinuteUs = 60000000;
constexpr qint64 kHourUs = 60 * kMinuteUs;

// A unit with its times in milliseconds; the wall clock begins at an hour.
struct Unit {
    qint64 presentation;
    qint64 wall;
    quint32 lost = 0;
    bool bBySender = true;
    bool bNewRun = false;
    bool bNewSession = false;
};

using Spans = std::vector<std::pair<qint64, qint64>>;

Spans recordedOf(const std::vector<Unit>& units)
{
    StreamRecord record;
    for (const Unit& unit : units) {
        if (unit.bNewSession)
            record.beginSession();
        RtpAccessUnit access;
        access.nPacketsLost = unit.lost;
        RtpTime time;
        time.presentationUs = unit.presentation * 1000;
        time.wallUs = kHourUs + unit.wall * 1000;
        time.bWallBySender = unit.bBySender;
        time.bNewRun = unit.bNewRun;
        record.takeUnit(access, time);
    }
    Spans spans;
    for (const auto& period : record.recorded().all())
        spans.emplace_back(qRound64(period.first.toUnixTime() * 1000) - kHourUs / 1000,
            qRound64(period.second.toUnixTime() * 1000) - kHourUs / 1000);
    return spans;
}
} // namespace

TEST(StreamRecord, TellsWhichPeriodsCameWhole)
{
    struct Case {
        const char* name;
        std::vector<Unit> units;
        Spans recorded;
    };
    const std::vector<Case> cases{
        {"a unit lasts until the next", {{0, 0}, {40, 40}, {80, 80}}, {{0, 80}}},
        {"before a loss as long as its forerunner", {{0, 0}, {40, 40}, {200, 200, 3}, {240, 240}},
            {{0, 80}, {200, 240}}},
        {"a long silence is a gap", {{0, 0}, {40, 40}, {3040, 3040}, {3080, 3080}}, {{0, 80}, {3040, 3080}}},
        {"pictures that are shown earlier than sent", {{0, 0}, {80, 80}, {80, 80}, {160, 160}}, {{0, 160}}},
        {"the camera sets its clock", {{0, 0}, {40, 40}, {80, 5080, 0, true, true}, {120, 5120}},
            {{0, 80}, {5080, 5120}}},
        {"the first report tells that the camera's clock is an hour and a bit before ours",
            {{0, 0, 0, false}, {40, 40, 0, false}, {80, 3700080, 0, true, true}, {120, 3700120}},
            {{3700000, 3700120}}},
        {"only what came since then by our clock moves",
            {{0, 5000}, {40, 5040}, {90, 9000, 0, false, true, true}, {130, 9040, 0, false},
                {170, 7000, 0, true, true}, {210, 7040}},
            {{5000, 5040}, {6920, 7040}}},
        {"a media clock that jumps, and all has come",
            {{0, 0}, {40, 40}, {110, 110, 0, true, true}, {150, 150}}, {{0, 150}}},
        {"the same with a loss", {{0, 0}, {40, 40}, {110, 110, 1, true, true}, {150, 150}},
            {{0, 80}, {110, 150}}},
        {"no report ever", {{0, 0, 0, false}, {40, 40, 0, false}}, {{0, 40}}},
    };
    for (const Case& c : cases)
        EXPECT_EQ(recordedOf(c.units), c.recorded) << c.name;
}

TEST(StreamRecord, CountsOverSessions)
{
    StreamRecord record;
    record.closeInterval({100, 125000, 25}, 1000);
    EXPECT_DOUBLE_EQ(record.figures().megabits, 1.0);
    EXPECT_DOUBLE_EQ(record.figures().lossPercent, 20.0);
    record.closeSilence(1000);
    EXPECT_EQ(record.figures().packets, 0U);
    EXPECT_DOUBLE_EQ(record.rates().back(), 0.0);
    record.beginSession();
    record.closeInterval({10, 1250, 0}, 2000);
    EXPECT_DOUBLE_EQ(record.figures().megabits, 0.005);
    EXPECT_EQ(record.figures().allPackets, 110U);
    EXPECT_DOUBLE_EQ(record.figures().allLossPercent(), 100.0 * 25 / 135);
}
