#include "support/LogCapture.h"

#include <KepNuvikaUtil/NTPRange.h>
#include <KepNuvikaUtil/NTPTimestamp.h>

#include <QtCore/QDataStream>
#include <QtCore/QVariant>
#include <QtCore/QtEndian>

#include <cmath>
#include <gtest/gtest.h>
#include <limits>

namespace
{
NTPTimestamp raw(quint64 value) { return NTPTimestamp::fromRawHostByteOrder(value); }
NTPTimestamp seconds(quint64 n) { return raw(n << 32); }
NTPRange range(quint64 begin, quint64 end) { return NTPRange(seconds(begin), seconds(end)); }
using Ranges = std::list<NTPRange>;

Ranges combined(Ranges ranges)
{
    combineRanges(&ranges);
    return ranges;
}
} // namespace

TEST(NTPTimestamp, IsReadInTheEraNearestToAKnownTime)
{
    const auto at
        = [](const char* text) { return QDateTime::fromString(QLatin1String(text), Qt::ISODateWithMs); };
    for (const char* text : {"1901-01-01T00:00:00.000Z", "2026-11-22T12:00:00.250Z",
             "2036-02-07T06:28:15.999Z", "2036-02-07T06:28:16.000Z", "2040-02-29T23:59:59.001Z",
             "2172-03-15T12:56:32.000Z", "2300-01-01T00:00:00.000Z"}) {
        const QDateTime time = at(text);
        const NTPTimestamp ntp = NTPTimestamp::fromDateTime(time);
        for (const int years : {-60, -1, 0, 1, 60})
            EXPECT_EQ(ntp.toDateTime(time.addYears(years)), time)
                << text << " from " << years << " years away";
    }
    EXPECT_EQ(NTPTimestamp::fromDateTime(at("2040-01-01T00:00:00Z")).toDateTime(), at("1903-11-25T17:31:44Z"))
        << "without a known time it is one of the first era";
}

TEST(NtpTimestamp, TruncatesInAndRoundsOut)
{
    for (const quint64 ms : {0ULL, 1ULL, 999ULL, 1001ULL, 3913056000123ULL})
        EXPECT_EQ(NTPTimestamp::fromMilliseconds(ms).toMilliseconds(), ms);
    for (quint64 us = 2208988800000000; us < 2208988800001000; ++us)
        EXPECT_EQ(NTPTimestamp::fromMicroseconds(us).toMicroSeconds(), us);
    const quint64 second = quint64(1) << 32;
    EXPECT_EQ(NTPTimestamp::fromMilliseconds(1500), raw(second + second / 2));
    EXPECT_EQ(NTPTimestamp::fromMilliseconds(1), raw(second / 1000));
    EXPECT_EQ(raw(0xFFFFFFFF).toMilliseconds(), 1000U) << "rounded up across the second";
    EXPECT_EQ(NTPTimestamp::fromMilliseconds(second * 1000 + 5).toMilliseconds(), 5U)
        << "seconds keep 32 bits";
    EXPECT_EQ(NTPTimestamp::fromDivision(90001, 90000), raw(second + second / 90000));
    EXPECT_EQ(NTPTimestamp::fromDivision(1, 3), raw(0x55555555));
    // The remainder's low 32 bits count, whatever the denominator.
    EXPECT_EQ(NTPTimestamp::fromDivision(second, 2 * second), raw(0));
    EXPECT_EQ(NTPTimestamp::fromDivision(0xFFFFFFFF, second), raw(0xFFFFFFFF));
    EXPECT_EQ(raw(1) - raw(2), raw(~quint64(0)));
    EXPECT_EQ(raw(~quint64(0)) + raw(2), raw(1));
    EXPECT_TRUE(seconds(1) < seconds(0x80000000)) << "unsigned";
}

TEST(NtpTimestamp, ConvertsUnixTimeAndDates)
{
    EXPECT_EQ(NTPTimestamp::fromUnixTime(0.0).toHostByteOrder(), quint64(2208988800) << 32);
    EXPECT_EQ(NTPTimestamp::fromUnixTime(0.0).toUnixTime(), 0.0);
    EXPECT_EQ(seconds(5).toUnixTime(), 0.0) << "nothing before 1970";
    EXPECT_DOUBLE_EQ(NTPTimestamp::fromUnixTime(1700000000.25).toUnixTime(), 1700000000.25);
    EXPECT_EQ(NTPTimestamp::fromUnixTime(0.0000005).toMicroSeconds(), 2208988800000001U)
        << "half away from zero";
    EXPECT_EQ(NTPTimestamp::fromUnixTime(-0.0000005).toMicroSeconds(), 2208988799999999U);
    for (const double odd : {1e300, -1e300, std::nan(""), std::numeric_limits<double>::infinity()})
        NTPTimestamp::fromUnixTime(odd); // meaningless, but defined
    const QDateTime date(QDate(2026, 11, 21), QTime(1, 2, 3, 456), Qt::UTC);
    EXPECT_EQ(NTPTimestamp::fromDateTime(date).toDateTime(), date);
    EXPECT_EQ(NTPTimestamp::fromDateTime(date.toOffsetFromUtc(7200)).toString(false),
        QStringLiteral("2026-11-21T01:02:03.456"));
    EXPECT_EQ(NTPTimestamp().toString(false), QStringLiteral("1900-01-01T00:00:00.000"));
    EXPECT_EQ(NTPTimestamp::fromDateTime(date).toString(true),
        date.toLocalTime().toString(QStringLiteral("yyyy-MM-ddThh:mm:ss.zzz")));
}

TEST(NtpTimestamp, ReadsAndWritesHexAndStreams)
{
    const NTPTimestamp t = raw(0x123456789ABCDEF0);
    char text[18] = "................."; // 17 dots
    t.toHex(text);
    EXPECT_STREQ(text, "123456789ABCDEF0.") << "16 characters and no terminator";
    const auto hex = [](const char* s) {
        return NTPTimestamp::fromHex(reinterpret_cast<const unsigned char*>(s)).toHostByteOrder();
    };
    for (const auto& row :
        std::initializer_list<std::pair<const char*, quint64>>{{"123456789ABCDEF0", t.toHostByteOrder()},
            {"000000000000000a", 97 - 55}, {"0000000000000010", 16}, // lower case is not recognised
            {"000000000000000 ", static_cast<quint64>(32 - 55)}}) // signed, modulo 2^64
        EXPECT_EQ(hex(row.first), row.second) << row.first;
    QByteArray bytes;
    QDataStream writer(&bytes, QIODevice::WriteOnly);
    writer << t;
    EXPECT_EQ(bytes.toHex(), QByteArray("123456789abcdef0"));
    NTPTimestamp back;
    QDataStream reader(bytes);
    reader >> back;
    EXPECT_EQ(back, t);
    EXPECT_EQ(NTPTimestamp::fromRawNetByteOrder(t.toNetByteOrder()), t);
    EXPECT_EQ(t.toNetByteOrder(), qFromUnaligned<quint64>(bytes.constData()));
    EXPECT_NE(QMetaType::type("NTPTimestamp"), 0);
    EXPECT_EQ(QVariant::fromValue(t).value<NTPTimestamp>(), t);
}

TEST(NtpRange, TellsWhereItsBoundsAre)
{
    const NTPRange r = range(5, 10);
    EXPECT_FALSE(r.inRange(seconds(10)));
    EXPECT_TRUE(r.inRange(seconds(5)));
    EXPECT_TRUE(r.intersects(range(10, 20))) << "touching counts";
    EXPECT_TRUE(r.intersects(range(0, 5)));
    EXPECT_FALSE(r.intersects(range(0, 4)));
    EXPECT_FALSE(r.intersects(range(11, 12)));
    EXPECT_TRUE(r.intersects(range(11, 9))) << "raw values: an end inside is enough";
    EXPECT_TRUE(range(0, 4) < r && !(range(0, 5) < r));
    EXPECT_TRUE(range(11, 12) > r && !(range(10, 12) > r));
    const auto limited = [](NTPTimestamp t, const NTPRange& bounds) {
        bounds.limitToRangeBounds(&t);
        return t;
    };
    EXPECT_EQ(limited(seconds(12), r), seconds(10) - raw(1));
    EXPECT_EQ(limited(seconds(3), r), seconds(5));
    EXPECT_EQ(limited(seconds(7), r), seconds(7));
    EXPECT_EQ(limited(seconds(1), range(7, 7)), seconds(7));
    EXPECT_EQ(limited(seconds(1), range(7, 0)), seconds(7)) << "an end of 0 has nothing below";
    NTPRange hull = range(5, 10);
    hull.merge(range(20, 30));
    EXPECT_EQ(hull, range(5, 30));
}

TEST(NtpRange, CombinesSpansAndFindsTheirGaps)
{
    const struct {
        Ranges given;
        Ranges combined;
    } rows[] = {
        {{range(8, 20), range(0, 10), range(30, 30)}, {range(0, 20)}},
        {{range(0, 10), range(10, 20)}, {range(0, 20)}}, // touching spans are one
        {{range(0, 30), range(5, 10)}, {range(0, 30)}}, {{range(3, 3), range(3, 3)}, {}}, {{}, {}},
        {{range(0, 10), range(5, 5), range(8, 20)},
            {range(0, 10), range(8, 20)}}, // an empty span keeps them apart
    };
    for (const auto& row : rows)
        EXPECT_EQ(combined(row.given), row.combined) << row.given.size();
    Ranges gaps{range(1, 2)};
    {
        LogCapture log;
        gapsFromCombinedRanges({range(0, 10), range(8, 20)}, &gaps);
        EXPECT_TRUE(gaps.empty());
        EXPECT_TRUE(
            log.has("ASSERT: \"posFirst->end() < posSecond->begin()\" in file NTPRange.cpp", QtCriticalMsg));
    }
    gapsFromCombinedRanges({range(0, 10), range(20, 30), range(40, 50)}, &gaps);
    EXPECT_EQ(gaps, Ranges({range(10, 20), range(30, 40)}));
    gapsFromCombinedRanges({range(0, 10)}, &gaps);
    EXPECT_TRUE(gaps.empty());
    Ranges many;
    for (quint64 i = 0; i < 100000; ++i)
        many.push_back(range(i * 7919 % 100000 * 10, i * 7919 % 100000 * 10 + 5));
    gapsFromCombinedRanges(combined(many), &gaps);
    EXPECT_EQ(gaps.size(), 99999U);
    EXPECT_EQ(gaps.back(), range(999985, 999990));
}
