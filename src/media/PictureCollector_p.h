// Private: makes access units of the NAL units of H.264 or H.265, whose packets say what belongs together in
// as many ways as there are cameras.
//
//                     slice                          marker (held until the next packet where markers are not
//                     trusted)
//          New ---------------------> Collecting ------------------> Marked
//           ^  ^                       |     |                          |
//           |  '- new timestamp,       |     |  loss, a bound           |  slice that goes on: markers are
//           not trusted |     trusted marker ------'     v                          |  (back to Collecting)
//           '--- new timestamp ----------- Lost                         '- new timestamp, first slice: New
//
// Parameter sets and what else stands before a picture end none and begin none: they wait for the next slice,
// whose timestamp is the picture's.
#pragma once

#include "media/AnnexBSplitter_p.h"
#include "media/NalCodec_p.h"
#include "media/UnitBuffer_p.h"

#include <KepNuvikaUtil/RtpUnitFormat.h>

#include <array>

namespace Nuvika
{
class PictureCollector final : private NalSink
{
public:
    PictureCollector(const NalCodec& codec, const RtpUnitFormat& format);

    // A unit of the description: its parameter sets count until the stream has its own.
    void describe(const QByteArray& unit);
    RtpMediaParameters described() const { return m_codec.describe(m_sets, m_sets.sequenceOf(0)); }

    // bGoesOn: the packet begins in the middle of a picture. Units that were not given are forgotten.
    void beginPacket(quint32 timestamp, quint32 lost, bool bGoesOn);
    AnnexBSplitter& units() { return m_units; }
    // What came is no unit, but belongs to a picture.
    void lose();
    void endPacket(bool bMarked);
    void flush();

    bool give(RtpAccessUnit* unit, RtpMediaParameters* parameters);
    quint64 unitsLost() const { return m_nUnitsLost; }

private:
    enum class State { New, Collecting, Marked, Lost };
    struct Finished {
        RtpAccessUnit unit;
        RtpMediaParameters parameters;
    };

    void nalBegins(const unsigned char* head, std::size_t size) override;
    void nalGoesOn(const unsigned char* data, std::size_t size) override;
    void nalZeros(std::size_t count) override;
    void nalEnds() override;

    bool hasPicture() const { return m_state == State::Collecting || m_state == State::Marked; }
    void afterLoss(quint32 timestamp, quint32 lost, bool bGoesOn);
    void sliceBegins(const NalInfo& info);
    void beginPicture(const NalInfo& info);
    void revokeRecovery();
    void placeSets(quint32 pictureSet);
    bool maySpendOnSets();
    bool writeSets();
    bool appendUnit(UnitBuffer* to, const unsigned char* data, std::size_t size);
    void openUnit(UnitBuffer* target, const unsigned char* head, std::size_t size);
    void overBound();
    void storeSet();
    void finish(bool bMoreFollows);

    const NalCodec& m_codec;
    const RtpUnitFormat m_format;
    AnnexBSplitter m_units{this};
    ParameterSets m_sets;

    State m_state = State::New;
    quint32 m_packetTimestamp = 0;
    RtpAccessUnit m_picture; // what of it is known yet
    UnitBuffer m_bytes; // of the picture
    UnitBuffer m_prefix; // what waits for the next slice
    UnitBuffer m_set;
    UnitBuffer* m_pTarget = nullptr; // of the open unit; null: not kept
    std::size_t m_nOpenedAt = 0;
    quint32 m_nNalUnits = 0; // of the picture and what waits
    NalInfo m_open;
    NalKind m_lastKind = NalKind::Filler; // Filler: none yet

    bool m_bDescribing = false;
    bool m_bTrustMarkers = false; // one stood at a picture's end
    bool m_bMarkersLie = false; // one stood in the middle of a picture
    bool m_bGivenByMarker = false; // the last picture
    bool m_bLostMarked = false; // Lost, and the marker has come
    bool m_bNeedFirst = true; // the next slice must be its picture's first
    bool m_bSpoiled = false; // something for the next picture went over a bound
    bool m_bReferencesLost = true;
    bool m_bLeadingLost = true; // what precedes the last key frame
    bool m_bPrefixRecovers = false;
    bool m_bRecoversByIntra = false; // by nothing else
    bool m_bSetsUnwritten = true;
    bool m_bWroteSets = false;
    std::size_t m_nReceived = 0; // bytes, since parameter sets were copied
    quint32 m_nSequence = 0; // the one that parameters were read from
    quint32 m_nHighestSubLayer;
    RtpMediaParameters m_parameters; // of the picture

    UnitBuffer m_done; // bytes of a unit that ended when the next one began
    std::array<Finished, 2> m_finished; // one when a packet begins, one when it ends
    std::size_t m_nFinished = 0;
    std::size_t m_nGiven = 0;
    quint32 m_nPacketsLost = 0;
    quint64 m_nUnitsLost = 0;
};
} // namespace Nuvika
