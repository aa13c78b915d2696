#pragma once

#include <KepNuvikaUtil/ClockToNtpMapper64.h>
#include <KepNuvikaUtil/Export.h>

#include <QtCore/QtGlobal>

#include <optional>
#include <vector>

class QDebug;

/// When something came, in microseconds.
struct RtpArrival {
    qint64 monotonicUs = 0; ///< of a clock that nobody sets
    qint64 wallUs = 0; ///< since 1970-01-01 UTC, by our own clock
};

/// What an RTP timestamp means.
struct RtpTime {
    qint64 timestamp = 0; ///< in ticks: the RTP timestamp with its wraps; a new run goes on above
    qint64 presentationUs = 0; ///< since the first unit of all tracks
    qint64 wallUs = 0; ///< since 1970-01-01 UTC
    bool bWallBySender = false; ///< by the camera's clock, else by ours
    bool bNewRun = false; ///< either time has jumped, or this is the track's first unit
};

/// Turns the RTP timestamps of a session's tracks into two times.
///
/// Presentation: one line for all tracks, which begins with the first unit and never goes back within a track
/// (a picture that is sent before an earlier one to be shown has the time of the one before). Tracks are
/// placed on it by their arrival, and by the sender reports (RFC 3550, section 6.4.1) once both have them.
/// Durations are the camera's; a media clock that is too fast or slow is followed to the pace of arrival, by
/// at most a quarter.
///
/// Wall clock: by sender reports, before the first and where the camera's clock is off by more than the clock
/// bound by our own. It never goes back within a run. Where the media clock begins anew the wall clock goes
/// on until the next report.
///
/// A new run begins where timestamps go back by more than a second, or are off by more than ten seconds both
/// from the last one and from the time that has passed; where the wall clock steps by more than the step
/// bound; and after restart(). Smaller differences are made up slowly.
///
/// Errors: a track that does not exist gives zeros, or false. Threads: one at a time.
class KEPNUVIKAUTIL_EXPORT RtpTimeline
{
public:
    static constexpr qint64 kDefaultClockBoundUs = 5000000;
    static constexpr qint64 kDefaultStepBoundUs = 2000000;

    /// How far the camera's clock may be from ours to be believed.
    void setClockBound(qint64 us) { m_clockBoundUs = us; }
    /// How far a clock may move without making a new run.
    void setStepBound(qint64 us) { m_stepBoundUs = us; }

    /// Gives the track's index. A rate of 0, in ticks a second, counts as 90,000.
    int addTrack(quint32 clockRate);
    /// The track's source: sender reports of others are refused from now on, and another one than before
    /// is a new run.
    void setSource(int track, quint32 ssrc);
    /// The next unit begins a new run: its sequence began anew, or playing was resumed.
    void restart(int track);

    /// False for a report that makes no sense: without wall clock, of another source, or with a media clock
    /// that is not the track's.
    bool senderReport(
        int track, quint32 ssrc, NTPTimestamp ntp, quint32 rtpTimestamp, const RtpArrival& arrival);
    /// The times of a unit; units are passed in the order of their packets.
    RtpTime stamp(int track, quint32 rtpTimestamp, const RtpArrival& arrival);

private:
    // How far a line has to be moved to follow the arrival: what comes early tells, what is late may be
    // delayed.
    struct Pace {
        qint64 windowStartUs = 0;
        qint64 leastUs = kNothing;
        qint64 slewUs = 0; // in a window
        static constexpr qint64 kNothing = 0x7FFFFFFFFFFFFFFF;
        void note(qint64 behindUs, qint64 nowUs);
    };
    struct Track {
        explicit Track(quint32 rate) : nRate(rate), senderClock(rate) { }
        quint32 nRate;
        bool bClock = false; // ticks and clockUs are known
        bool bStarted = false;
        bool bRestart = false;
        bool bBelieved = false; // the camera's wall clock
        bool bBySender = false; // the last unit's wall time
        std::optional<quint32> source;
        qint64 ticks = 0; // of the last timestamp
        qint64 clockUs = 0; // when it came
        qint64 anchorTicks = 0; // shown at anchorUs, before corrections
        qint64 anchorUs = 0;
        qint64 plainUs = 0; // the last time without corrections
        qint64 correctionUs = 0;
        qint64 shownUs = 0;
        qint64 wallOffsetUs = 0;
        ClockToNtpMapper64 senderClock;
        qint64 clockErrorUs = 0; // of the camera's wall clock, at the last report
        Pace pace;
    };

    Track* trackAt(int index);
    static std::optional<qint64> continued(const Track& track, quint32 rtpTimestamp, qint64 nowUs);
    static qint64 unwrap(Track& track, quint32 rtpTimestamp, qint64 nowUs);
    std::optional<qint64> senderLineUs(const Track& track, qint64 ticks, qint64 arrivalLineUs) const;
    qint64 senderUs(const Track& track, qint64 ticks) const;
    void moveSenderClocks(const Track& mover, NTPTimestamp step);
    static bool isBySender(const Track& track)
    {
        return track.bBelieved && (track.senderClock.hasTimeBase() || track.bBySender);
    }
    void beginRun(Track& track, qint64 arrivalLineUs, qint64 sinceLastUs);
    void present(Track& track, const RtpArrival& arrival);
    void followSenders(Track& track, qint64 advanceUs, const RtpArrival& arrival);
    qint64 wallTargetUs(const Track& track, const RtpArrival& arrival) const;

    qint64 m_clockBoundUs = kDefaultClockBoundUs;
    qint64 m_stepBoundUs = kDefaultStepBoundUs;
    std::vector<Track> m_tracks;
    std::optional<qint64> m_startUs; // the first unit's arrival
    NTPTimestamp m_senderSteps; // that the camera's clock has made
    std::optional<qint64> m_senderOffsetUs; // from its times without these to the line
    qint64 m_senderNearUs = 0; // when a track was last near it
    Pace m_senderPace;
};

/// For logs: seconds, and wall clocks in UTC.
KEPNUVIKAUTIL_EXPORT QDebug operator<<(QDebug debug, const RtpArrival& arrival);
KEPNUVIKAUTIL_EXPORT QDebug operator<<(QDebug debug, const RtpTime& time);
