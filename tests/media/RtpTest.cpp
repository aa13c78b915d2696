#include "support/EventLoop.h"
#include "support/LogCapture.h"
#include "support/Seams.h"

#include <KepNuvikaUtil/RTCPPacket.h>
#include <KepNuvikaUtil/RTPPacket.h>
#include <KepNuvikaUtil/RtpStatistics.h>
#include <KepNuvikaUtil/VariableBuffer.h>

#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <vector>

namespace
{
using Bytes = std::vector<unsigned char>;

// A view of bytes at an odd address whose end is the end of the allocation.
struct Received {
    std::unique_ptr<unsigned char[]> memory;
    RTPPacket rtp;
    RTCPPacket rtcp;
    explicit Received(const Bytes& bytes) : memory(new unsigned char[bytes.size() + 1])
    {
        std::copy(bytes.begin(), bytes.end(), memory.get() + 1);
        const auto size = static_cast<unsigned int>(bytes.size());
        rtp = RTPPacket(memory.get() + 1, size);
        rtcp = RTCPPacket(memory.get() + 1, size);
    }
};

Bytes packet(std::initializer_list<int> head, std::size_t size)
{
    Bytes bytes(head.begin(), head.end());
    bytes.resize(size);
    return bytes;
}

bool isRtp(const Bytes& bytes) { return Received(bytes).rtp.isHeaderValid(); }
bool isRtcp(const Bytes& bytes) { return Received(bytes).rtcp.isHeaderValid(); }

struct Figures {
    QString name;
    unsigned int ms = 0;
    double rate = 0;
    unsigned int received = 0, lost = 0;
    double loss = 0;
};

struct Statistics : RtpStatistics {
    std::vector<Figures> all;
    Statistics()
    {
        connect(this, &RtpStatistics::sigStatistics, this,
            [this](const QString& name, unsigned int ms, double rate, unsigned int received,
                unsigned int lost, double loss) {
                all.push_back({name, ms, rate, received, lost, loss});
            });
    }
    bool waitForMore()
    {
        return waitFor([this, before = all.size()] { return all.size() > before; });
    }
};

RTPPacket numbered(VariableBuffer& buffer, int seqNum, unsigned int payload = 4)
{
    return RTPPacket(&buffer, 1, static_cast<unsigned short>(seqNum), 0, eRtp96, nullptr, payload, 0);
}
} // namespace

TEST(RtpPacket, BuildsPaddedToWords)
{
    VariableBuffer buffer;
    const unsigned char payload[] = {1, 2, 3, 4, 5};
    const RTPPacket five(&buffer, 0xA1B2C3D4, 0xFFFE, 0x01020304, eRtp96, payload, 5, 1);
    EXPECT_EQ(
        QByteArray(buffer.constData(), 20).toHex(), QByteArray("a0e0fffe01020304a1b2c3d40102030405030303"));
    EXPECT_EQ(five.getRawPacketSize(), 20U);
    const RTPPacket read(&buffer);
    ASSERT_TRUE(read.isHeaderValid());
    EXPECT_EQ(read.getPayloadSize(), 5U);
    EXPECT_EQ(read.getPaddingSize(), 3);
    EXPECT_EQ(read.getSeqNum(), 0xFFFE);
    EXPECT_EQ(read.getSSRC(), 0xA1B2C3D4U);
    EXPECT_TRUE(read.isMarked() && read.isPadded() && !read.isExtended());

    RTPPacket four(&buffer, 1, 2, 3, static_cast<rtp_payload_t>(127 + 128), payload, 4, 2);
    EXPECT_EQ(four.getRawPacketSize(), 16U);
    EXPECT_EQ(four.getHeader()->flags, 0x80);
    EXPECT_EQ(four.getHeader()->type, 127) << "seven bits of the type, one of the marker";
    four.setPayloadType(eRtp26);
    four.setSeqNum(513);
    four.setRawTimestamp(0x0A0B0C0D);
    four.setSSRC(7);
    EXPECT_EQ(QByteArray(buffer.constData(), 12).toHex(), QByteArray("801a02010a0b0c0d00000007"));
    RTPPacket empty(&buffer, 1, 2, 3, eRtp0, nullptr, 8, 1);
    std::memset(empty.getWritablePayload(), 9, 8);
    empty.setPayloadType(eRtp8);
    EXPECT_TRUE(empty.isMarked()) << "the marker stays";
    EXPECT_EQ(buffer.constData()[19], 9);
    LogCapture log;
    EXPECT_FALSE(RTPPacket(&buffer, 1, 2, 3, eRtp0, nullptr, 0xFFFFFFF8, 1).isHeaderValid());
    EXPECT_TRUE(log.has("is too large", QtWarningMsg));
}

TEST(RtpPacket, AcceptsAndRefusesReceivedBytes)
{
    const struct {
        const char* situation;
        std::initializer_list<int> head;
        std::size_t size;
        int payload; // -1: refused
    } rows[] = {
        {"too short", {0x80, 96}, 11, -1},
        {"no payload", {0x80, 96}, 12, -1},
        {"one byte", {0x80, 96}, 13, 1},
        {"version 1", {0x40, 96}, 13, -1},
        {"a sender report", {0x80, 0xC8}, 40, -1},
        {"a receiver report", {0x80, 0xC9}, 40, -1},
        {"type 72", {0x80, 0x48}, 40, -1},
        {"type 73", {0x80, 0x49}, 40, -1},
        {"type 74", {0x80, 0xCA}, 40, 28},
        {"fifteen sources and nothing behind them", {0x8F, 96}, 72, -1},
        {"and a byte", {0x8F, 96}, 73, 1},
        {"too short to hold the extension's length", {0x9F, 96}, 72, -1},
        {"the same without sources", {0x90, 96}, 14, -1},
    };
    for (const auto& row : rows) {
        const Received received(packet(row.head, row.size));
        EXPECT_EQ(
            received.rtp.isHeaderValid() ? static_cast<int>(received.rtp.getPayloadSize()) : -1, row.payload)
            << row.situation;
    }
    // One source, an extension of two words.
    Bytes extended = packet({0x91, 96, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xAB, 0xAC, 0, 2}, 30);
    const Received e(extended);
    EXPECT_EQ(e.rtp.getHeaderSize(), 28U);
    EXPECT_EQ(e.rtp.getHeaderExt()->profile[0], 0xAB);
    EXPECT_EQ(e.rtp.getCSRCsCount(), 1);
    extended[18] = 0xFF;
    EXPECT_FALSE(isRtp(extended)) << "an extension beyond the end";
    Bytes padded = packet({0xA0, 96}, 20);
    padded[19] = 7;
    EXPECT_EQ(Received(padded).rtp.getPayloadSize(), 1U);
    for (const int pad : {8, 20, 21, 255}) {
        padded[19] = static_cast<unsigned char>(pad);
        EXPECT_FALSE(isRtp(padded)) << "padding of " << pad;
    }
}

TEST(RtpPacket, ReadsAsNothingWhenNotValid)
{
    RTPPacket none;
    none.setSeqNum(5);
    none.setPayloadType(eRtp1);
    EXPECT_EQ(none.getPayloadType(), 143);
    EXPECT_TRUE(none.getSeqNum() == 0 && none.getPaddingSize() == 0 && none.getRawPacket() == nullptr);
    EXPECT_TRUE(none.getPayload() == nullptr && none.getCSRCs() == nullptr && none.getHeaderExt() == nullptr);
    const Received refused(packet({0x80, 200}, 40));
    EXPECT_EQ(refused.rtp.getRawPacketSize(), 0U);
    EXPECT_EQ(refused.rtp.getHeader(), nullptr);
}

TEST(RtcpPacket, BuildsRequestsAndSenderReports)
{
    VariableBuffer buffer;
    const RTCPPacket request(&buffer, 0x11223344);
    EXPECT_EQ(QByteArray(buffer.constData(), 8).toHex(), QByteArray("80c0000111223344"));
    EXPECT_TRUE(request.getNtpTimestamp().isNull());
    RTCPPacket report(&buffer, 5, 0xCAFEBABE, NTPTimestamp::fromRawHostByteOrder(0x0102030405060708));
    EXPECT_EQ(QByteArray(buffer.constData(), 28).toHex(),
        QByteArray("80c80006000000050102030405060708cafebabe0000000000000000"));
    EXPECT_EQ(report.getRawPacketSize(), 28U);
    report.setType(eRtcpRR);
    EXPECT_EQ(report.getType(), eRtcpRR);
    EXPECT_EQ(report.getRtpTimestamp(), 0xCAFEBABEU) << "its first block reads as sender information";
    report.setNtpTimestamp(NTPTimestamp::fromRawHostByteOrder(9));
    report.setSSRC(6);
    EXPECT_EQ(RTCPPacket(&buffer).getNtpTimestamp().toHostByteOrder(), 9U);
    EXPECT_EQ(RTCPPacket(&buffer).getSSRC(), 6U);
}

TEST(RtcpPacket, AcceptsAndRefusesReceivedBytes)
{
    EXPECT_TRUE(isRtcp(packet({0x80, 192}, 8)));
    EXPECT_FALSE(isRtcp(packet({0x80, 192}, 7)));
    EXPECT_FALSE(isRtcp(packet({0x80, 202}, 8))) << "SDES";
    EXPECT_FALSE(isRtcp(packet({0x00, 200}, 28)));
    Bytes padded = packet({0xA0, 200}, 28);
    for (const unsigned char pad : {20, 21, 200}) {
        padded[27] = pad;
        EXPECT_EQ(isRtcp(padded), pad == 20) << "padding into the head";
    }
    // A report that ends before its sender information.
    Received shortReport(packet({0x80, 200}, 19));
    shortReport.rtcp.setRtpTimestamp(1);
    EXPECT_EQ(shortReport.rtcp.getRtpTimestamp(), 0U);
    EXPECT_TRUE(Received(packet({0x80, 200}, 15)).rtcp.getNtpTimestamp().isNull());
    Received request(packet({0x80, 192}, 8));
    request.rtcp.setType(eRtcpSR);
    EXPECT_EQ(request.rtcp.getType(), eRtcpFIR) << "a request stays one";
    EXPECT_EQ(RTCPPacket().getSSRC(), 0U);
}

TEST(RtpStatistics, CountsLossWithinItsWindow)
{
    const struct {
        std::vector<int> numbers;
        unsigned int lost;
    } rows[] = {{{10, 11, 14}, 2}, {{65535, 0}, 0}, {{100, 50, 101}, 0}, {{100, 150}, 49},
        {{200, 200, 201}, 0}, {{200, 101, 201}, 0}, {{200, 100}, 65435}, {{65534, 3, 65535, 4}, 4}};
    for (const auto& row : rows) {
        Statistics statistics;
        statistics.start("camera \xC3\xA4", 5, false, true);
        VariableBuffer buffer;
        for (const int number : row.numbers)
            statistics.update(numbered(buffer, number));
        ASSERT_TRUE(statistics.waitForMore());
        EXPECT_EQ(statistics.all[0].lost, row.lost) << row.numbers.front() << ", " << row.numbers[1];
        EXPECT_EQ(statistics.all[0].received, row.numbers.size());
        EXPECT_EQ(statistics.all[0].name, QStringLiteral("camera \u00E4"));
    }
}

TEST(RtpStatistics, ComputesRatesAndTotalsAndLogsThem)
{
    Statistics statistics;
    const std::vector<Figures>& all = statistics.all;
    LogCapture log;
    VariableBuffer buffer;
    const auto totals = [&statistics] {
        const RtpStatistics::Totals t = statistics.totals();
        return std::vector<quint64>{t.packets, t.bytes, t.lost};
    };
    using Row = std::vector<quint64>;
    statistics.update(numbered(buffer, 1)); // not running: ignored
    statistics.start("garage", 20, true, true);
    for (int i = 0; i < 97; ++i)
        statistics.update(numbered(buffer, i < 50 ? i : i + 3, 12500 - 12));
    seams::clockOffsetMs = 1000;
    ASSERT_TRUE(statistics.waitForMore());
    seams::clockOffsetMs = 0;
    EXPECT_EQ(all[0].received, 97U);
    EXPECT_DOUBLE_EQ(all[0].loss, 3.0);
    EXPECT_NEAR(all[0].rate, 97 * 12500 * 8.0 / 1000 / all[0].ms, 1e-9);
    EXPECT_GE(all[0].ms, 1000U) << "the measured interval";
    EXPECT_TRUE(log.has("STATISTICS::RTP: garage[last ", QtWarningMsg));
    EXPECT_TRUE(log.has("packets received = 97; packets lost = 3(3.000000 %)", QtWarningMsg));
    ASSERT_TRUE(statistics.waitForMore());
    EXPECT_EQ(all[1].received + all[1].loss, 0U) << "each interval counts afresh";
    EXPECT_TRUE(log.has("packets received = 0; packets lost = 0(0.000000 %)", QtDebugMsg));
    statistics.update(numbered(buffer, 200));
    ASSERT_TRUE(waitFor([&] { return all.back().received == 1; }));
    EXPECT_EQ(all.back().lost, 100U) << "the last number lives on across intervals";
    EXPECT_EQ(totals(), (Row{98, 97 * 12500 + 16, 103})) << "and so do the totals";
    statistics.restart();
    statistics.update(numbered(buffer, 900));
    ASSERT_TRUE(statistics.waitForMore());
    EXPECT_EQ(all.back().lost, 0U) << "a restart forgets it";
    const RTPPacket large = numbered(buffer, 900, 65500);
    for (int i = 0; i < 70000; ++i)
        statistics.update(large);
    EXPECT_EQ(totals(), (Row{70001, 70000ULL * 65512 + 16, 0})) << "afresh, and beyond 32 bits";
    statistics.stop();
    const std::size_t stopped = all.size();
    statistics.update(numbered(buffer, 901));
    settle(60);
    EXPECT_EQ(all.size(), stopped);
    EXPECT_EQ(totals()[0], 70001U);
}

TEST(RtpStatistics, MayBeDeletedByItsHandlerAndCountsInSilence)
{
    LogCapture log;
    RtpStatistics silent;
    silent.start("silent", 1, false, false);
    auto statistics = std::make_unique<RtpStatistics>();
    QObject::connect(statistics.get(), &RtpStatistics::sigStatistics, [&] { statistics.reset(); });
    statistics->start("gone", 5, false, true);
    EXPECT_TRUE(waitFor([&] { return statistics == nullptr; }));
    EXPECT_TRUE(log.records().empty());
}
