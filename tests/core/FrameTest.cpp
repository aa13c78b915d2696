#include "support/LogCapture.h"

#include <KepNuvikaUtil/KepNuvikaUtil.h>

#include <QtCore/QProcess>

#include <cstdint>
#include <cstring>
#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

TEST(Frame, AllocatesAlignedBlocks)
{
    NuvikaFree(nullptr);
    for (const unsigned int size : {0U, 1U, 100U, 70000U}) {
        void* spare = NuvikaMalloc(size);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(spare) % 16, 0U);
        std::memset(spare, 1, size + 16); // the spare bytes are there: the sanitizer looks
        NuvikaFree(spare);
        void* exact = NuvikaMallocNoExtending(size);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(exact) % 16, 0U);
        NuvikaFree(exact);
    }
}

TEST(Frame, RecordsCarryBaseNameLineAndSignature)
{
    LogCapture log;
    nuvikaAssertPrint("m_state == eIdle", "Some.cpp", 12);
    VariableBuffer buffer;
    buffer.setData("ab", 2);
    buffer.remove(1, 5);
    const auto records = log.records();
    ASSERT_EQ(records.size(), 2U);
    EXPECT_EQ(records[0].text, QStringLiteral("ASSERT: \"m_state == eIdle\" in file Some.cpp, line 12"));
    EXPECT_EQ(records[0].type, QtCriticalMsg);
    EXPECT_EQ(records[1].file, QStringLiteral("VariableBuffer.cpp"));
    EXPECT_TRUE(records[1].function.contains(
        QStringLiteral("void VariableBuffer::remove(unsigned int, unsigned int)")))
        << qPrintable(records[1].function);
    EXPECT_GT(records[1].line, 0);
    EXPECT_EQ(records[1].category, QStringLiteral("nuvika.core"));
}

TEST(FrameDeathTest, AssertStopWritesItsRecordAndEndsTheProcess)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const std::string expression(2000, 'x');
    EXPECT_EXIT(nuvikaAssertStop("bad", "F.cpp", 3), ::testing::KilledBySignal(SIGABRT),
        "ASSERT: \"bad\" in file F.cpp, line 3");
    EXPECT_EXIT(nuvikaAssertStop(expression.c_str(), "F.cpp", 3), ::testing::KilledBySignal(SIGABRT),
        "ASSERT: \"xxx");
}

TEST(Frame, KnowsTheEffectiveUser)
{
    const QString name = QString::fromUtf8(getpwuid(geteuid())->pw_name);
    qputenv("USER", "somebody-else");
    EXPECT_EQ(KepNuvikaUtil::getLoggedInUserSystem(), name);
    EXPECT_TRUE(KepNuvikaUtil::isLoggedInUserSystem(name.toUpper()));
    EXPECT_FALSE(KepNuvikaUtil::isLoggedInUserSystem(QString()));
    EXPECT_FALSE(KepNuvikaUtil::isLoggedInUserSystem(name + QStringLiteral("2")));
}

TEST(Frame, StartsAndEndsRepeatedly)
{
    const auto noAnswer = [] {
        QObject receiver;
        return NuvikaUtil::lookupHost(QStringLiteral("localhost"), &receiver, SLOT(deleteLater()));
    };
    KepNuvikaUtilInit(); // already running: nothing
    EXPECT_NE(noAnswer(), 0);
    KepNuvikaUtilCleanup();
    KepNuvikaUtilCleanup();
    EXPECT_EQ(noAnswer(), 0) << "no lookups after the clean-up";
    KepNuvikaUtilInit();
    EXPECT_NE(noAnswer(), 0) << "lookups can be posted as soon as the start has returned";
}
