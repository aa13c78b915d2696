#pragma once

#include <KepNuvikaUtil/Export.h>
#include <KepNuvikaUtil/RtcpCompound.h>

#include <QtCore/QByteArray>

class RTPPacket;

/// What a receiver of one RTP source keeps for its reports (RFC 3550, section 6.4 and appendices A.1, A.3 and
/// A.8), and the reports.
///
/// Packets are passed as they arrive, before they are put in order. The first makes a run; a number 3,000
/// ahead or 100 behind the highest is not counted until the one right after it comes: then a new run begins,
/// and counts afresh. A number that goes back is a duplicate or such a run, never a loss of 65,535.
///
/// Units: times are microseconds of any clock that does not go back, jitter is in ticks of the media clock.
/// Threads: one at a time.
class KEPNUVIKAUTIL_EXPORT RtpReception
{
public:
    /// Bytes that a report takes at most.
    static constexpr int kMaxReportSize = 300;

    /// A \a clockRate of 0, because the description names none, makes no jitter.
    RtpReception(quint32 ssrc, quint32 clockRate);

    /// Counts a packet; false for one that may begin a new run, and waits to be confirmed.
    bool update(const RTPPacket& packet, qint64 arrivalUs);
    bool update(quint16 seqNum, quint32 rtpTimestamp, qint64 arrivalUs);
    /// A sender report of this source came.
    void senderReport(NTPTimestamp ntp, qint64 arrivalUs);

    quint32 ssrc() const { return m_nSsrc; }
    quint32 extendedHighest() const { return m_nCycles + m_nHighest; }
    /// Of the run.
    quint32 received() const { return m_nReceived; }
    quint32 expected() const { return m_bStarted ? extendedHighest() - m_nBase + 1 : 0; }
    /// Clamped to 24 bits with a sign.
    qint32 cumulativeLost() const;
    quint32 jitter() const { return static_cast<quint32>(qMin<quint64>(m_jitter >> 4, 0xFFFFFFFF)); }

    /// Closes the interval since the last report: the next fraction counts from here.
    RtcpReportBlock takeReport(qint64 nowUs);
    /// Writes a compound packet: a receiver report of \a ownSsrc and its CNAME, of which up to 255 bytes
    /// count. The report has a block when something was received since the last one, and closes the interval.
    /// Gives its size in bytes; 0, and changes nothing, where \a capacity is too small.
    int writeReport(unsigned char* out, int capacity, quint32 ownSsrc, const QByteArray& cname, qint64 nowUs);

private:
    void beginRun(quint16 first);
    bool countSequence(quint16 seqNum);
    void countJitter(quint32 rtpTimestamp, qint64 arrivalUs);
    quint8 takeFraction();

    quint32 m_nSsrc;
    quint32 m_nClockRate;
    bool m_bStarted = false;
    bool m_bHasTransit = false;
    quint16 m_nHighest = 0;
    quint32 m_nAwaited; // would confirm a new run; beyond 16 bits: none
    quint32 m_nCycles = 0; // wraps x 2^16
    quint32 m_nBase = 0;
    quint32 m_nReceived = 0;
    quint32 m_nExpectedPrior = 0;
    quint32 m_nReceivedPrior = 0;
    quint32 m_nTransit = 0;
    quint64 m_jitter = 0; // x 16
    NTPTimestamp m_lastSr;
    qint64 m_lastSrUs = 0;
};
