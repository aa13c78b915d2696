#include "support/LogCapture.h"

#include <KepNuvikaUtil/DynamicByteFifo.h>
#include <KepNuvikaUtil/MemBlockPool.h>
#include <KepNuvikaUtil/SharedPoolBuffer.h>

#include <cstdint>
#include <cstring>
#include <gtest/gtest.h>
#include <malloc.h>
#include <random>
#include <thread>
#include <vector>

TEST(MemBlockPool, CarvesChunksInAscendingOrderAndReusesTheLastFreed)
{
    MemBlockPool pool(64, 3);
    auto* first = static_cast<char*>(pool.allocBuf());
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(first) % 16, 0U);
    void* second = pool.allocBuf();
    EXPECT_EQ(second, first + 64);
    pool.freeBuf(first);
    EXPECT_EQ(pool.allocBuf(), first);
    EXPECT_EQ(pool.allocBuf(), first + 128);
    void* other = pool.allocBuf(); // a second chunk
    EXPECT_TRUE(other < first || other > first + 128);
    pool.freeBuf(nullptr);
    pool.freeAll();
    EXPECT_NE(pool.allocBuf(), nullptr);
}

TEST(MemBlockPool, TinyAndOddBlocksNeverOverlap)
{
    for (const unsigned int size : {1U, 4U, 5U, 9U, 13U, 100U}) {
        MemBlockPool pool(size, 7);
        EXPECT_EQ(pool.getBlockSize(), std::max(size, 4U));
        std::vector<unsigned char*> blocks;
        for (int round = 0; round < 3; ++round) {
            for (int i = 0; i < 40; ++i) {
                blocks.push_back(static_cast<unsigned char*>(pool.allocBuf()));
                std::memset(blocks.back(), i, pool.getBlockSize());
            }
            for (std::size_t i = 0; i < blocks.size(); ++i)
                ASSERT_EQ(blocks[i][pool.getBlockSize() - 1], i) << "block size " << size;
            for (unsigned char* block : blocks)
                pool.freeBuf(block);
            blocks.clear();
        }
    }
    LogCapture log;
    MemBlockPool fresh(1, 0);
    fresh.freeBuf(nullptr);
    EXPECT_TRUE(log.has("ASSERT: \"m_pBlocks\" in file MemBlockPool.cpp", QtCriticalMsg));
}

TEST(MemBlockPoolMT, ServesManyThreads)
{
    MemBlockPoolMT pool(32, 16);
    std::atomic<int> faults{0};
    const auto use = [&pool, &faults](int t) {
        for (int i = 0; i < 5000; ++i) {
            auto* block = static_cast<int*>(pool.allocBuf());
            *block = t;
            std::this_thread::yield();
            faults += *block == t ? 0 : 1;
            pool.freeBuf(block);
        }
    };
    std::thread threads[]
        = {std::thread(use, 0), std::thread(use, 1), std::thread(use, 2), std::thread(use, 3)};
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(faults, 0);
}

TEST(Pools, MayBeUsedByTheLogHandlerOfTheirRecords)
{
    static MemBlockPoolMT s_blocks(32, 16);
    static auto* s_buffers = new SharedBufferPool;
    static int s_records = 0;
    SharedPoolBuffer held = s_buffers->getBuffer();
    s_buffers->release();
    const QtMessageHandler before
        = qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {
              ++s_records;
              s_blocks.freeBuf(s_blocks.allocBuf());
              s_buffers->getBuffer().setData("x", 1);
          });
    s_blocks.freeBuf(nullptr); // none was taken yet
    s_buffers->release(); // twice
    qInstallMessageHandler(before);
    EXPECT_EQ(s_records, 2);
}

TEST(SharedBufferPool, RecyclesRecordsWithTheirMemory)
{
    auto* pool = new SharedBufferPool;
    const void* data = nullptr;
    {
        SharedPoolBuffer buffer = pool->getBuffer();
        buffer.setData(std::string(1000, 'x').data(), 1000);
        data = buffer.getBuffer();
        SharedPoolBuffer other = buffer;
        SharedPoolBuffer& itself = other;
        other = itself;
        EXPECT_EQ(other.getBuffer(), data) << "handles share the bytes";
        SharedPoolBuffer moved(std::move(other));
        EXPECT_EQ(other.getBuffer(), nullptr) << "moved away"; // NOLINT(bugprone-use-after-move)
        other = std::move(moved);
        other = std::move(itself);
        EXPECT_EQ(other.getBuffer(), data);
        EXPECT_EQ(moved.getBuffer(), nullptr); // NOLINT(bugprone-use-after-move)
    }
    const auto before = mallinfo2().uordblks;
    for (int i = 0; i < 1000; ++i) {
        SharedPoolBuffer again = pool->getBuffer();
        EXPECT_TRUE(again.isEmpty());
        again.getVariableBuffer()->getBuffer(1000);
        ASSERT_EQ(again.getBuffer(), data);
    }
    EXPECT_EQ(mallinfo2().uordblks, before) << "a steady flow allocates nothing";
    pool->release();
}

TEST(SharedBufferPool, LastHandleOnAnyThreadEndsAReleasedPool)
{
    for (int i = 0; i < 200; ++i) {
        auto* pool = new SharedBufferPool; // leaks are the sanitizer's to find
        SharedPoolBuffer buffer = pool->getBuffer();
        buffer.setData("abc", 3);
        std::thread other([copy = buffer] { EXPECT_EQ(copy.getBufferSize(), 3); });
        if (i % 2 == 0)
            buffer = SharedPoolBuffer();
        pool->release();
        buffer = SharedPoolBuffer();
        other.join();
    }
    LogCapture log;
    SharedPoolBuffer empty;
    EXPECT_EQ(empty.getBuffer(), nullptr);
    empty.setData("x", 1);
    EXPECT_TRUE(log.has("ASSERT: \"m_pBuffer\"", QtCriticalMsg));
    EXPECT_TRUE(log.has("SharedPoolBuffer::setData() not from pool taken", QtCriticalMsg));
    EXPECT_NE(QMetaType::type("SharedPoolBuffer"), 0) << "registered when the library loads";
}

TEST(DynamicByteFifo, OvershootsByOneChunkAndForceDoesNotLiftTheEntryTests)
{
    LogCapture log;
    DynamicByteFifo fifo(4, 2);
    const auto put = [&fifo](const char* text, bool bForce = false) {
        return fifo.put(
            reinterpret_cast<const unsigned char*>(text), static_cast<unsigned int>(qstrlen(text)), bForce);
    };
    unsigned char out[32];
    EXPECT_EQ(fifo.get(out, 10), 0U);
    EXPECT_EQ(put("0123456789"), 8U);
    EXPECT_TRUE(fifo.isFull());
    EXPECT_EQ(
        log.count("DynamicByteFifo::put: max buffer size exceeded --> data not taken", QtCriticalMsg), 1);
    EXPECT_EQ(put("x", true), 0U);
    EXPECT_EQ(put(""), 0U);
    EXPECT_EQ(log.count("max buffer size exceeded"), 2);
    fifo.clear();
    EXPECT_EQ(put("0123456789", true), 10U);

    iovec ranges[8];
    int count = 1;
    EXPECT_EQ(fifo.peek(ranges, &count, 100), 4U);
    EXPECT_EQ(count, 1);
    count = 8;
    EXPECT_EQ(fifo.peek(ranges, &count, 5), 5U);
    EXPECT_EQ(count, 2);
    EXPECT_EQ(ranges[1].iov_len, 1U);
    EXPECT_EQ(fifo.consume(3), 3U);
    EXPECT_EQ(fifo.get(out, 32), 7U);
    EXPECT_EQ(std::memcmp(out, "3456789", 7), 0);
    EXPECT_TRUE(fifo.isEmpty());
    const KepNuvikaUtil::BUFFER many[] = {{"abc", 3}, {"", 0}, {nullptr, -2}, {"defg", 4}};
    EXPECT_EQ(fifo.put(many, 4, false), 7U) << "a negative length is none";
    EXPECT_EQ(fifo.put(many, 0, false), 0U);
}

TEST(DynamicByteFifo, KeepsBytesInOrderAndInPlaceUnderRandomUse)
{
    std::mt19937 random(7);
    DynamicByteFifo fifo(16, 100);
    unsigned char next = 0;
    unsigned char expected = 0;
    for (int round = 0; round < 20000; ++round) {
        unsigned char in[100];
        const unsigned int n = random() % sizeof in;
        for (unsigned int i = 0; i < n; ++i)
            in[i] = static_cast<unsigned char>(next + i);
        iovec front[4];
        int count = 4;
        const unsigned int described = fifo.peek(front, &count, 1000);
        next = static_cast<unsigned char>(next + fifo.put(in, fifo.isFull() ? 0 : n, true));
        unsigned char at = expected; // what was described lies where it lay
        for (int r = 0; r < count; ++r) {
            for (std::size_t i = 0; i < front[r].iov_len; ++i)
                ASSERT_EQ(static_cast<unsigned char*>(front[r].iov_base)[i], at++);
        }
        const unsigned int drop = fifo.consume(random() % (described + 1));
        expected = static_cast<unsigned char>(expected + drop);
        unsigned char out[60];
        const unsigned int got = fifo.get(out, random() % sizeof out);
        for (unsigned int i = 0; i < got; ++i)
            ASSERT_EQ(out[i], expected++);
    }
}
