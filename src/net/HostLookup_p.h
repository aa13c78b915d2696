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

    int enqueue(const QString& hostName, QObject* receiver, const char* slot); // any thread

public slots:
    void slotWorkerComplete(const QHostInfo& answer);

private:
    using EmitterPtr = std::shared_ptr<HostLookupResultEmitter>;
    struct CacheEntry {
        quint32 nTime;
        QHostInfo answer;
    };
    struct Request {
        int nId;
        EmitterPtr pEmitter;
    };
    struct Work;

    bool answerFromCache(const QString& hostName, const Request& request);
    void startWorker(const QString& hostName);
    static void worker(void* work);

    QHash<QString, CacheEntry> m_cache;
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
