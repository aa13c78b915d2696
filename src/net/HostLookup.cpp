#include <KepNuvikaUtil/HostLookup.h>

#include "net/HostLookup_p.h"

#include <KepNuvikaUtil/SocketCalls.h>
#include <KepNuvikaUtil/SocketError.h>

#include "core/Log_p.h"
#include "core/MutexGuard_p.h"
#include "platform/Clock_p.h"
#include "platform/Resolver_p.h"
#include "platform/Thread_p.h"
#include "platform/WorkerPool_p.h"

#include <sys/socket.h>

using namespace Nuvika;

namespace
{
constexpr quint32 kCacheMs = 60000;
constexpr std::chrono::milliseconds kWorkerPatience{2000};

// Guards the pointer against a clean-up that meets a lookup on another thread.
QMutex s_hlmMutex;
HostLookupManager* s_pHlm = nullptr;

QString addressList(const QHostInfo& answer)
{
    QStringList texts;
    const QList<QHostAddress> addresses = answer.addresses();
    for (const QHostAddress& address : addresses)
        texts.append(address.toString());
    return texts.join(QLatin1String(", "));
}

QHostInfo resolve(const QString& hostName)
{
    const QByteArray name = hostName.toUtf8();
    std::vector<sockaddr_storage> found;
    const int code = Resolver::resolve(name.toStdString(), &found);
    QList<QHostAddress> addresses;
    for (const sockaddr_storage& address : found)
        addresses.append(QHostAddress(reinterpret_cast<const sockaddr*>(&address)));

    QHostInfo answer;
    answer.setHostName(hostName);
    answer.setAddresses(addresses);
    if (code == 0 && !addresses.isEmpty()) {
        answer.setError(QHostInfo::NoError);
        answer.setErrorString(QStringLiteral("Success"));
        NUVIKA_DEBUG(lcNet, "HostLookup: looking up %s done; lookup result: %s", name.constData(),
            qUtf8Printable(addressList(answer)));
    } else {
        answer.setError(QHostInfo::HostNotFound);
        answer.setErrorString(code == 0 ? QStringLiteral("Host not found") : SocketError::format(code));
        NUVIKA_WARNING(lcNet, "HostLookup: looking up %s failed: %s", name.constData(),
            qUtf8Printable(answer.errorString()));
    }
    return answer;
}
} // namespace

struct HostLookupManager::Work {
    QString hostName;
    std::shared_ptr<HostLookupLink> pLink;
};

HostLookupManager::HostLookupManager() : m_pLink(std::make_shared<HostLookupLink>())
{
    m_pLink->pManager = this;
}

HostLookupManager::~HostLookupManager()
{
    {
        const MutexGuard lock(m_mutex);
        m_bShuttingDown = true;
    }
    const MutexGuard lock(m_pLink->mutex);
    m_pLink->pManager = nullptr;
}

int HostLookupManager::enqueue(const QString& hostName, QObject* receiver, const char* slot)
{
    const MutexGuard lock(m_mutex);
    NUVIKA_ASSERT(!m_bShuttingDown);
    const Request request{++m_nLastId, std::make_shared<HostLookupResultEmitter>()};
    connect(request.pEmitter.get(), SIGNAL(sigResult(QHostInfo)), receiver, slot, Qt::QueuedConnection);
    if (answerFromCache(hostName, request))
        return request.nId;
    request.pEmitter->moveToThread(thread()); // where it will emit and end
    std::vector<Request>& requests = m_pending[hostName];
    requests.push_back(request);
    if (requests.size() == 1)
        startWorker(hostName);
    return request.nId;
}

bool HostLookupManager::answerFromCache(const QString& hostName, const Request& request)
{
    const auto cached = m_cache.find(hostName);
    if (cached == m_cache.end())
        return false;
    if (Clock::monotonicMs() - cached->nTime >= kCacheMs) {
        m_cache.erase(cached);
        return false;
    }
    QHostInfo answer = cached->answer;
    answer.setLookupId(request.nId);
    emit request.pEmitter->sigResult(answer);
    NUVIKA_DEBUG(lcNet, "HostLookup: %s found in cache; lookup result: %s", qUtf8Printable(hostName),
        qUtf8Printable(addressList(answer)));
    return true;
}

void HostLookupManager::startWorker(const QString& hostName)
{
    ++m_pLink->nWorkers;
    auto work = std::make_unique<Work>(Work{hostName, m_pLink});
    if (WorkerPool::lookups().submit(&HostLookupManager::worker, work.get())) {
        static_cast<void>(work.release()); // the worker's now
        return;
    }
    --m_pLink->nWorkers;
    NUVIKA_CRITICAL(lcNet, "HostLookup: looking up %s failed: no worker thread", qUtf8Printable(hostName));
    QHostInfo answer;
    answer.setHostName(hostName);
    answer.setError(QHostInfo::HostNotFound);
    answer.setErrorString(QStringLiteral("Host not found"));
    QMetaObject::invokeMethod(this, "slotWorkerComplete", Qt::QueuedConnection, Q_ARG(QHostInfo, answer));
}

void HostLookupManager::worker(void* p)
{
    const std::unique_ptr<Work> work(static_cast<Work*>(p));
    const QHostInfo answer = resolve(work->hostName);
    {
        const MutexGuard lock(work->pLink->mutex);
        if (work->pLink->pManager != nullptr)
            QMetaObject::invokeMethod(
                work->pLink->pManager, "slotWorkerComplete", Qt::QueuedConnection, Q_ARG(QHostInfo, answer));
    }
    --work->pLink->nWorkers;
}

void HostLookupManager::slotWorkerComplete(const QHostInfo& answer)
{
    std::vector<Request> requests;
    {
        const MutexGuard lock(m_mutex);
        if (m_bShuttingDown)
            return;
        const auto pending = m_pending.find(answer.hostName());
        if (pending == m_pending.end()) {
            NUVIKA_ASSERT(false);
            return;
        }
        requests.swap(*pending);
        m_pending.erase(pending);
        if (answer.error() == QHostInfo::NoError) {
            QHostInfo kept = answer;
            kept.setLookupId(-1);
            m_cache.insert(answer.hostName(), CacheEntry{Clock::monotonicMs(), kept});
        }
    }
    for (const Request& request : requests) {
        QHostInfo copy = answer;
        copy.setLookupId(request.nId);
        emit request.pEmitter->sigResult(copy);
    }
}

bool HostLookupManagerThread::startAndWait()
{
    if (!Threads::start(*this))
        return false;
    m_started.acquire(1);
    return true;
}

void HostLookupManagerThread::run()
{
    HostLookupManager manager;
    {
        const MutexGuard lock(s_hlmMutex);
        NUVIKA_ASSERT(!s_pHlm);
        s_pHlm = &manager;
    }
    m_started.release(1);
    exec();
    {
        const MutexGuard lock(s_hlmMutex);
        s_pHlm = nullptr;
    }
    WorkerPool::lookups().endWorkers(kWorkerPatience);
}

int NuvikaUtil::lookupHost(const QString& hostName, QObject* receiver, const char* slot)
{
    const MutexGuard lock(s_hlmMutex);
    return s_pHlm == nullptr ? 0 : s_pHlm->enqueue(hostName, receiver, slot);
}
