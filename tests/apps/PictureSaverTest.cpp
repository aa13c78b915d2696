#include "recording/PictureSaver.h"

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QSemaphore>
#include <QtCore/QTemporaryDir>

#include <gtest/gtest.h>

namespace
{
constexpr int kMiB = 1 << 20;

// A disk that hangs until it is let go.
class HangingDisk
{
public:
    PictureSaver::Writer writer()
    {
        return [taken = m_taken, go = m_go](std::vector<PictureFile>* batch) {
            taken->release(static_cast<int>(batch->size()));
            go->acquire();
            go->release();
        };
    }
    void waitForFirst() { m_taken->acquire(); }
    void letGo() { m_go->release(); }

private:
    std::shared_ptr<QSemaphore> m_taken = std::make_shared<QSemaphore>();
    std::shared_ptr<QSemaphore> m_go = std::make_shared<QSemaphore>();
};
} // namespace

TEST(PictureSaver, ADiskThatHangsCostsBoundedMemoryAndNoCameraWaits)
{
    HangingDisk disk;
    PictureSaver saver(disk.writer());
    ASSERT_TRUE(saver.start());
    const QByteArray picture(kMiB, 'x');
    saver.save(QStringLiteral("first"), picture);
    disk.waitForFirst();
    for (int i = 0; i < 99; ++i)
        saver.save(QString::number(i), picture);
    EXPECT_EQ(saver.figures().dropped, 37U) << "of 100 pictures of 1 MiB and some bytes 63 fit";
    disk.letGo();
    saver.finish();
    EXPECT_EQ(saver.figures().saved, 63U);
    EXPECT_EQ(
        saver.figures().shown(), QStringLiteral("37 pictures not saved (the disk was too slow for 37)"));
    saver.save(QStringLiteral("late"), picture);
    EXPECT_EQ(saver.figures().dropped, 38U) << "nobody writes it any more";
}

TEST(PictureSaver, WhatAHangingDiskHasNotTakenAtTheEndIsDropped)
{
    HangingDisk disk;
    {
        PictureSaver saver(disk.writer(), std::chrono::milliseconds(20));
        ASSERT_TRUE(saver.start());
        for (int i = 0; i < 100; ++i)
            saver.save(QString::number(i), QByteArray(1, 'x'));
        disk.waitForFirst();
        saver.finish();
        EXPECT_EQ(saver.figures().dropped, 100U);
        EXPECT_EQ(saver.figures().saved, 0U);
    }
    disk.letGo(); // the thread finds its share of the queue, though the saver has gone
}

TEST(PictureSaver, APictureLargerThanTheBoundIsSavedWhenNothingWaits)
{
    PictureSaver saver([](std::vector<PictureFile>*) {});
    ASSERT_TRUE(saver.start());
    saver.save(QStringLiteral("huge"), QByteArray(static_cast<int>(PictureSaver::kMostBytes), 'x'));
    saver.finish();
    EXPECT_EQ(saver.figures().saved, 1U);
}

TEST(PictureFiles, AreThereWholeOrNotAtAll)
{
    const QTemporaryDir folder;
    ASSERT_TRUE(QDir(folder.path()).mkdir(QStringLiteral("taken.jpg")));
    std::vector<PictureFile> files{
        {QStringLiteral("a.jpg"), "first", QString()},
        {QStringLiteral("taken.jpg"), "a folder has this name", QString()},
        {QStringLiteral("none/b.jpg"), "no such folder", QString()},
        {QStringLiteral("empty.jpg"), QByteArray(), QString()},
    };
    writePictureFiles(folder.path(), &files);
    EXPECT_EQ(files[0].problem, QString());
    EXPECT_EQ(files[1].problem, QStringLiteral("Is a directory"));
    EXPECT_EQ(files[2].problem, QStringLiteral("No such file or directory"));
    EXPECT_EQ(QDir(folder.path()).entryList(QDir::Files | QDir::Hidden),
        (QStringList{QStringLiteral("a.jpg"), QStringLiteral("empty.jpg")}));
    QFile first(folder.filePath(QStringLiteral("a.jpg")));
    ASSERT_TRUE(first.open(QIODevice::ReadOnly));
    EXPECT_EQ(first.readAll(), QByteArray("first"));
}
