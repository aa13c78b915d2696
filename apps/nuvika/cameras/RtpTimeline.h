// Which periods of a stream have been received whole, in the sender's time.
#pragma once

#include "Periods.h"

#include <KepNuvikaUtil/ClockToNtpMapper32.h>

#include <optional>

class RTPPacket;

// A unit is what carries one timestamp: a picture, or one packet of sound. It covers the time up to the next
// unit, and counts as received when all of its packets came.
class RtpTimeline
{
public:
    // bSinglePackets: every packet is a unit of its own, as in sound.
    RtpTimeline(unsigned int clockRate, bool bSinglePackets);

    void takePacket(const RTPPacket& packet);
    // A sender report's pair of clocks.
    void takeReport(const NTPTimestamp& ntp, unsigned int rtpTimestamp);
    // The sender's wall clock at the newest packet; null before the first report.
    NTPTimestamp senderClock() const { return m_now; }
    // Forgets what is further away than this from the newest packet.
    void limitTo(const NTPTimestamp& length);

    const Periods<NTPTimestamp>& recorded() const { return m_recorded; }
    int gaps() const { return m_recorded.gaps(); }

private:
    struct Unit {
        quint32 nTime;
        bool bDamaged;
        bool bEnded;
    };

    void closeUnit(quint32 nNextTime, bool bJump);
    void record(quint32 nFrom, quint32 nTicks);

    ClockToNtpMapper32 m_mapper;
    quint32 m_nClockRate;
    bool m_bSinglePackets;
    std::optional<quint16> m_lastSeqNum;
    Unit m_unit{0, true, false};
    quint32 m_nLastTicks = 0; // that a unit covered
    NTPTimestamp m_now;
    Periods<NTPTimestamp> m_recorded;
};
