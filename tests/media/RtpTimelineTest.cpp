#include "support/Table.h"

#include <KepNuvikaUtil/RtpTimeline.h>

#include <gtest/gtest.h>
#include <random>
#include <vector>

namespace
{
constexpr qint64 kMs = 1000;
constexpr qint64 kSecond = 1000 * kMs;
constexpr qint64 kHour = 3600 * kSecond;
constexpr qint64 kWall = 1800000000 * kSecond; // ours, when the monotonic clock is 0
constexpr qint64 kStart = 77 * kSecond; // of the first unit

RtpArrival at(qint64 us) { return {kStart + us, kWall + kStart + us}; }
NTPTimestamp ntp(qint64 us) // of a camera's clock: \a us after the first unit, if it goes right
{
    return NTPTimestamp::fromMicroseconds(static_cast<quint64>(2208988800 * kSecond + kWall + kStart + us));
}

// A session of two tracks, video of 90 kHz and audio of 8 kHz, and what its times did.
struct Session {
    RtpTimeline line;
    int video = line.addTrack(90000);
    int audio = line.addTrack(8000);
    RtpTime last[2];
    int nRuns = 0; // beyond the first of each track
    bool bStarted[2] = {false, false};

    RtpTime stamp(int track, quint32 timestamp, qint64 us)
    {
        const RtpTime time = line.stamp(track, timestamp, at(us));
        EXPECT_GE(time.presentationUs, last[track].presentationUs) << us;
        EXPECT_GE(time.timestamp, last[track].timestamp - 90000) << us;
        EXPECT_EQ(static_cast<quint32>(time.timestamp), timestamp);
        if (!time.bNewRun) {
            EXPECT_GE(time.wallUs, last[track].wallUs) << us;
        }
        nRuns += time.bNewRun && bStarted[track] ? 1 : 0;
        bStarted[track] = true;
        return last[track] = time;
    }
    // Pictures, and sound if it is wanted, at 25 a second.
    void play(int from, int to, bool bSound = false)
    {
        for (int i = from; i < to; ++i) {
            stamp(0, 3600U * static_cast<quint32>(i), i * 40 * kMs);
            if (bSound)
                stamp(1, 320U * static_cast<quint32>(i), i * 40 * kMs);
        }
    }
    bool report(int track, quint32 timestamp, qint64 us, qint64 clockErrorUs = 0)
    {
        return line.senderReport(track, 1, ntp(us + clockErrorUs), timestamp, at(us));
    }
};
constexpr qint64 wallAt(qint64 us) { return kWall + kStart + us; }
} // namespace

TEST(RtpTimeline, PlacesUnitsByTheirTimestamps)
{
    // Units: timestamp, ms of the arrival, ms shown; an N ends those that begin a new run.
    for (const auto& row : rowsOf(R"(
arrival jitter does not count; 0 0 0 N; 3600 90 40; 7200 95 80
a wrap; 4294963200 0 0 N; 4904 100 100
pictures out of their order do not go back; 9000 0 0 N; 27000 40 200; 18000 80 200; 36000 120 300
a clock that starts anew goes on where it arrives; 900000 0 0 N; 903600 40 40; 0 80 80 N; 3600 120 120
that, while the line is before the arrivals; 900000 0 0 N; 903600 100 40; 0 140 80 N; 3600 180 120
while the line is far before them; 900000 0 0 N; 903600 300 40; 0 340 340 N
three seconds back; 900000 0 0 N; 903600 40 40; 633600 80 80 N
a jump ahead that time does not explain; 0 0 0 N; 5400000 40 40 N
a minute of silence; 0 0 0 N; 5400000 60000 60000
a minute's stall of the connection, then all at once; 0 0 0 N; 3600 60000 40; 7200 60000 80; 10800 60001 120
a day of silence; 5 0 0 N; 3481032709 86400000 86400000)")) {
        Session session;
        for (const QByteArray& unit : row.mid(1)) {
            const QList<QByteArray> each = unit.split(' ');
            const RtpTime time = session.stamp(session.video, each[0].toUInt(), each[1].toLongLong() * kMs);
            EXPECT_EQ(time.presentationUs, each[2].toLongLong() * kMs)
                << row[0].constData() << ", " << unit.constData();
            EXPECT_EQ(time.bNewRun, each.size() == 4) << row[0].constData() << ", " << unit.constData();
        }
        EXPECT_EQ(session.stamp(session.audio, 5, kHour * 48).presentationUs, kHour * 48) << "by arrival";
    }
    Session session;
    EXPECT_EQ(session.line.stamp(2, 1, at(0)).wallUs + session.line.stamp(-1, 1, at(0)).wallUs, 0);
    EXPECT_FALSE(session.report(2, 1, 0));
    session.stamp(0, 1000, 0);
    session.line.setSource(0, 1);
    EXPECT_FALSE(session.stamp(0, 4600, 40 * kMs).bNewRun);
    session.line.setSource(0, 2);
    EXPECT_TRUE(session.stamp(0, 8200, 80 * kMs).bNewRun) << "another source";
    session.line.restart(0);
    EXPECT_TRUE(session.stamp(0, 11800, 120 * kMs).bNewRun);
}

TEST(RtpTimeline, SenderReportsGiveTheWallClockWhereTheyMakeSense)
{
    struct Row {
        const char* situation;
        qint64 clockErrorUs;
        bool bBySender;
        qint64 wallErrorUs; // afterwards
    };
    for (const Row& row : {Row{"right but for a network's delay", -80 * kMs, true, -80 * kMs},
             Row{"four seconds off", 4 * kSecond, true, 4 * kSecond},
             Row{"six seconds off", -6 * kSecond, false, 0}, Row{"a day off", 24 * kHour, false, 0}}) {
        Session session;
        EXPECT_EQ(session.stamp(0, 0, 0).wallUs, wallAt(0)) << "by arrival before the first";
        ASSERT_TRUE(session.report(0, 0, 0, row.clockErrorUs)) << row.situation;
        session.play(1, 3000);
        const RtpTime& time = session.last[0];
        EXPECT_EQ(time.bWallBySender, row.bBySender) << row.situation;
        EXPECT_NEAR(time.wallUs, wallAt(2999 * 40 * kMs) + row.wallErrorUs, 1100) << row.situation;
        EXPECT_EQ(time.presentationUs, 2999 * 40 * kMs) << row.situation;
        EXPECT_EQ(session.nRuns, qAbs(row.clockErrorUs) == 4 * kSecond ? 1 : 0) << row.situation;
    }
    Session session;
    session.line.setSource(0, 1);
    session.stamp(0, 100, 0);
    EXPECT_FALSE(session.line.senderReport(0, 1, NTPTimestamp(), 100, at(0))) << "no wall clock";
    EXPECT_FALSE(session.line.senderReport(0, 2, ntp(0), 100, at(0))) << "another source";
    EXPECT_FALSE(session.report(0, 0x70000000, 0)) << "another media clock";
    EXPECT_FALSE(session.stamp(0, 3700, 40 * kMs).bWallBySender);
    Session early; // the report comes before any unit, as ffmpeg sends it
    EXPECT_TRUE(early.report(0, 0xFFFFFF00, -20 * kMs));
    const RtpTime first = early.stamp(0, 0xFFFFFF00 + 1800, 0);
    EXPECT_TRUE(first.bWallBySender);
    EXPECT_EQ(first.wallUs, wallAt(0));
}

TEST(RtpTimeline, TheCamerasWallClockGoesOnWhereItsMediaClockBeginsAnew)
{
    for (const qint64 clockErrorUs : {-80 * kMs, 3 * kSecond}) {
        Session session;
        session.stamp(0, 0, 0);
        session.report(0, 0, 0, clockErrorUs);
        session.play(1, 3000);
        const int nRuns = session.nRuns; // until the first report our clock told
        constexpr quint32 kAnew = 0x40000000;
        for (int i = 3000; i < 3100; ++i) {
            const quint32 timestamp = kAnew + 3600U * static_cast<quint32>(i);
            session.stamp(0, timestamp, i * 40 * kMs);
            EXPECT_NEAR(session.last[0].wallUs, wallAt(i * 40 * kMs) + clockErrorUs, 1100) << i;
            EXPECT_TRUE(session.last[0].bWallBySender) << i;
            if (i == 3050)
                session.report(0, timestamp, i * 40 * kMs, clockErrorUs);
        }
        EXPECT_EQ(session.nRuns, nRuns + 1);
    }
}

TEST(RtpTimeline, ACameraThatSetsItsClockMakesANewRunOnAllTracks)
{
    for (const qint64 stepUs : {3 * kHour, -3 * kHour, 3 * kSecond, -3 * kSecond}) {
        Session session;
        session.line.setClockBound(24 * kHour);
        session.play(0, 2, true);
        session.report(0, 3600, 40 * kMs);
        session.report(1, 320, 40 * kMs);
        session.play(2, 100, true);
        EXPECT_EQ(session.nRuns, 0);
        session.report(0, 3600 * 99, 99 * 40 * kMs, stepUs);
        session.play(100, 110, true);
        EXPECT_EQ(session.nRuns, 2) << "one on each track, though one has reported only: " << stepUs;
        session.report(1, 320 * 109, 109 * 40 * kMs, stepUs);
        session.play(110, 200, true);
        EXPECT_EQ(session.nRuns, 2) << stepUs;
        for (const RtpTime& time : session.last) {
            EXPECT_NEAR(time.wallUs, wallAt(199 * 40 * kMs) + stepUs, 100) << "its clock";
            EXPECT_EQ(time.presentationUs, 199 * 40 * kMs) << "the line goes on";
        }
    }
    Session session; // steps below the bound are made up without one
    session.play(0, 1);
    session.report(0, 0, 0);
    session.play(1, 51);
    session.report(0, 3600 * 50, 50 * 40 * kMs, -1500 * kMs);
    session.play(51, 101);
    // One that was under way for 800 ms is no step.
    session.line.senderReport(0, 1, ntp(80 * 40 * kMs - 1500 * kMs), 3600 * 80, at(100 * 40 * kMs));
    session.play(101, 2500);
    EXPECT_EQ(session.nRuns, 0);
    EXPECT_NEAR(session.last[0].wallUs, wallAt(2499 * 40 * kMs) - 1500 * kMs, 1100);
    EXPECT_EQ(session.last[0].presentationUs, 2499 * 40 * kMs);
}

TEST(RtpTimeline, ReportsBringSoundToItsPicture)
{
    Session session; // sound arrives 300 ms behind its picture
    for (int i = 0; i < 6000; ++i) {
        const qint64 us = i * 40 * kMs;
        const auto n = static_cast<quint32>(
            i < 3000 ? i : 500 * 1000 + i); // at 3000 the camera starts anew, its clock at 0
        const qint64 clockUs = i < 3000 ? us : us - 20 * 365 * 24 * kHour;
        session.stamp(0, 3600 * n, us);
        session.stamp(1, 320 * n, us + 300 * kMs);
        if (i == 0 || i == 3000) {
            EXPECT_EQ(session.last[1].presentationUs, us + 300 * kMs) << "by arrival";
        }
        if (i % 125 == 1) {
            session.line.senderReport(0, 1, ntp(clockUs), 3600 * n, at(us));
            session.line.senderReport(1, 1, ntp(clockUs), 320 * n, at(us + 300 * kMs));
        }
        if (i % 3000 == 2999) {
            EXPECT_NEAR(session.last[1].presentationUs, session.last[0].presentationUs, 6 * kMs) << i;
            EXPECT_NEAR(session.last[1].wallUs, session.last[0].wallUs, 7 * kMs) << i;
        }
    }
    EXPECT_EQ(session.nRuns, 2) << "the start anew, on each track";
}

TEST(RtpTimeline, AMediaClockThatStoodStillIsCaughtUpByANewRun)
{
    Session session;
    session.stamp(0, 0, 0);
    for (int i = 1; i < 1000; ++i) // a pause of a minute that nobody told
        session.stamp(0, 3600U * static_cast<quint32>(i), 60 * kSecond + i * 40 * kMs);
    EXPECT_EQ(session.nRuns, 1);
    EXPECT_NEAR(session.last[0].presentationUs, 60 * kSecond + 999 * 40 * kMs, 100 * kMs);
}

// Hours of a camera whose media clock is too fast or slow, through a network that delays.
TEST(RtpTimeline, FollowsAClockThatDrifts)
{
    struct Row {
        const char* situation;
        double pace; // of the media clock
        bool bReports;
        qint64 nearUs;
    };
    for (const Row& row :
        {Row{"50 ppm slow", 0.99995, false, 120 * kMs}, Row{"200 ppm fast", 1.0002, false, 120 * kMs},
            Row{"50 ppm fast with reports of a clock as fast", 1.00005, true, 120 * kMs},
            Row{"stamps 25 and sends 21", 0.84, false, 3500 * kMs}}) {
        std::mt19937 random(4);
        Session session;
        qint64 shown = 0;
        qint64 longest = 0;
        constexpr int kUnits = 4 * 3600 * 5; // four hours of five a second
        for (int i = 0; i < kUnits; ++i) {
            const qint64 us = i * 200 * kMs;
            const auto timestamp = static_cast<quint32>(static_cast<qint64>(us * 0.09 * row.pace));
            const RtpTime time
                = session.stamp(0, timestamp, us + random() % 60 * kMs + (i % 1000 == 5 ? 3 * kSecond : 0));
            longest = std::max(longest, time.presentationUs - shown);
            shown = time.presentationUs;
            if (row.bReports && i % 25 == 0)
                session.report(0, timestamp, us, row.pace > 1 ? static_cast<qint64>(us * (row.pace - 1)) : 0);
            ASSERT_NEAR(shown, us, row.nearUs) << row.situation << ", unit " << i;
        }
        EXPECT_EQ(session.nRuns, 0) << row.situation;
        EXPECT_LE(longest, 250 * kMs) << row.situation << ": without a gap";
    }
}
