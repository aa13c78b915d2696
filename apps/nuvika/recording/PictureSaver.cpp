#include "PictureSaver.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <system_error>

namespace
{
constexpr std::chrono::seconds kPatience(10);

struct Picture {
    QString name;
    QByteArray bytes;
    qint64 cost() const { return bytes.size() + 256; } // with what keeps it
};
} // namespace

struct PictureSaver::Queue {
    Writer writer;
    mutable std::mutex mutex;
    std::condition_variable changed;
    std::deque<Picture> waiting; // the first is being written
    qint64 nBytes = 0;
    bool bEnding = false;
    bool bEnded = false; // the thread needs nothing more
    Figures figures;

    void run();
    void took(const QString& problem);
};

void PictureSaver::Queue::run()
{
    std::unique_lock<std::mutex> lock(mutex);
    for (;;) {
        changed.wait(lock, [this] { return bEnding || !waiting.empty(); });
        if (waiting.empty())
            break;
        const Picture picture = waiting.front();
        lock.unlock();
        const QString problem = writer(picture.name, picture.bytes);
        lock.lock();
        if (waiting.empty())
            break; // given up meanwhile
        took(problem);
    }
    bEnded = true;
    changed.notify_all();
}

void PictureSaver::Queue::took(const QString& problem)
{
    nBytes -= waiting.front().cost();
    waiting.pop_front();
    ++(problem.isEmpty() ? figures.saved : figures.failed);
    if (!problem.isEmpty())
        figures.problem = problem;
}

PictureSaver::PictureSaver(Writer writer) : m_queue(std::make_shared<Queue>())
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
    Picture picture{name, bytes};
    const std::lock_guard<std::mutex> lock(m_queue->mutex);
    if (m_queue->bEnding || m_queue->nBytes + picture.cost() > kMostBytes) {
        ++m_queue->figures.dropped;
        return;
    }
    m_queue->nBytes += picture.cost();
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
    if (m_queue->changed.wait_for(lock, kPatience, [this] { return m_queue->bEnded; })) {
        lock.unlock();
        m_thread.join();
        return;
    }
    m_queue->figures.dropped += m_queue->waiting.size();
    m_queue->waiting.clear();
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
