#include "support/CpuTime.h"
#include "support/LogCapture.h"
#include "support/Seams.h"

#include "media/SDPCache_p.h"

#include <KepNuvikaUtil/SDP.h>

#include <gtest/gtest.h>
#include <malloc.h>
#include <thread>

namespace
{
QString q(const char* text) { return QString::fromUtf8(text); }

QString lines(std::initializer_list<const char*> parts)
{
    QString text;
    for (const char* part : parts)
        text += QLatin1String(part) + QLatin1String("\r\n");
    return text;
}

const QString kSmall = lines(
    {"v=0", "o=- 1 1 IN IP4 0.0.0.0", "s=x", "t=0 0", "m=video 0 RTP/AVP 96", "a=rtpmap:96 H264/90000"});

// What remains of these lines, parted by blanks, behind the session's "v o s" or a medium's line.
QString kept(const char* parts, const QString& head = lines({"v=0", "o=-", "s=x"}))
{
    const QString text = head + QString::fromLatin1(parts).replace(QLatin1Char(' '), QLatin1Char('\n'));
    return SDP::fromSDPString(text).toString().mid(head.size()).simplified();
}

const QString a = q("a");
} // namespace

TEST(Sdp, ParsesAndWritesBack)
{
    SDP sdp = SDP::fromSDPString(kSmall);
    EXPECT_EQ(sdp.getSessionParamNames(), QStringList({q("v"), q("o"), q("s")}));
    EXPECT_EQ(sdp.getMediaParamNames(0), QStringList({q("m"), a}));
    EXPECT_EQ(sdp.toString(), kSmall);
    EXPECT_EQ(sdp, SDP::fromSDPString(kSmall)) << "from the cache";
    EXPECT_EQ(sdp.getMediaAttributeValue(0, q("rtpmap")), q("96 H264/90000"));
    EXPECT_EQ(sdp.getTimeParamValues(0, q("t")), QStringList(q("0 0")));
    for (const int idx : {-1, 1, 5}) {
        EXPECT_TRUE(sdp.getMediaAttributeNames(idx).isEmpty());
        EXPECT_TRUE(sdp.getMediaParamValues(idx, a).isEmpty());
        EXPECT_TRUE(sdp.getTimeParamValues(idx, a).isEmpty());
        EXPECT_EQ(sdp.getMediaAttributeValue(idx, a), QString());
    }
    EXPECT_NE(sdp, SDP()) << "an object that was never parsed is not valid";
    EXPECT_EQ(SDP::fromSDPString(QString()).toString(), QString());
    // Line ends of any kind, none at the end, and lines that are none.
    EXPECT_EQ(SDP::fromSDPString(q("v=0\n\r\no=-\r\r\ns=\nnonsense\n=x\nQ=1\nv")).toString(),
        lines({"v=0", "o=-", "s="}));
}

TEST(Sdp, SortsEachSectionThenDropsWhatBreaksItsOrder)
{
    EXPECT_EQ(SDP::fromSDPString(lines({"s=x", "o=-", "v=0"})).toString(), lines({"v=0", "o=-", "s=x"}));
    EXPECT_EQ(SDP::fromSDPString(kSmall.mid(5)).toString(), kSmall.mid(kSmall.indexOf(QLatin1Char('m'))))
        << "without v= no session line stays, and media stay";
    EXPECT_EQ(SDP::fromSDPString(lines({"a=control:*"}) + kSmall).getNumTimeDesc(), 0)
        << "sorted behind a=, times break the order";
    const struct {
        const char* session;
        const char* kept;
    } rows[] = {{"t=1 r=2 t=3", "t=1 t=3 r=2"}, {"r=1", ""}, // times sort before repeats; a repeat of nothing
        {"z=1 t=1", "z=1"}, {"i=1 u=2 e=3 p=4 c=5 b=6 t=7", "i=1 u=2 e=3 c=5 p=4 b=6 t=7"},
        {"b=1 b=2 k=3 a=4 a=5", "b=1 b=2 k=3 a=4 a=5"}, {"i=1 i=1", "i=1"}, {"u=1 u=1", "u=1"},
        {"e=1 e=1", "e=1"}, {"p=1 p=1", "p=1"}, {"c=1 c=1", "c=1"}, {"z=1 z=1", "z=1"}, {"k=1 k=1", "k=1"}};
    for (const auto& row : rows)
        EXPECT_EQ(kept(row.session), QLatin1String(row.kept)) << row.session;
    const QString media = lines({"m=x"});
    EXPECT_EQ(kept("i=1 c=2 b=3 a=4 a=5", media), q("i=1 c=2 b=3 a=4 a=5"));
    EXPECT_EQ(kept("k=3 b=1 b=2", media), q("b=1 b=2 k=3"));
    EXPECT_EQ(kept("i=1 i=2 c=1 c=2 k=1 k=2", media), q("i=1 c=1 k=1"));
    EXPECT_EQ(kept("t=0 v=0 s=x e=1", media), QString());
    const SDP two = SDP::fromSDPString(lines({"m=video", "c=1", "a=first", "m=audio", "a=second", "c=2"}));
    EXPECT_EQ(two.getNumMediaDesc(), 2);
    EXPECT_EQ(two.getMediaAttributeNames(0), QStringList(q("first")));
    EXPECT_EQ(two.getMediaParamNames(1), QStringList({q("m"), q("c"), a}));
}

TEST(Sdp, EditsLinesAndAttributes)
{
    LogCapture log;
    SDP sdp = SDP::fromSDPString(kSmall);
    const QString control = q("control");
    for (const char* value : {"%1/track", "2"}) {
        EXPECT_TRUE(sdp.setMediaAttribute(0, control, QLatin1String(value)));
        EXPECT_EQ(sdp.getMediaAttributeValue(0, control), QLatin1String(value));
    }
    EXPECT_EQ(sdp.getMediaAttributeNames(0), QStringList({q("rtpmap"), control}));
    EXPECT_TRUE(sdp.replaceMediaAttribute(0, control, q("3")));
    EXPECT_FALSE(sdp.replaceMediaAttribute(0, q("absent"), q("4")));
    EXPECT_FALSE(sdp.replaceMediaAttribute(1, control, q("4")));
    EXPECT_EQ(sdp.getMediaAttributeValue(0, control), q("3"));
    EXPECT_TRUE(sdp.setSessionParam(q("t"), QString(), q("9 9")));
    EXPECT_EQ(sdp.getNumTimeDesc(), 1) << "appended as it is, not as a time description";
    EXPECT_TRUE(sdp.setSessionParam(q("s"), q("x"), q("y")));
    EXPECT_TRUE(sdp.setTimeParam(0, q("r"), QString(), q("1d")));
    EXPECT_EQ(sdp.getTimeParamValues(0, q("r")), QStringList(q("1d")));
    EXPECT_TRUE(sdp.setSessionParam(a, QString(), q("tool")));
    EXPECT_TRUE(sdp.setSessionParam(a, QString(), q("range:npt=0-:x")));
    EXPECT_EQ(sdp.getSessionAttributeNames(), QStringList({q("tool"), q("range")}));
    EXPECT_EQ(sdp.getSessionAttributeValue(q("range")), q("npt=0-:x"));
    EXPECT_EQ(sdp.getSessionAttributeValue(q("tool")), QString());
    EXPECT_TRUE(sdp.removeSessionParam(a, q("tool")));
    EXPECT_TRUE(sdp.removeTimeParam(0, q("t"), q("0 0")));
    EXPECT_TRUE(sdp.removeTimeParam(0, q("r"), q("1d")));
    EXPECT_EQ(sdp.getNumTimeDesc(), 1) << "a description may be empty";
    EXPECT_TRUE(sdp.removeTimeDesc(0));
    EXPECT_TRUE(log.records().empty());
    EXPECT_EQ(SDP::fromSDPString(kSmall).toString(), kSmall) << "the cached description is untouched";
}

TEST(Sdp, RefusesWhatWouldEndALine)
{
    SDP sdp = SDP::fromSDPString(kSmall);
    const QString before = sdp.toString();
    const QString x = q("x");
    for (const QString& end : {q("\r\n"), q("\r"), q("\n"), QString(QChar(0))}) {
        const QString bad = q("1") + end + q("m=audio 0 RTP/AVP 0");
        LogCapture log;
        EXPECT_FALSE(sdp.setSessionParam(a, QString(), bad));
        EXPECT_FALSE(sdp.setSessionParam(a + end, QString(), x));
        EXPECT_FALSE(sdp.setSessionParam(q("s"), x, bad));
        EXPECT_FALSE(sdp.setTimeParam(0, q("r"), QString(), bad));
        EXPECT_FALSE(sdp.setMediaParam(0, a, QString(), bad));
        EXPECT_FALSE(sdp.setMediaAttribute(0, a, bad));
        EXPECT_FALSE(sdp.setMediaAttribute(0, a + end, x));
        EXPECT_FALSE(sdp.replaceMediaAttribute(0, q("rtpmap"), bad));
        EXPECT_EQ(log.count("Param could not be changed because it holds a CR, LF or NUL", QtWarningMsg), 8);
    }
    EXPECT_EQ(sdp.toString(), before);
}

TEST(Sdp, TheCacheKeepsItsBoundInBytes)
{
    const auto inUse = [] { return qint64(mallinfo2().uordblks + mallinfo2().hblkhd); }; // 0 to a sanitizer
    const qint64 before = inUse();
    QString text = lines({"v=0", "o=-", "s=x"});
    for (int i = 0; i < 2000; ++i)
        text += q("a=line %1\n").arg(i);
    for (int i = 0; i < 1000; ++i) // some 300 KB each
        SDP::fromSDPString(text + q("a=%1\n").arg(i));
    EXPECT_LT(inUse() - before, 100 << 20);
    const QString huge = text + QString(40 << 20, QLatin1Char('x'));
    EXPECT_EQ(SDP::fromSDPString(huge).getSessionParamValues(a).size(), 2000);
    EXPECT_LT(inUse() - before - 2 * qint64(huge.capacity()), 100 << 20) << "too large to be kept";
    EXPECT_EQ(SDP::fromSDPString(kSmall).toString(), kSmall);
}

TEST(Sdp, SaysWhatItCouldNotChange)
{
    LogCapture log;
    SDP sdp = SDP::fromSDPString(kSmall);
    const QString x = q("x");
    EXPECT_FALSE(sdp.setSessionParam(a, x, x));
    EXPECT_FALSE(sdp.setTimeParam(0, a, x, x) || sdp.setMediaParam(0, a, x, x));
    EXPECT_FALSE(
        sdp.removeSessionParam(a, x) || sdp.removeTimeParam(0, a, x) || sdp.removeMediaParam(0, a, x));
    EXPECT_FALSE(sdp.removeMediaDesc(1) || sdp.removeTimeDesc(-1));
    for (const char* told : {"changeSessionParam() : Param could not be changed because it was not "
                             "found!\nname=a \noldValue=x \nnewVal=x",
             "removeSessionParam() : Param could not be deleted because it was not found!\nname=a\n value=x",
             "removeMedia() : Could not remove media desc! Invalid idx: 1! Number of media desc: 1",
             "removeMedia() : Could not remove time desc! Invalid idx: -1! Number of time desc: 1"})
        EXPECT_TRUE(log.has((std::string("SDP::") + told).c_str(), QtWarningMsg)) << told;
    EXPECT_EQ(log.records().size(), 8U);
    EXPECT_FALSE(sdp.setMediaParam(1, a, QString(), x) || sdp.setTimeParam(-1, a, x, x)
        || sdp.removeTimeParam(1, a, x));
    EXPECT_FALSE(sdp.removeMediaParam(1, a, x) || sdp.setMediaAttribute(1, a, x));
    EXPECT_EQ(log.records().size(), 8U) << "an index out of range is silent";
}

TEST(Sdp, ParsesALargeDescriptionInLinearTime)
{
    const auto measure = [&](int count) {
        QString text = lines({"v=0", "o=-", "s=x"});
        for (int i = 0; i < count; ++i)
            text += (i % 10 == 0 ? q("m=video %1\n") : q("a=fmtp:%1 x=1\n")).arg(i);
        const qint64 begin = cpuTimeNs();
        EXPECT_EQ(SDP::fromSDPString(text).getNumMediaDesc(), count / 10);
        return cpuTimeNs() - begin;
    };
    measure(1000);
    const qint64 small = measure(10010);
    const qint64 large = measure(100100);
    EXPECT_LT(large, 60 * small) << "ten times the lines";
    const QString oneLine = q("v=0\no=-\ns=") + QString(1 << 20, QLatin1Char('x'));
    EXPECT_EQ(SDP::fromSDPString(oneLine).getSessionParamValues(q("s")).first().size(), 1 << 20);
}

TEST(Sdp, ServesManyThreadsAndForgetsWhatIsIdle)
{
    // Timed by the wall clock of the seams: entries that are idle for 20 s go once there are more than
    // 10,000.
    std::atomic<int> good{0};
    const auto read = [&good](int first, int count) {
        for (int i = first; i < first + count; ++i) {
            const QString name = QString::number(i);
            const SDP sdp = SDP::fromSDPString(q("v=0\no=-\ns=") + name);
            good += sdp.getSessionParamValues(q("s")).value(0) == name ? 1 : 0;
        }
    };
    std::thread threads[] = {std::thread(read, 0, 3000), std::thread(read, 10000, 3000),
        std::thread(read, 0, 3000), std::thread(read, 10000, 3000)};
    for (std::thread& thread : threads)
        thread.join();
    read(20000, 6000);
    EXPECT_EQ(good, 18000);
    const auto looksOfMisses = [](const QString& prefix) {
        const unsigned long long before = Nuvika::sdpCacheEntriesLookedAt();
        for (int i = 0; i < 3000; ++i)
            SDP::fromSDPString(q("v=0\no=-\ns=%1 %2").arg(prefix).arg(i));
        return Nuvika::sdpCacheEntriesLookedAt() - before;
    };
    EXPECT_LE(looksOfMisses(q("new")), 3000U) << "none is idle, and one look says so";
    seams::clockOffsetMs = 20500;
    const unsigned long long looks = looksOfMisses(q("later"));
    EXPECT_GT(looks, 12000U) << "those that are idle go";
    EXPECT_LT(looks, 19000U) << "each once, and a miss looks at one more";
    EXPECT_EQ(SDP::fromSDPString(q("v=0\no=-\ns=17")).getSessionParamNames().size(), 3);
    seams::clockOffsetMs = 0;
}
