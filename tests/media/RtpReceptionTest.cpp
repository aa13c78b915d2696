#include "support/Table.h"

#include <KepNuvikaUtil/RTCPPacket.h>
#include <KepNuvikaUtil/RTPPacket.h>
#include <KepNuvikaUtil/RtcpCompound.h>
#include <KepNuvikaUtil/RtpReception.h>
#include <KepNuvikaUtil/RtpReorderBuffer.h>
#include <KepNuvikaUtil/VariableBuffer.h>

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QTextStream>

#include <gtest/gtest.h>
#include <random>
#include <vector>

namespace
{
constexpr qint64 kMs = 1000;

template <class... Numbers>
std::string spaced(const Numbers&... numbers)
{
    return QStringList{QString::number(numbers)...}.join(QLatin1Char(' ')).toStdString();
}

// A stream of packets by number; each lives during its push() only.
struct Stream {
    RtpReorderBuffer buffer;
    std::string out; // what was delivered: "-2" before a number for two lost ones, "!" for a new run
    int nDirect = 0; // seen where they were pushed
    qint64 lastSequence = -1;

    explicit Stream(
        int packets = RtpReorderBuffer::kDefaultPackets, int ms = RtpReorderBuffer::kDefaultWaitMs)
        : buffer(packets, ms)
    {
    }
    void push(int number, qint64 ms = 0)
    {
        VariableBuffer memory;
        const RTPPacket packet(
            &memory, 1, static_cast<quint16>(number), 0, eRtp96, nullptr, 4 + number % 7, 0);
        RtpOrderedPacket given;
        if (buffer.push(packet, ms * kMs, &given)) {
            nDirect += given.packet.getRawPacket() == packet.getRawPacket() ? 1 : 0;
            note(given);
        }
        pop(ms * kMs);
    }
    void pop(qint64 nowUs)
    {
        RtpOrderedPacket given;
        while (buffer.pop(nowUs, &given))
            note(given);
    }
    void note(const RtpOrderedPacket& given)
    {
        const int number = given.packet.getSeqNum();
        EXPECT_EQ(given.packet.getPayloadSize(), 4U + static_cast<unsigned int>(number % 7)) << number;
        EXPECT_EQ(given.sequence & 0xFFFF, number);
        EXPECT_GT(given.sequence, lastSequence) << number;
        lastSequence = given.sequence;
        out += out.empty() ? "" : " ";
        out += given.nLost > 0 ? '-' + std::to_string(given.nLost) + ' ' : std::string();
        out += (given.bNewRun ? "!" : "") + std::to_string(number);
    }
};

// Everything that a compound packet says, in one line. Its bytes end where the memory does.
std::string told(const QByteArray& bytes)
{
    const std::vector<unsigned char> memory(bytes.begin(), bytes.end());
    RtcpCompound rtcp(memory.data(), static_cast<unsigned int>(memory.size()));
    QString text;
    QTextStream out(&text);
    while (rtcp.next()) {
        out << rtcp.type() << ':' << rtcp.ssrc();
        RtcpSenderInfo info;
        if (rtcp.senderInfo(&info))
            out << " at " << info.ntp.toMilliseconds() << '=' << info.nRtpTimestamp << " sent "
                << info.nPackets << '/' << info.nOctets;
        RtcpReportBlock block;
        for (int i = 0; rtcp.reportBlock(i, &block); ++i)
            out << " of " << block.nSsrc << ' ' << block.nFractionLost << '/' << block.nCumulativeLost << ' '
                << block.nExtendedHighest << ' ' << block.nJitter << ' ' << block.nLastSr << ' '
                << block.nDelaySinceLastSr;
        RtcpSdesItem item;
        while (rtcp.nextSdesItem(&item))
            out << ' ' << item.nSsrc << '.' << item.type << '='
                << QString::fromStdString(std::string(item.text));
        for (int i = 0; i < rtcp.count() && rtcp.type() == eRtcpBYE; ++i)
            out << " bye " << rtcp.byeSource(i);
        for (const std::string_view each : {rtcp.byeReason(), rtcp.appName(), rtcp.appData()})
            out << (each.empty() ? "" : " ") << QString::fromStdString(std::string(each));
        out << "; ";
    }
    out << rtcp.errorString();
    EXPECT_EQ(rtcp.isMalformed(), !rtcp.errorString().isEmpty());
    EXPECT_FALSE(rtcp.next() || rtcp.ssrc() != 0 || rtcp.data() != nullptr);
    return text.trimmed().toStdString();
}
} // namespace

TEST(RtpReorderBuffer, DeliversInOrderAndTellsWhatIsMissing)
{
    // Situation; numbers pushed; delivered; lost, late, duplicate, stray, runs; how many may be held.
    for (const auto& row : rowsOf(R"(
in order over a wrap; 65534 65535 0 1; !65534 65535 0 1; 0 0 0 0 1; 32
two change places; 10 12 11 13; !10 11 12 13; 0 0 0 0 1; 32
reversed over a wrap; 65533 1 0 65535 65534 2; !65533 65534 65535 0 1 2; 0 0 0 0 1; 32
a duplicate of a delivered one and of a held one; 1 1 3 3 2 2 3; !1 2 3; 0 0 4 0 1; 32
more are held than may be: the gap is given up, the next one waits; 1 3 5 4 7; !1 -1 3 4 5; 1 0 0 0 1; 2
late behind a gap that was given up, then its duplicate; 1 3 4 5 2 2 6; !1 -1 3 4 5 6; 1 1 1 0 1; 2
nothing is held: a loss at once, what is behind is dropped; 1 2 5 4 5 6; !1 2 -2 5 6; 2 1 1 0 1; 0
a new run ahead; 1 2 40000 40001 40002; !1 2 !40000 40001 40002; 0 0 0 0 2; 32
a new run behind, nothing held; 30000 30001 7 8 9; !30000 30001 !7 8 9; 0 0 0 0 2; 0
a new run behind one that waits; 100 102 9000 9001 9002; !100 -1 102 !9000 9001 9002; 1 0 0 0 2; 32
a new run begins with a loss; 1 2 5000 5002 5003; !1 2 !5002 5003; 0 0 0 1 2; 32
strays among the run; 1 2 50000 3 50001 4 20000 20000 5; !1 2 3 4 5; 0 0 1 3 1; 32
99 behind the expected one is late, 100 is a jump; 1000 902 901 1001; !1000 1001; 0 1 0 1 1; 32
as many are held as may be; 1 3 4; !1; 0 0 0 0 1; 2
the run ends while it is on probation; 500 3500 7000 7001; !500 -2999 3500 !7000 7001; 2999 0 0 0 2; 32)")) {
        Stream stream(row[4].toInt());
        const std::vector<int> numbers = numbersOf(row[1]);
        for (const int number : numbers)
            stream.push(number);
        EXPECT_EQ(stream.out, row[2].toStdString()) << row[0].constData();
        const RtpReorderCounts& c = stream.buffer.counts();
        EXPECT_EQ(spaced(c.nLost, c.nLate, c.nDuplicates, c.nStrays, c.nRuns), row[3].toStdString())
            << row[0].constData();
        EXPECT_EQ(c.nReceived, numbers.size());
    }
}

TEST(RtpReorderBuffer, GivesAGapUpWhenItsTimeHasCome)
{
    Stream stream;
    EXPECT_EQ(stream.buffer.dueAt(), RtpReorderBuffer::kNever);
    stream.push(1, 0);
    EXPECT_EQ(stream.buffer.dueAt(), RtpReorderBuffer::kNever) << "nothing is held";
    stream.push(5, 10);
    stream.push(3, 30);
    EXPECT_EQ(stream.buffer.dueAt(), 110 * kMs) << "the one that waits longest, not the lowest";
    stream.pop(109 * kMs);
    EXPECT_EQ(stream.out, "!1");
    stream.pop(110 * kMs);
    EXPECT_EQ(stream.out, "!1 -1 3 -1 5");
    EXPECT_EQ(stream.nDirect, 1) << "those that waited were copied";
    EXPECT_EQ(stream.buffer.dueAt(), RtpReorderBuffer::kNever);
    stream.push(8, 200);
    stream.buffer.reset();
    stream.push(3, 201);
    EXPECT_EQ(stream.out, "!1 -1 3 -1 5 !3") << "another source";
    stream.push(4, 202);
    EXPECT_EQ(stream.nDirect, 3) << "in order they pass";
}

TEST(RtpReorderBuffer, KeepsItsBoundWhenNobodyTakesWhatWaits)
{
    RtpReorderBuffer neglected(4, 1000);
    VariableBuffer memory;
    RtpOrderedPacket given;
    for (int i = 0; i < 3000; ++i)
        neglected.push(
            RTPPacket(&memory, 1, static_cast<quint16>(2 * i), 0, eRtp96, nullptr, 4, 0), 0, &given);
    int held = 0;
    while (neglected.pop(RtpReorderBuffer::kNever, &given))
        ++held;
    EXPECT_LE(held, 8);
}

TEST(RtpReception, CountsAsTheStandardSays)
{
    // Situation; numbers; extended highest, received, expected, lost, fraction of 256.
    for (const auto& row : rowsOf(R"(
in order over a wrap; 65534 65535 0 1; 65537 4 4 0 0
one of four lost; 1 2 4; 4 3 4 1 64
late ones and duplicates take losses back; 1 4 2 3 3; 4 5 4 -1 0
a jump ahead waits for its second; 1 2 30000 3; 3 3 3 0 0
a new run counts afresh; 1 2 9 30000 30001 30004; 30004 3 5 2 102
back by one is a duplicate; 500 501 500 502; 502 4 3 -1 0
back by a thousand is a new run, not 64,536 losses; 5000 5001 4000 4001 4002; 4002 3 3 0 0
99 behind the highest counts, 100 waits; 200 101 100 201; 201 3 2 -1 0
two strays are no run; 5 6 40000 20000 7; 7 3 3 0 0)")) {
        RtpReception r(7, 90000);
        for (const int number : numbersOf(row[1]))
            r.update(static_cast<quint16>(number), 0, 0);
        const std::string counted
            = spaced(r.extendedHighest(), r.received(), r.expected(), r.cumulativeLost());
        EXPECT_EQ(counted + ' ' + spaced(r.takeReport(0).nFractionLost), row[2].toStdString())
            << row[0].constData();
        EXPECT_EQ(r.takeReport(0).nFractionLost, 0) << row[0].constData() << ": nothing since";
    }
    RtpReception lossy(7, 90000);
    for (quint32 i = 0; i < 4000; ++i)
        lossy.update(static_cast<quint16>(i * 2999), 0, 0);
    EXPECT_EQ(lossy.cumulativeLost(), 0x7FFFFF) << "24 bits";
    EXPECT_EQ(lossy.takeReport(0).nFractionLost, 255);
}

// The jitter of RFC 3550, appendix A.8, in its own words.
TEST(RtpReception, JitterIsThatOfTheStandard)
{
    std::mt19937 random(8);
    RtpReception reception(1, 90000);
    RtpReception unknownRate(1, 0);
    int transit = 0;
    quint32 jitter = 0;
    quint32 timestamp = 0xFFFF0000;
    for (int i = 0; i < 500; ++i) {
        const qint64 arrivalMs = 1000000 + 40 * i + static_cast<int>(random() % 30);
        reception.update(static_cast<quint16>(i), timestamp, arrivalMs * kMs);
        unknownRate.update(static_cast<quint16>(i), timestamp, arrivalMs * kMs);
        const int now = static_cast<int>(static_cast<quint32>(arrivalMs * 90) - timestamp);
        const int d = i == 0 ? 0 : std::abs(now - transit);
        transit = now;
        jitter = i == 0 ? 0 : jitter + static_cast<quint32>(d) - ((jitter + 8) >> 4);
        ASSERT_EQ(reception.jitter(), jitter >> 4) << i;
        timestamp += 3600;
    }
    EXPECT_GT(reception.jitter(), 500U);
    EXPECT_EQ(unknownRate.jitter(), 0U);
    const quint32 before = reception.jitter();
    reception.update(40000, 5, 900000000);
    reception.update(40001, 5, 900000000);
    EXPECT_LE(reception.jitter(), before) << "the step of a new run is no jitter";
}

TEST(RtpReception, WritesReportsThatFitTheirBuffer)
{
    RtpReception reception(0xA1B2C3D4, 90000);
    unsigned char out[RtpReception::kMaxReportSize];
    const auto report = [&](int capacity, const QByteArray& cname, qint64 nowUs) {
        const int size = reception.writeReport(out, capacity, 5, cname, nowUs);
        return told(QByteArray(reinterpret_cast<const char*>(out), size));
    };
    EXPECT_EQ(report(sizeof out, "ab", 0), "201:5; 202:5 5.1=ab;") << "nothing received, no block";
    reception.update(1, 0, 0);
    reception.update(5, 0, 0);
    EXPECT_EQ(report(47, "abcd", 0), "") << "too small, and nothing is taken";
    EXPECT_EQ(report(48, "abcd", 0), "201:5 of 2712847316 153/3 5 0 0 0; 202:5 5.1=abcd;");
    EXPECT_EQ(report(sizeof out, "", 0), "201:5; 202:5 5.1=;") << "nothing since the last one";
    reception.senderReport(NTPTimestamp::fromRawHostByteOrder(0x1122334455667788), 2000000);
    reception.update(6, 0, 0);
    EXPECT_EQ(report(sizeof out, "x", 3500000), "201:5 of 2712847316 0/3 6 0 860116326 98304; 202:5 5.1=x;");
    reception.update(7, 0, 0);
    for (int length = 0; length <= 300; ++length) {
        const std::string text = report(sizeof out, QByteArray(length, 'c'), 0);
        ASSERT_EQ(text.substr(text.rfind('=') + 1),
            std::string(static_cast<std::size_t>(qMin(length, 255)), 'c') + ';');
        reception.update(static_cast<quint16>(8 + length), 0, 0);
    }
}

TEST(RtcpCompound, ReadsWhatPeersSend)
{
    EXPECT_EQ(told(QByteArray()), "");
    for (const auto& row : rowsOf(R"(
a sender report with a block of negative losses | 81c8000c00000001000000028000000000000003000000040000000500000006ffffffff00000008000000090000000a0000000b | 200:1 at 2500=3 sent 4/5 of 6 255/-1 8 9 10 11;
empty receiver report | 80c9000100000001 | 201:1;
description of two sources with several items | 82ca00050000000101026162060178000000000201016300 | 202:1 1.1=ab 1.6=x 2.1=c;
description without its end byte | 81ca00020000000101026162 | 202:1 1.1=ab;
description that ends before its padding | 81ca0003000000010103616263 | 202:1 1.1=abc;
a missing end byte is no excuse for a missing word | 81ca00030000000101026162 | RTCP, byte 2: the packet is longer than what was received
an item over the end | 80c900010000000181ca00020000000101ff6162 | 201:1; 202:1; RTCP, byte 16: an item reaches over the end
an item one byte over the end | 81ca00020000000101036162 | 202:1; RTCP, byte 8: an item reaches over the end
fewer chunks than counted | 82ca0003000000010102616200000000 | 202:1 1.1=ab; RTCP, byte 16: a chunk is missing
bye with its reason | 81cb0003000000070362796500000000 | 203:7 bye 7 bye;
bye whose reason is too long is cut | 81cb00020000000709627965 | 203:7 bye 7 bye;
bye of nobody | 80cb0000 | 203:0;
bye of more than are there | 82cb000100000007 | RTCP, byte 0: the packet is shorter than its count says
application | 85cc0003000000034142434465666768 | 204:3 ABCD efgh;
application without a name | 85cc000100000003 | RTCP, byte 0: the packet is shorter than its count says
unknown type, then a report | 80cf000000c9000180c9000100000001 | 207:0; RTCP, byte 4: not version 2
padding | a0c900020000000100000004 | 201:1;
padding of nothing | a0c900020000000100000000 | RTCP, byte 11: the padding does not fit
padding over the head | a0c90001000000ff | RTCP, byte 7: the padding does not fit
blocks that are not there | 9fc9000700000001000000000000000000000000000000000000000000000000 | RTCP, byte 0: the packet is shorter than its count says
bytes behind | 80c900010000000180c9 | 201:1; RTCP, byte 8: too few bytes for a packet)",
             '|')) {
        const QByteArray bytes = QByteArray::fromHex(row[1]);
        EXPECT_EQ(told(bytes), row[2].toStdString()) << row[0].constData();
        for (int cut = 0; cut < bytes.size(); ++cut)
            EXPECT_EQ(told(bytes.left(cut)).empty(), cut == 0) << row[0].constData();
    }
}

TEST(RtpPackets, OfRealSendersAreRtpOrRtcpAndNeverBoth)
{
    const QDir folder(QStringLiteral(NUVIKA_TEST_DATA "/packets"));
    const QStringList files = folder.entryList({QStringLiteral("*.hex")}, QDir::Files, QDir::Name);
    ASSERT_GE(files.size(), 4);
    for (const QString& name : files) {
        QFile file(folder.filePath(name));
        ASSERT_TRUE(file.open(QIODevice::ReadOnly));
        const bool bReports = name.contains(QLatin1String("rtcp"));
        int count = 0;
        for (; !file.atEnd(); ++count) {
            const QByteArray bytes = QByteArray::fromHex(file.readLine().trimmed());
            const auto* data = reinterpret_cast<const unsigned char*>(bytes.constData());
            const auto size = static_cast<unsigned int>(bytes.size());
            EXPECT_EQ(RTPPacket(data, size).isHeaderValid(), !bReports) << qPrintable(name) << count;
            EXPECT_EQ(RTCPPacket(data, size).isHeaderValid(), bReports) << qPrintable(name) << count;
            EXPECT_TRUE(!bReports || told(bytes).find("RTCP") == std::string::npos)
                << qPrintable(name) << count;
        }
        EXPECT_GT(count, 1) << qPrintable(name);
    }
}
