// Private: the host lookup service, one thread and one manager for the life of the library.
#pragma once

#include <QtCore/QHash>
#include <QtCore/QMutex>
#include <QtCore/QObject>
#include <QtCore/QSemaphore>
#include <QtCore/QThread>
#include <QtNetwork/QHostInfo>

#include <atomic>
#include <memory>
#include <vector>

// Carries one answer to its requester; lives until that is delivered.
class HostLookupResultEmitter : public QObject
{
    Q_OBJECT
signals:
    void sigResult(const QHostInfo& info);
};

class HostLookupManager;

// What a running lookup holds on to. A lookup that hangs in the resolver owns all that it touches, and finds
// no manager when it wakes up after the clean-up.
struct HostLookupLink {
    QMutex mutex;
    HostLookupManager* pManager = nullptr; // guarded by the mutex
    std::atomic<int> nWorkers{0};
};

class HostLookupManager : public QObject
{
    Q_OBJECT
public:
    HostLookupManager();
    ~HostLookupManager() override;

    using EmitterPtr = std::shared_ptr<HostLookupResultEmitter>;
    // What is left to do for a request once no lock is held.
    struct Enqueued {
        int nId = 0;
        bool bShuttingDown = false;
        bool bCached = false;
        QHostInfo answer; // when cached
        std::shared_ptr<HostLookupLink> pRefused; // the system gave no worker
    };

    // Any thread. Under the service's lock: writes no record and runs nothing of the host's.
    Enqueued enqueue(const QString& hostName, const EmitterPtr& emitter);

public slots:
    void slotWorkerComplete(const QHostInfo& answer);

private:
    struct CacheEntry {
        quint64 nTime; // milliseconds that do not wrap
        QHostInfo answer;
    };
    struct Request {
        int nId;
        EmitterPtr pEmitter;
    };
    struct Work;

    bool findInCache(const QString& hostName, QHostInfo* answer);
    void cache(const QHostInfo& answer);
    bool startWorker(const QString& hostName);
    static void worker(void* work);

    QHash<QString, CacheEntry> m_cache;
    quint64 m_nLastSweep = 0;
    QHash<QString, std::vector<Request>> m_pending;
    int m_nLastId = 0;
    QMutex m_mutex; // guards all the above and the flag
    bool m_bShuttingDown = false;
    std::shared_ptr<HostLookupLink> m_pLink;
};

class HostLookupManagerThread : public QThread
{
    Q_OBJECT
public:
    // Returns when lookups can be posted; false when the system gives no thread.
    bool startAndWait();

protected:
    void run() override;

private:
    QSemaphore m_started{0};
};
