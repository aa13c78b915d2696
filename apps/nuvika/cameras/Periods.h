// Recorded periods: in order, disjoint, those that touch or overlap as one.
#pragma once

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <map>

// A sender's clock may jump as it likes: adding a period costs the logarithm of their number, which is
// bounded.
template <class Time>
class Periods
{
public:
    static constexpr std::size_t kMost = 1000;

    // A period that begins within the tolerance behind another continues it. The oldest go when they become
    // too many.
    void add(const Time& begin, const Time& end, const Time& tolerance)
    {
        if (end < begin)
            return;
        Time from = begin;
        Time to = end;
        auto next = m_ends.upper_bound(begin);
        if (next != m_ends.begin()) {
            const auto before = std::prev(next);
            if (!(before->second + tolerance < begin)) {
                from = before->first;
                to = std::max(to, before->second);
                next = m_ends.erase(before);
            }
        }
        while (next != m_ends.end() && !(to < next->first)) { // each is swallowed once
            to = std::max(to, next->second);
            next = m_ends.erase(next);
        }
        m_ends.emplace_hint(next, from, to);
        if (m_ends.size() > kMost)
            m_ends.erase(m_ends.begin());
    }
    // Those that begin there or later were told by a clock that was wrong by so much.
    void moveFrom(const Time& begin, const Time& by, const Time& tolerance)
    {
        const auto first = m_ends.lower_bound(begin);
        const std::map<Time, Time> moved(first, m_ends.end());
        m_ends.erase(first, m_ends.end());
        for (const auto& period : moved)
            add(period.first + by, period.second + by, tolerance);
    }
    // Forgets what ended before the first or begins behind the second.
    void limitTo(const Time& oldest, const Time& newest)
    {
        while (!m_ends.empty() && m_ends.begin()->second < oldest)
            m_ends.erase(m_ends.begin());
        m_ends.erase(m_ends.upper_bound(newest), m_ends.end());
    }

    // The end of each by its begin.
    const std::map<Time, Time>& all() const { return m_ends; }
    int gaps() const { return std::max(0, static_cast<int>(m_ends.size()) - 1); }

private:
    std::map<Time, Time> m_ends;
};
