// Writes pictures on a thread of its own, so that no camera waits for a disk.
#pragma once

#include "PictureFile.h"

#include <QtCore/QStringList>

#include <chrono>
#include <functional>
#include <memory>
#include <thread>

class PictureSaver
{
public:
    // Writes pictures, on the saver's thread, and leaves the reason with each that it cannot write.
    using Writer = std::function<void(std::vector<PictureFile>* batch)>;
    static constexpr std::size_t kBatch = 64;
    static constexpr qint64 kMostBytes = 64 << 20; // that wait; what comes then is dropped

    struct Figures {
        quint64 saved = 0;
        quint64 failed = 0;
        quint64 dropped = 0; // the disk was too slow
        QString problem; // the last one

        quint64 lost() const { return failed + dropped; }
        QString shown() const; // "3 pictures not saved (...)", or nothing
    };

    // The patience is that of finish().
    explicit PictureSaver(Writer writer, std::chrono::milliseconds patience = std::chrono::seconds(10));
    ~PictureSaver() { finish(); }
    PictureSaver(const PictureSaver&) = delete;
    PictureSaver& operator=(const PictureSaver&) = delete;

    // False when there is no thread to be had.
    bool start();
    void save(const QString& name, const QByteArray& bytes);
    // Waits until everything is written, within patience: what a disk that hangs has not taken then counts as
    // dropped.
    void finish();
    Figures figures() const;

private:
    struct Queue;

    std::shared_ptr<Queue> m_queue; // a thread that hangs in the disk keeps its share
    std::chrono::milliseconds m_patience;
    std::thread m_thread;
};
