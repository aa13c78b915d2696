#include "support/LogCapture.h"
#include "support/MemoryLimit.h"

#include <KepNuvikaUtil/DataStreamBuffer.h>
#include <KepNuvikaUtil/MemBlockPool.h>
#include <KepNuvikaUtil/VariableBuffer.h>
#include <KepNuvikaUtil/VariableBufferArray.h>

#include <QtCore/QDataStream>

#include <csignal>
#include <cstdint>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <limits>
#include <utility>

namespace
{
VariableBuffer bufferOf(const char* text)
{
    VariableBuffer buffer;
    buffer.setData(text, static_cast<int>(qstrlen(text)));
    return buffer;
}

QByteArray textOf(const VariableBuffer& buffer)
{
    return QByteArray(buffer.constData(), static_cast<int>(buffer.getSize()));
}
} // namespace

TEST(VariableBuffer, GrowsOnlyWhenNeededAndKeepsItsContent)
{
    for (const unsigned int alignment : {4U, 8U, 16U, 32U, 3U, 48U}) {
        VariableBuffer buffer(alignment);
        EXPECT_EQ(buffer.getBuffer(0), nullptr);
        std::memcpy(buffer.getBuffer(10), "0123456789", 10);
        for (unsigned int size = 11; size < 5000; size += 97) { // many blocks: the aligned start moves
            buffer.getBuffer(size);
            ASSERT_EQ(reinterpret_cast<std::uintptr_t>(buffer.constData()) % alignment, 0U);
            ASSERT_EQ(std::memcmp(buffer.constData(), "0123456789", 10), 0) << "alignment " << alignment;
        }
        const void* block = buffer.getBuffer();
        buffer.clear();
        EXPECT_EQ(buffer.getBuffer(4000), block) << "a cleared buffer keeps its block";
        buffer.clearAndSqueeze(16);
        EXPECT_TRUE(buffer.isEmpty());
    }
}

TEST(VariableBuffer, RemovalPastTheEndIsWarnedOfAndClamped)
{
    VariableBuffer buffer = bufferOf("0123456789");
    LogCapture log;
    buffer.remove(3, 100);
    EXPECT_EQ(textOf(buffer), "012");
    EXPECT_TRUE(
        log.has("VariableBuffer::remove: Requested to remove more bytes than are contained in the buffer: "
                "103 bytes > 10 bytes; please check you pointer/buffer arithmetic",
            QtWarningMsg));
    buffer.remove(1, 0xFFFFFFFF); // the sum wraps 32 bits
    EXPECT_EQ(textOf(buffer), "0");
    buffer.remove(1, 1);
    buffer.remove(0, 0);
    EXPECT_EQ(textOf(buffer), "0");
    EXPECT_EQ(log.records().size(), 2U);
    VariableBuffer middle = bufferOf("0123456789");
    middle.remove(2, 3);
    EXPECT_EQ(textOf(middle), "0156789");
}

TEST(VariableBuffer, ReplaceTakesTheFirstOccurrenceAndNeverShrinks)
{
    VariableBuffer longer = bufferOf("0ab1ab");
    longer.replace("ab", "xyz");
    EXPECT_EQ(textOf(longer), "0xyz1ab");
    VariableBuffer shorter = bufferOf("0ab1");
    shorter.replace("ab", "c");
    EXPECT_EQ(shorter.getSize(), 4U);
    EXPECT_EQ(textOf(shorter).left(3), "0c1");
    shorter.replace(nullptr, "x");
    shorter.replace("longer than the buffer", "x");
    EXPECT_EQ(textOf(shorter).left(3), "0c1");
    EXPECT_EQ(bufferOf("abc").indexOf("abcd", 4), -1);
    EXPECT_EQ(bufferOf("aab").indexOf("ab", 2), 1);
}

TEST(VariableBuffer, TakesItsOwnBytesWhileGrowing)
{
    VariableBuffer buffer = bufferOf("abcdef");
    buffer.append(buffer);
    buffer.append(buffer.constData() + 3, 3);
    buffer.append(nullptr, -5);
    const VariableBuffer& same = buffer;
    buffer = same;
    EXPECT_EQ(textOf(buffer), "abcdefabcdefdef");
    const struct {
        const char *content, *before;
        int from, count; // of the content, the replacement
        const char* result;
    } rows[] = {{"ab-cdef", "ab", 3, 4, "cdef-cdef"}, {"ab-cdef", "ef", 0, 5, "ab-cdab-cd"},
        {"ab-cdef", "-", 1, 5, "abb-cdecdef"}, {"abcdef", "cd", 0, 6, "ababcdefef"}};
    for (const auto& row : rows) {
        VariableBuffer replaced; // its block is as large as its content: growing moves it
        replaced.setData(row.content, static_cast<int>(qstrlen(row.content)));
        replaced.replace(
            row.before, static_cast<int>(qstrlen(row.before)), replaced.constData() + row.from, row.count);
        EXPECT_EQ(textOf(replaced), row.result) << row.content << ", " << row.before;
    }
}

TEST(VariableBuffer, MovesTakeTheBlock)
{
    VariableBuffer from = bufferOf("payload");
    const char* block = from.constData();
    VariableBuffer moved(std::move(from));
    EXPECT_EQ(moved.constData(), block);
    VariableBuffer assigned = bufferOf("old");
    assigned = std::move(moved);
    EXPECT_EQ(assigned.constData(), block);
    for (VariableBuffer* left : {&from, &moved}) { // NOLINT(bugprone-use-after-move): as just constructed
        EXPECT_EQ(left->constData(), nullptr);
        left->append("new", 3);
        EXPECT_EQ(textOf(*left), "new");
    }
    VariableBuffer& same = assigned;
    assigned = std::move(same);
    EXPECT_EQ(textOf(assigned), "payload");
    VariableBuffer aligned(64);
    aligned = std::move(assigned);
    EXPECT_EQ(textOf(aligned), "payload");
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(aligned.constData()) % 64, 0U) << "keeps its own alignment";
}

TEST(VariableBufferDeathTest, WhatCannotBeHadEndsTheProcessWithARecord)
{
    if (!MemoryLimit::kWorks)
        GTEST_SKIP() << "sizes that the sanitizers do not take";
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto append = [](unsigned int first, unsigned int second) {
        VariableBuffer buffer, other;
        buffer.getBuffer(first);
        other.getBuffer(second);
        buffer.append(other);
    };
    const auto replace = [] {
        VariableBuffer buffer;
        std::memcpy(buffer.getBuffer(0xFFFFFFF0), "ab", 2);
        buffer.replace("ab", 2, std::string(1000, 'x').data(), 1000);
    };
    const auto limited = [](auto ask) {
        return [ask] {
            const MemoryLimit limit;
            ask();
        };
    };
    const struct {
        std::function<void()> ask;
        const char* record;
    } cases[] = {
        {replace, "VariableBuffer::getBuffer: out of memory: 4294968278 bytes"},
        {[&] { append(0x80000001, 0x80000000); },
            "VariableBuffer::getBuffer: out of memory: 4294967297 bytes"},
        {limited([] { VariableBuffer().getBuffer(100 << 20); }),
            "VariableBuffer::getBuffer: out of memory: 104857632 bytes"},
        {limited([] { VariableBufferArray(2000000000); }),
            "VariableBufferArray::VariableBufferArray: out of memory: "},
        {limited([] { DataStreamBuffer("", std::numeric_limits<int>::max(), true); }),
            "DataStreamBuffer::DataStreamBuffer: out of memory: 2147483647 bytes"},
        {limited([] { MemBlockPool(1 << 20, 100).allocBuf(); }),
            "MemBlockPool::allocBuf: out of memory: 104857616 bytes"},
    };
    for (const auto& c : cases)
        EXPECT_EXIT(c.ask(), ::testing::KilledBySignal(SIGABRT), c.record);
}

TEST(VariableBuffer, StreamsRoundTripAndDistrustLengths)
{
    QByteArray bytes;
    QDataStream out(&bytes, QIODevice::WriteOnly);
    out << bufferOf("payload");
    EXPECT_EQ(bytes, QByteArray("\0\0\0\7payload", 11));
    VariableBuffer read;
    QDataStream in(bytes);
    in >> read;
    EXPECT_EQ(textOf(read), "payload");

    const struct {
        const char* hex;
        const char* left; // of what was read before
        QDataStream::Status status;
    } rows[] = {{"ffffffff", "", QDataStream::Ok},
        {"fffffff0616263", "", QDataStream::ReadPastEnd}, // 4 GB announced
        {"", "keep", QDataStream::ReadPastEnd}};
    for (const auto& row : rows) {
        read = bufferOf("keep");
        QDataStream stream(QByteArray::fromHex(row.hex));
        stream >> read;
        EXPECT_EQ(textOf(read), row.left) << row.hex;
        EXPECT_EQ(stream.status(), row.status) << row.hex;
    }
}

TEST(VariableBufferArray, HandsOutItsBuffersInOrder)
{
    VariableBufferArray array(2);
    EXPECT_EQ(array.addBufferData("abc", 3), 0);
    EXPECT_EQ(array.getBufferAt(1), nullptr);
    EXPECT_EQ(array.addBuffer(), 1);
    EXPECT_EQ(array.addBuffer(), -1);
    EXPECT_EQ(textOf(*array.getBufferAt(0)), "abc");
    EXPECT_EQ(array.getBufferAt(-1), nullptr);
    EXPECT_EQ(array.size(), 2);
}

TEST(DataStreamBuffer, WritesIntoABufferAndCutsItOnSeek)
{
    VariableBuffer target = bufferOf("old");
    DataStreamBuffer device(&target);
    EXPECT_TRUE(target.isEmpty());
    EXPECT_EQ(device.getBuffer(), nullptr);
    EXPECT_EQ(device.write("abcde", 5), 5);
    EXPECT_TRUE(device.seek(2));
    EXPECT_EQ(textOf(target), "ab");
    EXPECT_FALSE(device.seek(3));
    EXPECT_FALSE(device.seek(-1));
    device.write("Z", 1);
    EXPECT_EQ(QByteArray(device.getBuffer(), 3), "abZ");
    EXPECT_TRUE(device.open(QIODevice::ReadOnly));
    EXPECT_TRUE(device.isWritable()) << "the mode is that of construction";
    device.resetAndSqueeze(1);
    EXPECT_TRUE(target.isEmpty());
}

TEST(DataStreamBuffer, ReadsABlockInPlaceOrCopied)
{
    QByteArray block("12345");
    DataStreamBuffer inPlace(block.constData(), block.size(), false);
    DataStreamBuffer copied(block.constData(), block.size(), true);
    block.data()[0] = 'x';
    EXPECT_EQ(inPlace.read(2), "x2");
    EXPECT_EQ(copied.readAll(), "12345");
    EXPECT_EQ(copied.read(1).size(), 0);
    EXPECT_FALSE(copied.seek(6));
    EXPECT_TRUE(copied.seek(4));
    EXPECT_EQ(copied.read(9), "5");
    EXPECT_EQ(DataStreamBuffer(nullptr, 0, false).getBuffer(), nullptr);
}
