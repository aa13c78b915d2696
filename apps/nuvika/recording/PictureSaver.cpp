#include "PictureSaver.h"

#include <condition_variable>
#include <deque>
#include <mutex>
#include <system_error>
#include <utility>

namespace
{
// What a picture that waits takes, with what keeps it.
qint64 cost(const PictureFile& picture) { return picture.bytes.size() + 256; }
} // namespace

struct PictureSaver::Queue {
    Writer writer;
    mutable std::mutex mutex;
    std::condition_variable changed;
    std::deque<PictureFile> waiting;
    std::size_t nInWork = 0;
    qint64 nBytes = 0; // of both
    bool bEnding = false;
    bool bGivenUp = false; // nobody counts any more
    bool bEnded = false;
    Figures figures;

    void run();
    std::vector<PictureFile> takeBatch();
    void count(const std::vector<PictureFile>& batch);
};

void PictureSaver::Queue::run()
{
    std::unique_lock<std::mutex> lock(mutex);
    for (;;) {
        changed.wait(lock, [this] { return bEnding || !waiting.empty(); });
        std::vector<PictureFile> batch = takeBatch();
        if (batch.empty())
            break;
        lock.unlock();
        writer(&batch);
        lock.lock();
        if (!bGivenUp)
            count(batch);
    }
    bEnded = true;
    changed.notify_all();
}

std::vector<PictureFile> PictureSaver::Queue::takeBatch()
{
    std::vector<PictureFile> batch;
    for (; !waiting.empty() && batch.size() < kBatch; waiting.pop_front())
        batch.push_back(std::move(waiting.front()));
    nInWork = batch.size();
    return batch;
}

void PictureSaver::Queue::count(const std::vector<PictureFile>& batch)
{
    nInWork = 0;
    for (const PictureFile& picture : batch) {
        nBytes -= cost(picture);
        ++(picture.problem.isEmpty() ? figures.saved : figures.failed);
        if (!picture.problem.isEmpty())
            figures.problem = picture.problem;
    }
}

PictureSaver::PictureSaver(Writer writer, std::chrono::milliseconds patience)
    : m_queue(std::make_shared<Queue>()), m_patience(patience)
{
    m_queue->writer = std::move(writer);
}

bool PictureSaver::start()
{
    try {
        m_thread = std::thread([queue = m_queue] { queue->run(); });
    } catch (const std::system_error&) {
        return false;
    }
    return true;
}

void PictureSaver::save(const QString& name, const QByteArray& bytes)
{
    PictureFile picture{name, bytes, QString()};
    const std::lock_guard<std::mutex> lock(m_queue->mutex);
    const bool bFull = m_queue->nBytes > 0 && m_queue->nBytes + cost(picture) > kMostBytes;
    if (m_queue->bEnding || bFull) {
        ++m_queue->figures.dropped;
        return;
    }
    m_queue->nBytes += cost(picture);
    m_queue->waiting.push_back(std::move(picture));
    m_queue->changed.notify_all();
}

void PictureSaver::finish()
{
    if (!m_thread.joinable())
        return;
    std::unique_lock<std::mutex> lock(m_queue->mutex);
    m_queue->bEnding = true;
    m_queue->changed.notify_all();
    if (m_queue->changed.wait_for(lock, m_patience, [this] { return m_queue->bEnded; })) {
        lock.unlock();
        m_thread.join();
        return;
    }
    m_queue->figures.dropped += m_queue->waiting.size() + m_queue->nInWork;
    m_queue->waiting.clear();
    m_queue->bGivenUp = true;
    lock.unlock();
    m_thread.detach();
}

PictureSaver::Figures PictureSaver::figures() const
{
    const std::lock_guard<std::mutex> lock(m_queue->mutex);
    return m_queue->figures;
}

QString PictureSaver::Figures::shown() const
{
    QStringList reasons;
    if (failed > 0)
        reasons += problem;
    if (dropped > 0)
        reasons += QStringLiteral("the disk was too slow for %1").arg(dropped);
    return lost() == 0 ? QString()
                       : QStringLiteral("%1 pictures not saved (%2)")
                             .arg(QString::number(lost()), reasons.join(QLatin1String(", ")));
}
