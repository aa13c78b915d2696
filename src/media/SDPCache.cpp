#include <KepNuvikaUtil/SDP.h>

#include "core/MutexGuard_p.h"
#include "media/SDPCache_p.h"
#include "media/SDPParser_p.h"
#include "platform/Clock_p.h"

#include <algorithm>
#include <atomic>
#include <list>
#include <memory>

QHash<QString, SDP*> SDP::s_sdpCache;
QMutex SDP::s_mutexCache;
quint64 SDP::s_lastCacheCheck = 0;

// The cache's entries stand in a line in the order of their use, the longest unused first.
struct SDP::CacheEntry : SDP {
    CacheEntry(const SDP& sdp, const QString& key) : SDP(sdp), text(key) { }

    QString text;
    int nBytes = 0;
    std::list<CacheEntry*>::iterator place;
};

struct SDP::CacheOwner {
    std::list<CacheEntry*> inUseOrder;
    qint64 nBytes = 0;

    ~CacheOwner()
    {
        qDeleteAll(inUseOrder);
        s_sdpCache.clear();
    }
    static CacheOwner instance;
};
SDP::CacheOwner SDP::CacheOwner::instance;

namespace
{
constexpr int kCacheLimit = 10000;
constexpr quint64 kCacheIdleMs = 20000;
constexpr qint64 kCacheBytes = 64 << 20;

std::atomic<unsigned long long> s_nLookedAt{0};

quint64 nowMs() { return Nuvika::Clock::wallClockMs(); }
} // namespace

unsigned long long Nuvika::sdpCacheEntriesLookedAt() { return s_nLookedAt; }

SDP SDP::fromSDPString(const QString& text)
{
    const Nuvika::MutexGuard lock(s_mutexCache);
    const quint64 now = nowMs();
    std::list<CacheEntry*>& inUseOrder = CacheOwner::instance.inUseOrder;
    const auto cached = s_sdpCache.constFind(text);
    if (cached != s_sdpCache.constEnd()) {
        auto* entry = static_cast<CacheEntry*>(*cached);
        entry->m_nLastUsed = now;
        inUseOrder.splice(inUseOrder.end(), inUseOrder, entry->place);
        return *entry;
    }
    SDP sdp;
    Parser(&sdp).parse(text);
    sdp.m_bValid = true;
    sdp.m_nLastUsed = now;
    forgetIdle();
    keep(text, sdp);
    return sdp;
}

void SDP::keep(const QString& text, const SDP& sdp)
{
    CacheOwner& cache = CacheOwner::instance;
    const qint64 bytes = sdp.bytes() + 2 * qint64(text.size());
    if (bytes > kCacheBytes)
        return;
    auto entry = std::make_unique<CacheEntry>(sdp, text);
    entry->nBytes = static_cast<int>(bytes);
    entry->place = cache.inUseOrder.insert(cache.inUseOrder.end(), entry.get());
    cache.nBytes += bytes;
    s_sdpCache.insert(text, entry.release());
    while (cache.nBytes > kCacheBytes)
        forgetOldest();
}

void SDP::forgetOldest()
{
    CacheOwner& cache = CacheOwner::instance;
    ++s_nLookedAt;
    const std::unique_ptr<CacheEntry> entry(cache.inUseOrder.front());
    cache.inUseOrder.pop_front();
    cache.nBytes -= entry->nBytes;
    s_sdpCache.remove(entry->text);
}

void SDP::forgetIdle()
{
    if (s_sdpCache.size() <= kCacheLimit)
        return;
    const quint64 now = nowMs();
    if (s_lastCacheCheck == 0)
        s_lastCacheCheck = now;
    if (s_lastCacheCheck - now <= kCacheIdleMs) // in this order, unsigned: time that went on is always more
        return;
    s_lastCacheCheck = now;
    CacheOwner& cache = CacheOwner::instance;
    ++s_nLookedAt; // the first that stays
    while (!cache.inUseOrder.empty() && now - cache.inUseOrder.front()->m_nLastUsed > kCacheIdleMs)
        forgetOldest();
}

// As the memory that a description takes, roughly.
qint64 SDP::bytes() const
{
    qint64 bytes = sizeof(CacheEntry);
    const auto add = [&bytes](const ParamList& params) {
        bytes += 64;
        for (const Param& param : params)
            bytes += 64 + 2 * qint64(param.second.size());
    };
    add(m_sessionParams);
    std::for_each(m_timeDescs.begin(), m_timeDescs.end(), add);
    std::for_each(m_mediaDescs.begin(), m_mediaDescs.end(), add);
    return bytes;
}

void SDP::reuse() { m_nLastUsed = nowMs(); }
