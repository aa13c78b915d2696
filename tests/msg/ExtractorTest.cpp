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

void append(CommandExtractor& extractor, const QByteArray& bytes)
{
    ASSERT_TRUE(extractor.append(bytes.constData(), bytes.size()));
}
} // namespace

TEST(CommandExtractor, RefusesMoreThan200MiB)
{
    CommandExtractor extractor;
    const QByteArray block(1 << 20, 'b');
    for (int i = 0; i < 200; ++i)
        append(extractor, block);
    EXPECT_FALSE(extractor.append("x", 1));
    extractor.clear();
    append(extractor, block);
}

TEST(CommandExtractor, ShrinksTo16MiBOnceLittleIsLeft)
{
    CommandExtractor extractor;
    const std::size_t before = inUse();
    append(extractor, QByteArray("FDTC\x02\x00\x00\x00", 8)); // 32 MiB
    append(extractor, QByteArray(32 << 20, 'l'));
    append(extractor,
        QByteArray("FDTC\0\0\0\x03"
                   "abc",
            11));
    CommandExtractor::Command command{};
    ASSERT_TRUE(extractor.getFirstCommand(&command));
    EXPECT_EQ(command.nSize, 32 << 20);
    EXPECT_TRUE(!kMemoryIsCounted || inUse() - before > (32U << 20));
    extractor.removeFirstCommand();
    EXPECT_TRUE(!kMemoryIsCounted || inUse() - before < (17U << 20)) << "memory goes back";
    extractor.removeFirstCommand(); // none outstanding: nothing happens
    ASSERT_TRUE(extractor.getFirstCommand(&command));
    EXPECT_EQ(QByteArray(command.pData, command.nSize), QByteArray("abc"));
}
