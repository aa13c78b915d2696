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

#include <iterator>

#include <sys/socket.h>

using namespace Nuvika;

namespace
{
constexpr quint64 kCacheMs = 60000;
constexpr std::chrono::milliseconds kWorkerPatience{2000};

// Guards the pointer against a clean-up that meets a lookup on another thread.
QMutex s_hlmMutex;
HostLookupManager* s_pHlm = nullptr;

bool isServing()
{
    const MutexGuard lock(s_hlmMutex);
    return s_pHlm != nullptr;
}

QString addressList(const QHostInfo& answer)
{
    QStringList texts;
    const QList<QHostAddress> addresses = answer.addresses();
    for (const QHostAddress& address : addresses)
        texts.append(address.toString());
    return texts.join(QLatin1String(", "));
}

QHostInfo notFound(const QString& hostName)
{
    QHostInfo answer;
    answer.setHostName(hostName);
    answer.setError(QHostInfo::HostNotFound);
    answer.setErrorString(QStringLiteral("Host not found"));
    return answer;
}

// Hands the answer to the manager, if it is still there.
void complete(HostLookupLink& link, const QHostInfo& answer)
{
    const MutexGuard lock(link.mutex);
    if (link.pManager != nullptr)
        QMetaObject::invokeMethod(
            link.pManager, "slotWorkerComplete", Qt::QueuedConnection, Q_ARG(QHostInfo, answer));
}

// Of 32 bits they would call an answer of 49.7 days ago new.
quint64 nowMs() { return Clock::monotonicNs() / 1000000; }

QHostInfo resolve(const QString& hostName)
{
    const QByteArray name = hostName.toUtf8();
    std::vector<sockaddr_storage> found;
    const int code = Resolver::resolve(name.toStdString(), &found);
    QList<QHostAddress> addresses;
    for (const sockaddr_storage& address : found)
        addresses.append(QHostAddress(reinterpret_cast<const sockaddr*>(&address)));

    QHostInfo answer = notFound(hostName);
    answer.setAddresses(addresses);
    if (code == 0 && !addresses.isEmpty()) {
        answer.setError(QHostInfo::NoError);
        answer.setErrorString(QStringLiteral("Success"));
        NUVIKA_DEBUG(lcNet, "HostLookup: looking up %s done; lookup result: %s", name.constData(),
            qUtf8Printable(addressList(answer)));
    } else {
        if (code != 0)
            answer.setErrorString(SocketError::format(code));
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

HostLookupManager::Enqueued HostLookupManager::enqueue(const QString& hostName, const EmitterPtr& emitter)
{
    const MutexGuard lock(m_mutex);
    Enqueued result;
    result.nId = ++m_nLastId;
    result.bShuttingDown = m_bShuttingDown;
    result.bCached = findInCache(hostName, &result.answer);
    if (result.bCached) {
        result.answer.setLookupId(result.nId);
        return result;
    }
    std::vector<Request>& requests = m_pending[hostName];
    requests.push_back({result.nId, emitter});
    if (requests.size() == 1 && !startWorker(hostName))
        result.pRefused = m_pLink;
    return result;
}

bool HostLookupManager::findInCache(const QString& hostName, QHostInfo* answer)
{
    const auto cached = m_cache.find(hostName);
    if (cached == m_cache.end())
        return false;
    if (nowMs() - cached->nTime >= kCacheMs) {
        m_cache.erase(cached);
        return false;
    }
    *answer = cached->answer;
    return true;
}

// Names that nobody asks for again go as well, in one look at all of them for each time that an answer lasts.
void HostLookupManager::cache(const QHostInfo& answer)
{
    const quint64 now = nowMs();
    if (now - m_nLastSweep >= kCacheMs) {
        m_nLastSweep = now;
        for (auto entry = m_cache.begin(); entry != m_cache.end();)
            entry = now - entry->nTime >= kCacheMs ? m_cache.erase(entry) : std::next(entry);
    }
    QHostInfo kept = answer;
    kept.setLookupId(-1);
    m_cache.insert(answer.hostName(), CacheEntry{now, kept});
}

bool HostLookupManager::startWorker(const QString& hostName)
{
    ++m_pLink->nWorkers;
    auto work = std::make_unique<Work>(Work{hostName, m_pLink});
    if (WorkerPool::lookups().submit(&HostLookupManager::worker, work.get())) {
        static_cast<void>(work.release()); // the worker's now
        return true;
    }
    --m_pLink->nWorkers;
    return false;
}

void HostLookupManager::worker(void* p)
{
    const std::unique_ptr<Work> work(static_cast<Work*>(p));
    complete(*work->pLink, resolve(work->hostName));
    --work->pLink->nWorkers;
}

void HostLookupManager::slotWorkerComplete(const QHostInfo& answer)
{
    std::vector<Request> requests;
    {
        const MutexGuard lock(m_mutex);
        if (m_bShuttingDown)
            return;
        requests = m_pending.take(answer.hostName());
        if (answer.error() == QHostInfo::NoError)
            cache(answer);
    }
    if (requests.empty())
        NUVIKA_ASSERT(false);
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
    if (isServing())
        nuvikaAssertPrint("!s_pHlm", baseName(__FILE__), __LINE__);
    {
        const MutexGuard lock(s_hlmMutex);
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

// A log handler of the host's may look up a name, and connecting, emitting and writing records run what is
// the host's: no lock is held then.
int NuvikaUtil::lookupHost(const QString& hostName, QObject* receiver, const char* slot)
{
    if (!isServing())
        return 0;
    const auto emitter = std::make_shared<HostLookupResultEmitter>();
    QObject::connect(emitter.get(), SIGNAL(sigResult(QHostInfo)), receiver, slot, Qt::QueuedConnection);
    HostLookupManager::Enqueued enqueued;
    {
        const MutexGuard lock(s_hlmMutex);
        if (s_pHlm == nullptr)
            return 0;
        enqueued = s_pHlm->enqueue(hostName, emitter);
    }
    if (enqueued.bShuttingDown)
        nuvikaAssertPrint("!m_bShuttingDown", baseName(__FILE__), __LINE__);
    if (enqueued.bCached) {
        emit emitter->sigResult(enqueued.answer);
        NUVIKA_DEBUG(lcNet, "HostLookup: %s found in cache; lookup result: %s", qUtf8Printable(hostName),
            qUtf8Printable(addressList(enqueued.answer)));
    } else if (enqueued.pRefused) {
        NUVIKA_CRITICAL(
            lcNet, "HostLookup: looking up %s failed: no worker thread", qUtf8Printable(hostName));
        complete(*enqueued.pRefused, notFound(hostName));
    }
    return enqueued.nId;
}
