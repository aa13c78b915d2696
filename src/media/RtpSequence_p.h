// Private: what a sequence number tells beside the one that was expected (RFC 3550, appendix A.1).
#pragma once

#include <QtCore/QtGlobal>

namespace Nuvika
{
enum class SequenceStep {
    eForward, // the expected one, or few enough behind it for a loss
    eBehind, // late or a duplicate
    eJump // perhaps a new run
};

constexpr quint16 kMaxDropout = 3000;
constexpr quint16 kMaxMisorder = 100;

// \a distance: of the number from the expected one, modulo 2^16.
inline SequenceStep sequenceStep(quint16 distance)
{
    if (distance < kMaxDropout)
        return SequenceStep::eForward;
    return distance > quint16(0U - kMaxMisorder) ? SequenceStep::eBehind : SequenceStep::eJump;
}
} // namespace Nuvika
