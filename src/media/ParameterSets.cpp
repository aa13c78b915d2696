#include "media/ParameterSets_p.h"

#include <algorithm>
#include <numeric>
#include <tuple>

using Nuvika::ParameterSet;
using Nuvika::ParameterSetKind;
using Nuvika::ParameterSets;

namespace
{
bool isBefore(const ParameterSet& a, const ParameterSet& b)
{
    return std::tie(a.kind, a.id) < std::tie(b.kind, b.id);
}
} // namespace

bool ParameterSets::store(const ParameterSet& set)
{
    auto place = std::lower_bound(m_sets.begin(), m_sets.end(), set, isBefore);
    const bool bKnown = place != m_sets.end() && !isBefore(set, *place);
    if (bKnown && place->bytes == set.bytes) {
        place->bDescribed = place->bDescribed && set.bDescribed;
        return true;
    }
    if (bKnown)
        *place = set;
    else if (m_sets.size() >= m_nMost)
        return false;
    else
        m_sets.insert(place, set);
    m_bChanged = true;
    if (!set.bDescribed)
        dropWrongDescription(set.kind);
    return true;
}

// One that the description did not have: what it did have of the kind is of another stream.
void ParameterSets::dropWrongDescription(ParameterSetKind kind)
{
    const auto isWrong = [kind](const ParameterSet& set) { return set.kind == kind && set.bDescribed; };
    m_sets.erase(std::remove_if(m_sets.begin(), m_sets.end(), isWrong), m_sets.end());
}

std::size_t ParameterSets::bytes() const
{
    return std::accumulate(
        m_sets.begin(), m_sets.end(), std::size_t{0}, [](std::size_t sum, const ParameterSet& set) {
            return sum + static_cast<std::size_t>(set.bytes.size());
        });
}

const ParameterSet* ParameterSets::sequenceOf(quint32 picture) const
{
    const ParameterSet* named = find(ParameterSetKind::Picture, picture);
    const ParameterSet* sequence
        = named == nullptr ? nullptr : find(ParameterSetKind::Sequence, named->sequence);
    if (sequence != nullptr)
        return sequence;
    const auto any = std::find_if(m_sets.begin(), m_sets.end(),
        [](const ParameterSet& set) { return set.kind == ParameterSetKind::Sequence; });
    return any == m_sets.end() ? nullptr : &*any;
}

const ParameterSet* ParameterSets::find(ParameterSetKind kind, quint32 id) const
{
    const auto found = std::find_if(m_sets.begin(), m_sets.end(),
        [kind, id](const ParameterSet& set) { return set.kind == kind && set.id == id; });
    return found == m_sets.end() ? nullptr : &*found;
}
