// Private: what a track receives: which packets are its own, their order, their units, and what is counted.
// No socket, no signal.
#pragma once

#include <KepNuvikaUtil/RtpDepacketizer.h>
#include <KepNuvikaUtil/RtpReception.h>
#include <KepNuvikaUtil/RtpReorderBuffer.h>
#include <KepNuvikaUtil/RtspOptions.h>
#include <KepNuvikaUtil/RtspTrack.h>

#include "rtsp/RtspFields_p.h"

#include <bitset>
#include <memory>
#include <optional>

namespace Nuvika
{
class RtspTrackInput
{
public:
    RtspTrackInput(const RtspTrack& track, const RtspOptions& options);

    enum class Verdict { Dropped, Taken, NewSource };
    // Whether a packet is of this track, and counts it. NewSource: what order holds is of another source;
    // take it, then beginSource(), and then the packet of the new source that takeRival() may give.
    Verdict admit(const RTPPacket& packet, qint64 nowUs);
    void beginSource(quint32 ssrc);
    QByteArray takeRival();
    bool hasPayloadType(int type) const // also of packets that are none
    {
        return type >= 0 && type < static_cast<int>(m_types.size())
            && m_types[static_cast<std::size_t>(type)];
    }
    // Of the answers to SETUP and PLAY.
    void announceSource(std::optional<quint32> ssrc) { m_announced = ssrc; }
    void announceFirst(const RtpInfo& info);
    void setOrdering(int packets, int ms) { m_order = RtpReorderBuffer(packets, ms); }
    // It comes on a connection that nobody else writes, in its order.
    void setInterleaved()
    {
        setOrdering(0, 0);
        m_bInterleaved = true;
    }
    // Its source has left: another one may begin at once.
    void sourceLeft(quint32 ssrc);

    // The next packet in order: units() has what it completes. \a bBroken: what was before does not join it.
    void push(const RtpOrderedPacket& ordered, bool bBroken);
    // One of them that makes no unit.
    void makeMute(RTPPacket* packet) const
    {
        packet->setPayloadType(static_cast<rtp_payload_t>(m_nType ^ 1));
    }
    std::optional<quint32> source() const { return m_source; }
    RtpReorderBuffer& order() { return m_order; }
    RtpDepacketizer* units() { return m_pUnits.get(); }
    RtpReception* reception() { return m_pReception.get(); }
    void countUnit() { ++m_counts.nUnits; }
    RtpMediaParameters parameters() const;
    RtspTrackStatistics statistics() const;
    // The same, and closes the interval since the last one.
    RtspTrackStatistics takeStatistics(qint64 nowUs);

private:
    bool isBeforeFirst(const RTPPacket& packet);
    bool isReplacedBy(const RTPPacket& packet, qint64 nowUs);
    void noteSource(bool bNew, qint64 nowUs);

    RtspQuirks m_quirks;
    std::bitset<128> m_types; // that were described
    int m_nType;
    quint32 m_nClockRate;
    std::optional<quint32> m_announced;
    std::optional<quint32> m_source;
    qint64 m_sourceUs = 0; // its last packet
    qint64 m_sourceBeganUs = 0;
    qint64 m_longestPauseUs = 0; // between two of its packets
    bool m_bInterleaved = false;
    QByteArray m_rival; // the last packet, of another source, that may replace it
    RtpInfo m_first;
    int m_nBeforeFirst = 0;
    RtpReorderBuffer m_order;
    quint32 m_nLost = 0; // before the next packet that makes units
    std::unique_ptr<RtpDepacketizer> m_pUnits; // null: none are made
    std::unique_ptr<RtpReception> m_pReception; // of the source
    RtspTrackStatistics m_counts;
    RtspTrackStatistics m_atInterval;
    qint64 m_intervalUs = 0;
};

// What keeps the place in the sequence of a packet without payload, which RTPPacket does not take; empty for
// anything else.
QByteArray placeOf(const char* data, int size);

// What the description says of a track; its problem where we cannot read it.
RtspTrack trackOf(
    const SdpDescription& description, int index, const QString& base, const RtpUnitFormat& format);
} // namespace Nuvika
