#include "support/LogCapture.h"

#include "msg/CommandExtractor_p.h"

#include <QtCore/QByteArray>

#include <gtest/gtest.h>
#include <malloc.h>

namespace
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kMemoryIsCounted = false; // the sanitizers' allocators do not tell
#else
constexpr bool kMemoryIsCounted = true;
#endif

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
    const QByteArray bytes("FDTC\0\0\0\x02ok"
                           "GEUD\0\0\0\x03new"
                           "FDTC\0\0\0\0"
                           "FDTC\0\0\0\4cu",
        39);
    ASSERT_TRUE(extractor.feed(bytes.constData(), bytes.size()));
    for (const int at : {8, 18, 29}) {
        ASSERT_TRUE(extractor.getFirstCommand(&command));
        EXPECT_EQ(command.pData, bytes.constData() + at);
        EXPECT_EQ(command.bEncrypted, at == 18);
        extractor.removeFirstCommand();
    }
    ASSERT_FALSE(extractor.getFirstCommand(&command));
    const QByteArray rest("t!FDTC\0\0\0\x01.", 11);
    ASSERT_TRUE(extractor.feed(rest.constData(), rest.size()));
    ASSERT_TRUE(extractor.getFirstCommand(&command));
    EXPECT_EQ(QByteArray(command.pData, command.nSize), QByteArray("cut!"));
    extractor.removeFirstCommand();
    ASSERT_TRUE(extractor.getFirstCommand(&command));
    EXPECT_EQ(command.pData, rest.constData() + 10) << "behind the joined one, in place again";
}

TEST(CommandExtractor, ShrinksTo16MiBOnceLittleIsLeft)
{
    CommandExtractor extractor;
    CommandExtractor::Command command{};
    const std::size_t before = inUse();
    const QByteArray head("FDTC\x02\x00\x00\x00", 8); // 32 MiB
    const QByteArray rest = QByteArray(32 << 20, 'l')
        + QByteArray("FDTC\0\0\0\x03"
                     "abc",
            11);
    const std::size_t ours = inUse() - before;
    ASSERT_TRUE(extractor.feed(head.constData(), head.size()));
    ASSERT_FALSE(extractor.getFirstCommand(&command));
    ASSERT_TRUE(extractor.feed(rest.constData(), rest.size()));
    ASSERT_TRUE(extractor.getFirstCommand(&command));
    EXPECT_EQ(command.nSize, 32 << 20);
    EXPECT_TRUE(!kMemoryIsCounted || inUse() - before - ours > (32U << 20));
    extractor.removeFirstCommand();
    EXPECT_TRUE(!kMemoryIsCounted || inUse() - before - ours < (17U << 20)) << "memory goes back";
    extractor.removeFirstCommand(); // none outstanding: nothing happens
    ASSERT_TRUE(extractor.getFirstCommand(&command));
    EXPECT_EQ(QByteArray(command.pData, command.nSize), QByteArray("abc"));
}
