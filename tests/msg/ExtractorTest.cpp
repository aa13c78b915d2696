#include "support/CpuTime.h"
#include "support/LogCapture.h"
#include "support/MemoryLimit.h"

#include "msg/CommandExtractor_p.h"

#include <QtCore/QByteArray>

#include <gtest/gtest.h>
#include <malloc.h>

namespace
{
std::size_t inUse() { return mallinfo2().uordblks + mallinfo2().hblkhd; }
} // namespace

TEST(CommandExtractor, RefusesMoreThan200MiB)
{
    CommandExtractor extractor;
    CommandExtractor::Command command{};
    const QByteArray begun("FDTC\0\0\0\x05x", 9);
    ASSERT_TRUE(extractor.feed(begun.constData(), begun.size()));
    ASSERT_FALSE(extractor.getFirstCommand(&command));
    EXPECT_FALSE(extractor.feed(nullptr, 0xC800000 - 8)) << "9 bytes are held";
    extractor.clear();
    EXPECT_TRUE(extractor.feed(begun.constData(), begun.size()));
}

TEST(CommandExtractor, ReadsInPlaceWhatComesWhole)
{
    CommandExtractor extractor;
    CommandExtractor::Command command{};
    const QByteArray bytes("FDTC\0\0\0\x02okGEUD\0\0\0\x03newFDTC\0\0\0\0FDTC\0\0\0\4cu", 39);
    const QByteArray rest("t!FDTC\0\0\0\x01.", 11);
    const auto next = [&] {
        EXPECT_TRUE(extractor.getFirstCommand(&command));
        extractor.removeFirstCommand();
        return command.pData;
    };
    ASSERT_TRUE(extractor.feed(bytes.constData(), bytes.size()));
    EXPECT_EQ(next(), bytes.constData() + 8);
    EXPECT_EQ(next(), bytes.constData() + 18);
    EXPECT_TRUE(command.bEncrypted);
    EXPECT_EQ(next(), bytes.constData() + 29);
    ASSERT_FALSE(extractor.getFirstCommand(&command));
    ASSERT_TRUE(extractor.feed(rest.constData(), rest.size()));
    ASSERT_TRUE(extractor.getFirstCommand(&command));
    EXPECT_EQ(QByteArray(command.pData, command.nSize), QByteArray("cut!"));
    extractor.removeFirstCommand();
    EXPECT_EQ(next(), rest.constData() + 10) << "behind the joined one, in place again";
}

TEST(CommandExtractor, TakesManySmallFramesBehindACutOneInLinearTime)
{
    const auto measure = [](int count) {
        CommandExtractor extractor;
        CommandExtractor::Command command{};
        const QByteArray stream = QByteArray("FDTC\0\0\0\x01x", 9).repeated(count);
        const qint64 begin = cpuTimeNs();
        EXPECT_TRUE(extractor.feed(stream.constData(), 5) && !extractor.getFirstCommand(&command));
        EXPECT_TRUE(extractor.feed(stream.constData() + 5, stream.size() - 5));
        for (; extractor.getFirstCommand(&command); --count)
            extractor.removeFirstCommand();
        EXPECT_EQ(count, 0);
        return cpuTimeNs() - begin;
    };
    const qint64 small = measure(100000);
    EXPECT_LT(measure(1000000), 40 * small) << small << " ns for a tenth";
}

TEST(CommandExtractor, TakesTheLargestMessageAndShrinksTo16MiBOnceLittleIsLeft)
{
    constexpr int kLargest = (100 << 20) - 1;
    CommandExtractor extractor;
    CommandExtractor::Command command{};
    const LogCapture log;
    const std::size_t before = inUse();
    const QByteArray head("FDTC\x06\x3f\xff\xff", 8);
    const QByteArray rest = QByteArray(kLargest, 'l') + QByteArray("FDTC\0\0\0\x01.", 9);
    const std::size_t ours = inUse() - before;
    ASSERT_TRUE(extractor.feed(head.constData(), head.size()));
    ASSERT_FALSE(extractor.getFirstCommand(&command));
    ASSERT_TRUE(extractor.feed(rest.constData(), rest.size()));
    ASSERT_TRUE(extractor.getFirstCommand(&command));
    EXPECT_EQ(command.nSize, kLargest);
    EXPECT_TRUE(!MemoryLimit::kWorks || inUse() - before - ours >= kLargest);
    extractor.removeFirstCommand();
    EXPECT_TRUE(!MemoryLimit::kWorks || inUse() - before - ours < (17U << 20)) << "memory goes back";
    extractor.removeFirstCommand(); // none outstanding: nothing happens
    ASSERT_TRUE(extractor.getFirstCommand(&command));
    EXPECT_EQ(QByteArray(command.pData, command.nSize), QByteArray("."));
    EXPECT_EQ(log.count("ASSERT"), 0);
}
