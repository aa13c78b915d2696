#pragma once

#include <KepNuvikaUtil/Export.h>
#include <KepNuvikaUtil/RTPPacket.h>

#include <QtCore/QByteArray>

#include <bitset>
#include <vector>

/// A packet in its place. \a packet sees the bytes that were pushed, or a copy that holds until the next call
/// of the buffer.
struct RtpOrderedPacket {
    RTPPacket packet;
    qint64 sequence = 0; ///< the number with its wraps; it never falls, a new run goes on above
    qint64 arrivalUs = 0; ///< as it was passed
    quint32 nLost = 0; ///< packets right before this one that did not come
    bool bNewRun = false; ///< the first of all, and the first after the sequence began anew
};

/// What became of the packets; they only grow.
struct RtpReorderCounts {
    quint64 nReceived = 0;
    quint64 nLost = 0; ///< given up; one that comes after all is late, and stays lost
    quint64 nLate = 0;
    quint64 nDuplicates = 0;
    quint64 nStrays = 0; ///< jumped out of the sequence, and nothing followed them
    quint64 nRuns = 0;
};

/// Puts the packets of one RTP source into their order. A packet that comes too early is held until those
/// before it have come, it has waited for the longest time, or too many are held; then what is missing is
/// lost.
///
///     if (buffer.push(packet, nowUs, &out))
///         use(out);
///     while (buffer.pop(nowUs, &out))
///         use(out);
///
/// Packets in order pass through push() without a copy or an allocation; only those that are held are copied.
/// With nothing to hold (over TCP) packets behind the newest are dropped, and losses are told at once.
///
/// A number 3,000 ahead or 100 behind the expected one is kept aside. The number right after it makes a new
/// run: what is held is delivered, then both (RFC 3550, appendix A.1). Another source is another buffer, or
/// reset().
///
/// Units: times are microseconds of any clock that does not go back. Bounds: the packets held, of at most the
/// size of a datagram each. Threads: one at a time.
class KEPNUVIKAUTIL_EXPORT RtpReorderBuffer
{
public:
    static constexpr int kDefaultPackets = 32;
    static constexpr int kDefaultWaitMs = 100;
    static constexpr int kMostPackets = 512;
    static constexpr qint64 kNever = 0x7FFFFFFFFFFFFFFF;

    /// Either 0: nothing is held.
    explicit RtpReorderBuffer(int maxPackets = kDefaultPackets, int maxWaitMs = kDefaultWaitMs);

    /// True: \a out is this packet, to be used before what pop() gives. False: it is held or dropped. What is
    /// not valid is ignored.
    bool push(const RTPPacket& packet, qint64 nowUs, RtpOrderedPacket* out);
    /// The next held packet whose time has come; call it after each push() and at dueAt() until it is false.
    /// At the end of a stream kNever as the time gives all that is left.
    bool pop(qint64 nowUs, RtpOrderedPacket* out);
    /// When pop() will have something if nothing more comes; kNever when nothing is held.
    qint64 dueAt() const;

    const RtpReorderCounts& counts() const { return m_counts; }
    /// Forgets what is held and the sequence; the counts stay.
    void reset();

private:
    struct Held {
        qint64 sequence = 0;
        qint64 arrivalUs = 0;
        QByteArray bytes;
        bool bNewRun = false;
    };

    qint64 expected() const;
    bool isNext(const Held& held, qint64 nowUs) const;
    bool holds(qint64 sequence) const;
    void hold(const RTPPacket& packet, qint64 sequence, qint64 nowUs);
    void takeBehind(quint16 distance);
    void takeJump(const RTPPacket& packet, qint64 nowUs);
    quint32 advanceTo(qint64 sequence);

    std::size_t m_nMaxPackets;
    qint64 m_maxWaitUs;
    bool m_bStarted = false;
    qint64 m_next = 0; // to be delivered
    qint64 m_runStart = 0; // of the newest run
    std::bitset<128> m_seen; // bit i: m_next - 1 - i has come
    std::vector<Held> m_held; // by sequence
    Held m_suspect; // without bytes: none
    QByteArray m_delivered; // of the last pop()
    RtpReorderCounts m_counts;
};

/// For logs.
KEPNUVIKAUTIL_EXPORT QDebug operator<<(QDebug debug, const RtpOrderedPacket& ordered);
KEPNUVIKAUTIL_EXPORT QDebug operator<<(QDebug debug, const RtpReorderCounts& counts);
