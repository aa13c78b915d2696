#include "media/PictureCollector_p.h"

#include "media/SupplementalMessages_p.h"

#include <algorithm>
#include <utility>

using Nuvika::PictureCollector;
using Nuvika::UnitBuffer;

namespace
{
constexpr std::size_t kFraming = 4; // a start code or a length
}

PictureCollector::PictureCollector(const NalCodec& codec, const RtpUnitFormat& format)
    : m_codec(codec), m_format(format), m_sets(format.nMaxParameterSets), m_bytes(format.nMaxUnitBytes),
      m_prefix(format.nMaxUnitBytes), m_set(format.nMaxParameterSetBytes),
      m_nHighestSubLayer(codec.highestSubLayer(nullptr)), m_done(format.nMaxUnitBytes)
{
}

void PictureCollector::describe(const QByteArray& unit)
{
    m_bDescribing = true;
    m_units.begin();
    m_units.add(
        reinterpret_cast<const unsigned char*>(unit.constData()), static_cast<std::size_t>(unit.size()));
    m_units.end();
    m_bDescribing = false;
    m_bSpoiled = false;
    m_lastKind = NalKind::Filler;
}

void PictureCollector::beginPacket(quint32 timestamp, quint32 lost, bool bGoesOn)
{
    m_nFinished = 0;
    m_nGiven = 0;
    if (lost > 0)
        afterLoss(timestamp, lost, bGoesOn);
    if (timestamp != m_packetTimestamp)
        m_units.end();
    if (hasPicture() && timestamp != m_picture.nTimestamp) {
        m_bTrustMarkers = m_bTrustMarkers || m_state == State::Marked;
        m_bGivenByMarker = false;
        finish(true);
    }
    if (m_state == State::Lost && timestamp != m_picture.nTimestamp)
        m_state = State::New;
    m_packetTimestamp = timestamp;
}

// What was lost belongs to the open picture, unless it is known to be complete, or a single packet is missing
// that must have been the beginning of the next.
void PictureCollector::afterLoss(quint32 timestamp, quint32 lost, bool bGoesOn)
{
    const bool bInUnit = m_units.isOpen();
    m_units.abort();
    if (hasPicture()) {
        const bool bMarked = m_state == State::Marked && !m_bMarkersLie;
        const bool bNextOnes = lost == 1 && bGoesOn && !bInUnit;
        if (timestamp != m_picture.nTimestamp && (bMarked || bNextOnes))
            finish(true);
        else
            lose();
    }
    m_prefix.clear();
    m_bPrefixRecovers = false;
    m_nNalUnits = 0;
    m_lastKind = NalKind::Filler;
    m_bGivenByMarker = false;
    m_bNeedFirst = true;
    m_bReferencesLost = true;
    m_nPacketsLost += lost;
}

void PictureCollector::lose()
{
    if (m_state == State::Lost)
        return;
    if (!hasPicture())
        m_picture.nTimestamp = m_packetTimestamp;
    m_bSetsUnwritten = m_bSetsUnwritten || (hasPicture() && m_bWroteSets);
    m_bytes.clear();
    m_prefix.clear();
    m_pTarget = nullptr;
    m_nNalUnits = 0;
    m_bSpoiled = false;
    m_bGivenByMarker = false;
    m_state = State::Lost;
    m_bLostMarked = false;
    m_bNeedFirst = true;
    m_bReferencesLost = true;
    m_lastKind = NalKind::Slice;
    ++m_nUnitsLost;
}

void PictureCollector::endPacket(bool bMarked)
{
    if (!bMarked)
        return;
    m_units.end();
    if (m_lastKind != NalKind::Slice && m_lastKind != NalKind::Suffix)
        return;
    if (m_state == State::Lost)
        m_bLostMarked = true;
    if (m_state != State::Collecting)
        return;
    m_state = State::Marked;
    if (m_bTrustMarkers && !m_bMarkersLie) {
        m_bGivenByMarker = true;
        finish(false);
    }
}

void PictureCollector::flush()
{
    m_nFinished = 0;
    m_nGiven = 0;
    if (hasPicture() && m_units.isOpen())
        lose();
    else if (hasPicture())
        finish(false);
    m_units.abort();
    m_state = State::New;
    m_bGivenByMarker = false;
}

// Bytes of a picture behind which another one follows at once are put aside.
void PictureCollector::finish(bool bMoreFollows)
{
    if (bMoreFollows)
        std::swap(m_bytes, m_done);
    const UnitBuffer& bytes = bMoreFollows ? m_done : m_bytes;
    m_picture.pData = bytes.data();
    m_picture.nSize = static_cast<quint32>(bytes.size());
    m_picture.nPacketsLost = m_nPacketsLost;
    m_nPacketsLost = 0;
    m_nNalUnits = 0;
    m_finished[m_nFinished++] = {m_picture, m_parameters};
    m_state = State::New;
}

bool PictureCollector::give(RtpAccessUnit* unit, RtpMediaParameters* parameters)
{
    if (m_nGiven == m_nFinished)
        return false;
    *unit = m_finished[m_nGiven].unit;
    *parameters = m_finished[m_nGiven].parameters;
    ++m_nGiven;
    return true;
}

void PictureCollector::nalBegins(const unsigned char* head, std::size_t size)
{
    m_open = m_codec.inspect(head, size);
    m_nReceived += size;
    m_pTarget = nullptr;
    if (m_bDescribing && m_open.kind != NalKind::ParameterSet)
        return;
    if (m_open.kind != NalKind::Filler)
        m_lastKind = m_open.kind;
    if (m_open.kind == NalKind::Slice) {
        sliceBegins(m_open);
        if (m_state == State::Collecting)
            openUnit(&m_bytes, head, size);
    } else if (m_open.kind == NalKind::ParameterSet) {
        m_set.clear();
        m_pTarget = &m_set;
        if (!m_set.append(head, size))
            overBound();
    } else if (m_open.kind == NalKind::Prefix) {
        openUnit(&m_prefix, head, size);
    } else if (m_open.kind == NalKind::Suffix && hasPicture()) {
        openUnit(&m_bytes, head, size);
    }
}

void PictureCollector::sliceBegins(const NalInfo& info)
{
    if (m_state == State::Marked && !info.bFirst) {
        m_bMarkersLie = true;
        m_state = State::Collecting;
    } else if (m_state == State::Marked) {
        m_bTrustMarkers = true;
        finish(true);
    } else if (m_state == State::Lost && m_bLostMarked && info.bFirst) {
        m_state = State::New;
    }
    if (m_state == State::New) {
        const bool bGivenTooEarly
            = m_bGivenByMarker && !info.bFirst && m_packetTimestamp == m_picture.nTimestamp;
        m_bMarkersLie = m_bMarkersLie || bGivenTooEarly;
        if (bGivenTooEarly || m_bSpoiled || (m_bNeedFirst && !info.bFirst))
            lose();
        else
            beginPicture(info);
    }
    if (m_state != State::Collecting)
        return;
    m_picture.bDroppable = m_picture.bDroppable && !info.bReference && info.nSubLayer >= m_nHighestSubLayer;
    if (m_bRecoversByIntra && !info.bIntra)
        revokeRecovery();
    if (!m_bytes.append(m_prefix))
        overBound();
    m_prefix.clear();
}

// It began with an intra slice, but has others, too.
void PictureCollector::revokeRecovery()
{
    m_bRecoversByIntra = false;
    m_bReferencesLost = m_bLeadingLost;
    m_picture.bRecoveryPoint = false;
    m_picture.bReferencesLost = m_bLeadingLost;
}

void PictureCollector::beginPicture(const NalInfo& info)
{
    m_state = State::Collecting;
    m_bytes.clear();
    m_bNeedFirst = false;
    m_picture = RtpAccessUnit();
    m_picture.nTimestamp = m_packetTimestamp;
    m_picture.bKeyFrame = info.bKey;
    m_picture.bRecoveryPoint = info.bKey || info.bIntra || m_bPrefixRecovers;
    m_picture.bDroppable = true;
    m_bRecoversByIntra = info.bIntra && !info.bKey && !m_bPrefixRecovers;
    m_bPrefixRecovers = false;
    if (m_picture.bRecoveryPoint) {
        m_bLeadingLost = m_bReferencesLost;
        m_bReferencesLost = false;
    }
    m_picture.bReferencesLost = m_bReferencesLost || (info.bLeading && m_bLeadingLost);
    placeSets(info.nPictureSet);
}

// Tells of parameter sets, and writes them, where this picture asks for it.
void PictureCollector::placeSets(quint32 pictureSet)
{
    const ParameterSet* sequence = m_sets.sequenceOf(pictureSet);
    const bool bNew = m_sets.isChanged() || (sequence != nullptr && sequence->id != m_nSequence);
    const bool bRepeat = m_format.parameterSets == RtpUnitFormat::eAtKeyFrames && m_picture.bRecoveryPoint;
    m_bWroteSets = false;
    if (!(bNew || bRepeat || m_bSetsUnwritten) || !maySpendOnSets())
        return;
    if (bNew) {
        m_parameters = m_codec.describe(m_sets, sequence);
        m_nHighestSubLayer = m_codec.highestSubLayer(sequence);
        m_nSequence = sequence == nullptr ? 0 : sequence->id;
        m_bSetsUnwritten = m_bSetsUnwritten || m_sets.isChanged();
        m_sets.setSeen();
    }
    m_bWroteSets = m_bSetsUnwritten || bRepeat;
    m_bSetsUnwritten = false;
    if (m_bWroteSets && m_format.parameterSets != RtpUnitFormat::eApart && !writeSets())
        overBound();
}

// A picture may have ten bytes, and the sets before it two million: large ones are copied no more often than
// as many bytes have come.
bool PictureCollector::maySpendOnSets()
{
    constexpr std::size_t kLarge = 4096;
    const std::size_t bytes = m_sets.bytes();
    if (bytes > kLarge && m_nReceived < bytes)
        return false;
    m_nReceived = 0;
    return true;
}

bool PictureCollector::writeSets()
{
    for (const ParameterSet& set : m_sets.all()) {
        const auto size = static_cast<std::size_t>(set.bytes.size());
        if (!appendUnit(&m_bytes, reinterpret_cast<const unsigned char*>(set.bytes.constData()), size))
            return false;
        m_bytes.write32(m_bytes.size() - size - kFraming,
            m_format.framing == RtpUnitFormat::eAnnexB ? 1 : static_cast<quint32>(size));
    }
    return true;
}

bool PictureCollector::appendUnit(UnitBuffer* to, const unsigned char* data, std::size_t size)
{
    static constexpr unsigned char kStartCode[kFraming] = {0, 0, 0, 1};
    return to->append(kStartCode, kFraming) && to->append(data, size);
}

void PictureCollector::openUnit(UnitBuffer* target, const unsigned char* head, std::size_t size)
{
    m_pTarget = target;
    m_nOpenedAt = target->size();
    if (++m_nNalUnits > m_format.nMaxNalUnits || !appendUnit(target, head, size))
        overBound();
}

void PictureCollector::nalGoesOn(const unsigned char* data, std::size_t size)
{
    m_nReceived += size;
    if (m_pTarget != nullptr && !m_pTarget->append(data, size))
        overBound();
}

void PictureCollector::nalZeros(std::size_t count)
{
    m_nReceived += count;
    if (m_pTarget != nullptr && !m_pTarget->appendZeros(count))
        overBound();
}

void PictureCollector::overBound()
{
    if (hasPicture())
        lose();
    else
        m_bSpoiled = m_state != State::Lost;
    m_prefix.clear();
    m_pTarget = nullptr;
}

void PictureCollector::nalEnds()
{
    if (m_pTarget == &m_set)
        storeSet();
    else if (m_pTarget != nullptr && m_format.framing == RtpUnitFormat::eLengthPrefixed)
        m_pTarget->write32(m_nOpenedAt, static_cast<quint32>(m_pTarget->size() - m_nOpenedAt - kFraming));
    if (m_pTarget == &m_prefix && m_open.bSupplement) {
        const std::size_t begin = m_nOpenedAt + kFraming + m_codec.headSize();
        const std::size_t end = std::max(begin, m_prefix.size()); // a head alone ends before
        m_bPrefixRecovers = m_bPrefixRecovers || hasRecoveryPoint(m_prefix.data() + begin, end - begin);
    }
    m_pTarget = nullptr;
}

void PictureCollector::storeSet()
{
    const QByteArray bytes(reinterpret_cast<const char*>(m_set.data()), static_cast<int>(m_set.size()));
    ParameterSet set = m_codec.readSet(m_open.set, bytes);
    set.bDescribed = m_bDescribing;
    if (!m_sets.store(set))
        overBound();
}
