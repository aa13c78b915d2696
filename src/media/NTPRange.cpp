#include <KepNuvikaUtil/NTPRange.h>

#include "core/Log_p.h"

#include <algorithm>
#include <iterator>

bool NTPRange::intersects(const NTPRange& other) const
{
    if (other.m_begin < m_begin && other.m_end < m_begin)
        return false;
    return other.m_begin <= m_end || other.m_end <= m_end;
}

void NTPRange::limitToRangeBounds(NTPTimestamp* t) const
{
    if (isEmpty()) {
        *t = m_begin;
        return;
    }
    if (*t >= m_end)
        *t = m_end.isNull() ? m_end : m_end - NTPTimestamp::fromRawHostByteOrder(1);
    if (*t < m_begin)
        *t = m_begin;
}

void NTPRange::merge(const NTPRange& other)
{
    m_begin = std::min(m_begin, other.m_begin);
    m_end = std::max(m_end, other.m_end);
}

void combineRanges(std::list<NTPRange>* ranges)
{
    ranges->sort([](const NTPRange& a, const NTPRange& b) { return a.begin() < b.begin(); });
    if (ranges->empty())
        return;
    auto current = ranges->begin();
    for (auto next = std::next(current); next != ranges->end(); current = next++) {
        if (current->isEmpty()) {
            ranges->erase(current);
        } else if (current->end() >= next->begin() && !next->isEmpty()) {
            next->merge(*current);
            ranges->erase(current);
        }
    }
    if (current->isEmpty())
        ranges->erase(current);
}

void gapsFromCombinedRanges(const std::list<NTPRange>& combined, std::list<NTPRange>* gaps)
{
    gaps->clear();
    if (combined.size() < 2)
        return;
    auto posFirst = combined.begin();
    for (auto posSecond = std::next(posFirst); posSecond != combined.end(); posFirst = posSecond++) {
        NUVIKA_ASSERT(posFirst->end() < posSecond->begin());
        if (posFirst->end() < posSecond->begin())
            gaps->emplace_back(posFirst->end(), posSecond->begin());
    }
}
