#pragma once

#include <KepNuvikaUtil/Export.h>
#include <KepNuvikaUtil/NTPTimestamp.h>

#include <QtCore/QHashFunctions>
#include <QtCore/QPair>

#include <list>

/// A span of time, such as a recorded period: from begin() up to, not including, end(). Nothing enforces
/// begin <= end; every operation works on the two raw values.
/// Threads: a plain value.
class KEPNUVIKAUTIL_EXPORT NTPRange
{
public:
    NTPRange() = default;
    NTPRange(const NTPTimestamp& begin, const NTPTimestamp& end) : m_begin(begin), m_end(end) { }

    NTPTimestamp& begin() { return m_begin; }
    NTPTimestamp begin() const { return m_begin; }
    NTPTimestamp& end() { return m_end; }
    NTPTimestamp end() const { return m_end; }

    bool operator==(const NTPRange& other) const { return m_begin == other.m_begin && m_end == other.m_end; }
    bool operator!=(const NTPRange& other) const { return !(*this == other); }
    /// Lies wholly before the start of \a other.
    bool operator<(const NTPRange& other) const { return m_begin < other.m_begin && m_end < other.m_begin; }
    /// Lies wholly after the end of \a other.
    bool operator>(const NTPRange& other) const { return m_begin > other.m_end && m_end > other.m_end; }

    /// begin <= t < end.
    bool inRange(const NTPTimestamp& t) const { return m_begin <= t && t < m_end; }
    /// Both ends count as inside: ranges that touch intersect.
    bool intersects(const NTPRange& other) const;
    bool isEmpty() const { return m_begin == m_end; }
    /// Clamps \a t into the range, whose last instant is one unit before its end.
    void limitToRangeBounds(NTPTimestamp* t) const;
    /// Becomes the hull of both, which need not touch.
    void merge(const NTPRange& other);

private:
    NTPTimestamp m_begin;
    NTPTimestamp m_end;
};

/// Sorts by begin and merges what overlaps or touches, in place; empty ranges go. An empty range between two
/// that overlap keeps these apart.
KEPNUVIKAUTIL_EXPORT void combineRanges(std::list<NTPRange>* ranges);

/// The holes between the ranges of a combined list, such as the gaps of a recording. Ranges that are not in
/// order are reported as a failed assertion and give no gap.
KEPNUVIKAUTIL_EXPORT void gapsFromCombinedRanges(
    const std::list<NTPRange>& combined, std::list<NTPRange>* gaps);

inline uint qHash(const NTPRange& range, uint seed = 0)
{
    return qHash(qMakePair(range.begin(), range.end()), seed);
}

/// For logs.
KEPNUVIKAUTIL_EXPORT QDebug operator<<(QDebug debug, const NTPRange& range);
