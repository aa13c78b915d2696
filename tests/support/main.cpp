// Every test program: an application object, the library started, and nothing left over at the end.
#include <KepNuvikaUtil/KepNuvikaUtil.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QLoggingCategory>

#include <gtest/gtest.h>

int main(int argc, char** argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    if (GTEST_FLAG_GET(list_tests))
        return RUN_ALL_TESTS();
    QCoreApplication application(argc, argv);
    KepNuvikaUtilInit();
    const int result = RUN_ALL_TESTS();
    KepNuvikaUtilCleanup();
    return result;
}
