// Private: the parameter sets of a stream of H.264 or H.265, by kind and id. Those of the description hold
// until the stream says otherwise.
#pragma once

#include <QtCore/QByteArray>

#include <vector>

namespace Nuvika
{
// In the order in which they stand in a stream.
enum class ParameterSetKind { Video, Sequence, Picture };

struct ParameterSet {
    ParameterSetKind kind;
    quint32 id;
    quint32 sequence; // Picture: the id of the sequence's
    bool bDescribed; // in the description, and not yet seen in the stream
    QByteArray bytes;
};

class ParameterSets
{
public:
    explicit ParameterSets(std::size_t most) : m_nMost(most) { }

    // False when there are too many.
    bool store(const ParameterSet& set);
    const std::vector<ParameterSet>& all() const { return m_sets; }
    std::size_t bytes() const;
    // The sequence parameter set that a picture parameter set names, else any; null without one.
    const ParameterSet* sequenceOf(quint32 picture) const;

    // One of them was not there before. What looks for it says when it has seen it.
    bool isChanged() const { return m_bChanged; }
    void setSeen() { m_bChanged = false; }

private:
    void dropWrongDescription(ParameterSetKind kind);
    const ParameterSet* find(ParameterSetKind kind, quint32 id) const;

    std::size_t m_nMost;
    bool m_bChanged = false;
    std::vector<ParameterSet> m_sets; // by kind and id
};
} // namespace Nuvika
