#include <KepNuvikaUtil/RtpReorderBuffer.h>

#include "media/RtpSequence_p.h"

#include <algorithm>
#include <utility>

using Nuvika::SequenceStep;

namespace
{
constexpr qint64 kCycle = 0x10000;

QByteArray copyOf(const RTPPacket& packet)
{
    return QByteArray(
        reinterpret_cast<const char*>(packet.getRawPacket()), static_cast<int>(packet.getRawPacketSize()));
}

RTPPacket viewOf(const QByteArray& bytes)
{
    return RTPPacket(
        reinterpret_cast<const unsigned char*>(bytes.constData()), static_cast<unsigned int>(bytes.size()));
}
} // namespace

RtpReorderBuffer::RtpReorderBuffer(int maxPackets, int maxWaitMs)
    : m_nMaxPackets(static_cast<std::size_t>(qBound(0, maxPackets, kMostPackets))),
      m_maxWaitUs(qint64(qMax(0, maxWaitMs)) * 1000)
{
    if (m_maxWaitUs == 0)
        m_nMaxPackets = 0;
}

void RtpReorderBuffer::reset()
{
    m_bStarted = false;
    m_held.clear();
    m_suspect = Held();
}

qint64 RtpReorderBuffer::expected() const { return std::max(m_next, m_runStart); }

bool RtpReorderBuffer::push(const RTPPacket& packet, qint64 nowUs, RtpOrderedPacket* out)
{
    if (!packet.isHeaderValid())
        return false;
    ++m_counts.nReceived;
    const bool bFirst = !std::exchange(m_bStarted, true);
    if (bFirst) {
        m_next = m_runStart = (((m_next >> 16) + 1) << 16) + packet.getSeqNum();
        m_seen.reset();
        ++m_counts.nRuns;
    }
    const auto distance = static_cast<quint16>(packet.getSeqNum() - static_cast<quint16>(expected()));
    const SequenceStep step = Nuvika::sequenceStep(distance);
    if (step == SequenceStep::eBehind)
        takeBehind(distance);
    if (step == SequenceStep::eJump)
        takeJump(packet, nowUs);
    if (step != SequenceStep::eForward)
        return false;
    if (!m_suspect.bytes.isEmpty()) {
        ++m_counts.nStrays;
        m_suspect = Held();
    }
    const qint64 sequence = expected() + distance;
    const bool bPasses = distance == 0 && (m_held.empty() || m_held.front().sequence > sequence);
    if (!bPasses && (!m_held.empty() || m_nMaxPackets > 0)) {
        hold(packet, sequence, nowUs);
        return false;
    }
    // One by one: a whole that was just put together is read back before its parts have arrived.
    out->packet = packet;
    out->sequence = sequence;
    out->arrivalUs = nowUs;
    out->nLost = advanceTo(sequence);
    out->bNewRun = bFirst;
    return true;
}

bool RtpReorderBuffer::isNext(const Held& held, qint64 nowUs) const
{
    return held.sequence == m_next || held.sequence <= m_runStart || m_held.size() > m_nMaxPackets
        || nowUs >= dueAt();
}

bool RtpReorderBuffer::pop(qint64 nowUs, RtpOrderedPacket* out)
{
    if (m_held.empty() || !isNext(m_held.front(), nowUs))
        return false;
    Held first = std::move(m_held.front());
    m_held.erase(m_held.begin());
    if (first.bNewRun) {
        m_next = first.sequence;
        m_seen.reset();
    }
    m_delivered = std::move(first.bytes);
    *out = {viewOf(m_delivered), first.sequence, first.arrivalUs, advanceTo(first.sequence), first.bNewRun};
    return true;
}

qint64 RtpReorderBuffer::dueAt() const
{
    if (m_held.empty())
        return kNever;
    const auto oldest = std::min_element(m_held.begin(), m_held.end(),
        [](const Held& left, const Held& right) { return left.arrivalUs < right.arrivalUs; });
    return oldest->arrivalUs + (m_nMaxPackets > 0 ? m_maxWaitUs : 0);
}

// Delivered up to here: gives how many were not there.
quint32 RtpReorderBuffer::advanceTo(qint64 sequence)
{
    const auto lost = static_cast<quint32>(sequence - m_next);
    m_counts.nLost += lost;
    m_next = sequence + 1;
    m_seen <<= lost + 1U;
    m_seen.set(0);
    return lost;
}

bool RtpReorderBuffer::holds(qint64 sequence) const
{
    const auto found = std::lower_bound(m_held.begin(), m_held.end(), sequence,
        [](const Held& held, qint64 value) { return held.sequence < value; });
    return found != m_held.end() && found->sequence == sequence;
}

void RtpReorderBuffer::hold(const RTPPacket& packet, qint64 sequence, qint64 nowUs)
{
    if (holds(sequence)) {
        ++m_counts.nDuplicates;
        return;
    }
    if (m_held.size() > m_nMaxPackets + 1) // nobody calls pop()
        return;
    auto place = m_held.end(); // most often its place
    while (place != m_held.begin() && std::prev(place)->sequence > sequence)
        --place;
    m_held.insert(place, {sequence, nowUs, copyOf(packet), false});
}

void RtpReorderBuffer::takeBehind(quint16 distance)
{
    const std::size_t back = static_cast<quint16>(0U - distance) - 1U;
    const bool bSeen = m_next < m_runStart || m_seen.test(back);
    ++(bSeen ? m_counts.nDuplicates : m_counts.nLate);
    if (!bSeen)
        m_seen.set(back);
}

// The first of a run waits for the second.
void RtpReorderBuffer::takeJump(const RTPPacket& packet, qint64 nowUs)
{
    const quint16 seqNum = packet.getSeqNum();
    const bool bSuspected = !m_suspect.bytes.isEmpty();
    if (bSuspected && seqNum == m_suspect.sequence) {
        ++m_counts.nDuplicates;
        return;
    }
    if (!bSuspected || seqNum != static_cast<quint16>(m_suspect.sequence + 1)) {
        m_counts.nStrays += bSuspected ? 1U : 0U;
        m_suspect = {seqNum, nowUs, copyOf(packet), true};
        return;
    }
    const qint64 newest = m_held.empty() ? expected() : m_held.back().sequence;
    m_suspect.sequence += ((newest >> 16) + 1) * kCycle;
    m_runStart = m_suspect.sequence;
    m_held.push_back(std::exchange(m_suspect, Held()));
    m_held.push_back({m_runStart + 1, nowUs, copyOf(packet), false});
    ++m_counts.nRuns;
}
