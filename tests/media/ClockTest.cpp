#include "support/LogCapture.h"
#include "support/Seams.h"

#include <KepNuvikaUtil/ClockTickerThread.h>
#include <KepNuvikaUtil/ClockToNtpMapper32.h>
#include <KepNuvikaUtil/ClockToNtpMapper64.h>
#include <KepNuvikaUtil/DateTimeExt.h>

#include <functional>
#include <gtest/gtest.h>
#include <mutex>
#include <vector>

namespace
{
NTPTimestamp seconds(quint64 n) { return NTPTimestamp::fromRawHostByteOrder(n << 32); }

ClockToNtpMapper32 videoClock(quint32 base = 0)
{
    ClockToNtpMapper32 mapper(90000);
    mapper.setTimeBase(seconds(1000), base);
    return mapper;
}

// Sleeping moves the clock: hours pass at once.
struct VirtualTime {
    VirtualTime() { seams::bVirtualSleep = true; }
    ~VirtualTime()
    {
        seams::bVirtualSleep = false;
        seams::clockOffsetMs = 0;
    }
};

struct Ticker : ClockTickerThread {
    std::function<bool(std::size_t)> tick; // after tick number n; false ends it
    std::vector<quint32> scheduled;
    std::mutex mutex;

    explicit Ticker(std::function<bool(std::size_t)> tick_) : tick(std::move(tick_)) { }
    ~Ticker() override
    {
        stop();
        settled();
    }
    void onTick(unsigned int t) override
    {
        const std::lock_guard<std::mutex> lock(mutex);
        scheduled.push_back(t);
        if (!tick(scheduled.size()))
            stop();
    }
    // Behind the thread's end, for the thread sanitizer: it does not see how QThread orders that.
    void settled() { const std::lock_guard<std::mutex> lock(mutex); }
    bool ends()
    {
        const bool bEnded = wait(60000);
        settled();
        return bEnded;
    }
    quint32 step(std::size_t i) const { return scheduled[i] - scheduled[i - 1]; }
};
} // namespace

TEST(ClockMapper, MapsAroundItsBaseAtAnySpeed)
{
    EXPECT_TRUE(ClockToNtpMapper32(90000).clockToNtp(1, 100).isNull()) << "without a time base";
    const ClockToNtpMapper32 mapper = videoClock();
    const struct {
        quint32 clock;
        int speed;
        quint64 second;
    } rows[] = {{90000, 100, 1001}, {4294877296U, 100, 999}, {90000, 200, 1002}, {90000, -100, 999},
        {4294877296U, -200, 1002}, {90000, 0, 1000}};
    for (const auto& row : rows)
        EXPECT_EQ(mapper.clockToNtp(row.clock, row.speed), seconds(row.second))
            << row.clock << ' ' << row.speed;
    EXPECT_EQ(mapper.ntpToClock(seconds(1001)), 90000U);
    EXPECT_EQ(mapper.ntpToClock(seconds(999)), 4294877296U);
    // The largest of everything: more than 64 bits on the way, and defined.
    ClockToNtpMapper32 extreme(1, 0xFFFFFFFF);
    extreme.setTimeBase(seconds(0), 0);
    extreme.clockToNtp(0x7FFFFFFF, std::numeric_limits<int>::min());
    EXPECT_EQ(extreme.clockToNtp(0x7FFFFFFF, 100), seconds(quint32(quint64(0x7FFFFFFF) * 0xFFFFFFFF)));
    ClockToNtpMapper32 ntsc(30000, 1001);
    ntsc.setTimeBase(seconds(10), 5);
    EXPECT_EQ(ntsc.clockToNtp(5 + 30000, 100), seconds(1011));
    EXPECT_EQ(ntsc.ntpToClock(seconds(1011)), 30005U);
    LogCapture log;
    ClockToNtpMapper32 broken(1, 0);
    EXPECT_TRUE(log.has("ASSERT: \"m_ticksPerSecDenominator != 0\" in file ClockToNtpMapper.cpp"));
}

TEST(ClockMapper, RebasesBeforeTheClockWraps)
{
    ClockToNtpMapper32 mapper = videoClock();
    EXPECT_FALSE(mapper.rebaseIfNeeded(0x3FFFFFFF, 100));
    EXPECT_TRUE(mapper.rebaseIfNeeded(0x40000000, 100));
    EXPECT_EQ(
        mapper.clockToNtp(0x40000000, 100), seconds(1000) + NTPTimestamp::fromDivision(0x40000000, 90000));
    EXPECT_FALSE(ClockToNtpMapper32(90000).rebaseIfNeeded(0x70000000, 100)) << "without a time base";
    ClockToNtpMapper32 backwards = videoClock(0x40000000);
    EXPECT_TRUE(backwards.rebaseIfNeeded(0, -100));
    EXPECT_EQ(backwards.clockToNtp(0, -100), seconds(1000) + NTPTimestamp::fromDivision(0x40000000, 90000))
        << "going back at negative speed, time goes on";

    ClockToNtpMapper32 longRun = videoClock();
    quint32 clock = 0;
    constexpr quint64 kSteps = 6 * 24 * 30; // of ten minutes, a month: 54 wraps
    for (quint64 i = 0; i < kSteps; ++i)
        longRun.rebaseIfNeeded(clock += 90000 * 600, 100);
    const quint64 drift
        = longRun.clockToNtp(clock, 100).toMicroSeconds() - seconds(1000 + 600 * kSteps).toMicroSeconds();
    EXPECT_LE(drift + 1, 2U) << "a month without drift";
}

TEST(ClockMapper, MapsClocksOf64Bits)
{
    ClockToNtpMapper64 mapper(10000000);
    EXPECT_FALSE(mapper.hasTimeBase());
    mapper.setTimeBase(seconds(5000), quint64(1) << 40);
    EXPECT_EQ(mapper.clockToNtp((quint64(1) << 40) + 10000000), seconds(5001));
    EXPECT_EQ(mapper.clockToNtp((quint64(1) << 40) - 10000000), seconds(4999));
    EXPECT_EQ(mapper.ntpToClock(seconds(4999)), (quint64(1) << 40) - 10000000);
    ClockToNtpMapper64 cut(1000, (quint64(1) << 32) + 2);
    cut.setTimeBase(seconds(0), 0);
    EXPECT_EQ(cut.clockToNtp(1000), seconds(2)) << "the denominator keeps its low 32 bits";
    ClockToNtpMapper64 fast(quint64(1) << 40); // the fraction's product needs 72 bits
    fast.setTimeBase(seconds(0), 0);
    EXPECT_EQ(fast.ntpToClock(NTPTimestamp::fromRawHostByteOrder(0x80000000)), quint64(1) << 39);
}

TEST(DateTimeExt, CountsWrapsAndMeasures)
{
    const VirtualTime time;
    DateTimeExt::MonotonicTime64 now;
    const quint64 first = now();
    for (int i = 0; i < 3; ++i) {
        seams::clockOffsetMs += 30LL * 24 * 3600 * 1000;
        now();
    }
    const quint64 elapsed = now() - first;
    EXPECT_GE(elapsed, 90ULL * 24 * 3600 * 1000);
    EXPECT_LT(elapsed, 90ULL * 24 * 3600 * 1000 + 1000);
    DateTimeExt::TimeDiff watch;
    EXPECT_EQ(watch.end(), 0U) << "never started";
    watch.start();
    seams::clockOffsetMs += 3LL * 3600 * 1000; // 10.8e9 us: cut to 32 bits, without an overflow on the way
    EXPECT_NEAR(watch.end(), double(10800000000ULL % 4294967296ULL), 1e6);
    const long long before = seams::clockOffsetMs;
    for (const unsigned int us : {0U, 1U, 1499U, 1500U})
        DateTimeExt::usleep(us);
    EXPECT_EQ(seams::clockOffsetMs - before, 0 + 1 + 1 + 2);
    DateTimeExt::usleep(4294967295U); // rounding does not wrap
    EXPECT_EQ(seams::clockOffsetMs - before, 4 + 4294967);
    const QDateTime a = QDateTime::currentDateTimeUtc();
    EXPECT_EQ(DateTimeExt::DiffMSecs(a, a.addMSecs(-5)), -5);
}

TEST(DateTimeExt, MeasuresOnTheRingOfPresentationTimes)
{
    LogCapture log;
    EXPECT_EQ(DateTimeExt::DiffPts(10, 5), 2576980377595);
    EXPECT_EQ(DateTimeExt::DiffPts(5, 10), 5);
    EXPECT_TRUE(log.records().empty());
    EXPECT_EQ(DateTimeExt::DiffPts(-1, 0), 1);
    EXPECT_TRUE(log.has("DateTimeExt::DiffPts pts1 out of range: -1", QtWarningMsg));
    DateTimeExt::DiffPts(0, 2576980377600);
    EXPECT_TRUE(log.has("DateTimeExt::DiffPts pts2 out of range: 2576980377600", QtWarningMsg));
    DateTimeExt::DiffPts(std::numeric_limits<qint64>::min(), std::numeric_limits<qint64>::max());
}

TEST(ClockTicker, TicksForHoursWithoutDrift)
{
    const VirtualTime time;
    constexpr std::size_t kTicks = 6 * 3600 * 25; // six hours
    Ticker ticker([](std::size_t n) {
        seams::clockOffsetMs += n % 3 == 0 ? 7 : 0; // work of uneven length
        return n < kTicks;
    });
    ticker.start(40);
    ASSERT_TRUE(ticker.ends());
    ASSERT_EQ(ticker.scheduled.size(), kTicks);
    std::size_t skipped = 0; // a stall of this machine may cost a tick, and never the rhythm
    for (std::size_t i = 1; i < kTicks; ++i) {
        ASSERT_EQ(ticker.step(i) % 40, 0U) << "tick " << i << " is off the grid";
        skipped += ticker.step(i) > 40 ? 1 : 0;
    }
    EXPECT_LT(skipped, kTicks / 100);
}

TEST(ClockTicker, SkipsMissedTicksAndTakesAJumpForANewStart)
{
    const VirtualTime time;
    LogCapture log;
    Ticker ticker([](std::size_t n) {
        if (n == 3)
            seams::clockOffsetMs += 130; // held up
        if (n == 6)
            seams::clockOffsetMs -= 1000; // the clock jumps back: the next boundary is far ahead
        return n < 9;
    });
    ticker.start(40);
    ASSERT_TRUE(ticker.ends());
    ASSERT_EQ(ticker.scheduled.size(), 9U);
    EXPECT_EQ(ticker.step(2), 40U);
    EXPECT_EQ(ticker.step(3), 160U) << "three boundaries are skipped, none is delivered late";
    EXPECT_EQ(ticker.step(4), 40U);
    EXPECT_TRUE(log.has("ClockTickerThread::run(): unexpected time measure sleep = ", QtWarningMsg));
    EXPECT_NEAR(static_cast<qint32>(ticker.step(6)), -1000 + 40, 3) << "afresh, one interval from the jump";
    EXPECT_EQ(ticker.step(7), 40U);
}

TEST(ClockTicker, StartsAgainAndSaysWhenItCannot)
{
    int ticks = 0;
    Ticker ticker([&](std::size_t) {
        if (++ticks == 2)
            ticker.start(1); // refused
        return true;
    });
    LogCapture log;
    ticker.setStackSize(1); // too small: the system starts no such thread
    ticker.start(1);
    EXPECT_FALSE(ticker.isRunning());
    EXPECT_TRUE(log.has("ClockTickerThread::start(): no thread can be had", QtCriticalMsg));
    ticker.setStackSize(0);
    ticker.start(0);
    while (!log.has("called from inside onTick()")) { }
    ticker.start(5);
    EXPECT_EQ(ticker.getTickIntervalMSec(), 5U);
    EXPECT_TRUE(ticker.isRunning());
    ticker.stop();
    EXPECT_FALSE(ticker.isRunning());
    ticker.settled();
    const std::size_t count = ticker.scheduled.size();
    ticker.stop(); // once more, harmless
    EXPECT_EQ(ticker.scheduled.size(), count);
}
