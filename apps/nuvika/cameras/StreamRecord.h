// What is known of one received RTP stream, however it came: its figures, the periods of which everything
// came, and the sender's clock.
#pragma once

#include "Periods.h"

#include <KepNuvikaUtil/NTPTimestamp.h>
#include <KepNuvikaUtil/RtpAccessUnit.h>
#include <KepNuvikaUtil/RtpTimeline.h>

#include <deque>
#include <optional>

class StreamRecord
{
public:
    static constexpr int kHistorySeconds = 180;
    // How far a sender's clock may be from ours: its periods are told by its own, however wrong.
    static constexpr qint64 kAnyClockUs = 200LL * 365 * 24 * 3600 * 1000000;

    // Since a session began.
    struct Counts {
        quint64 packets = 0;
        quint64 bytes = 0;
        quint64 lost = 0;
    };
    struct Figures {
        // Of the last whole second.
        double megabits = 0; // a second
        double lossPercent = 0;
        double unitRate = 0;
        quint64 packets = 0;
        quint64 lost = 0;
        // Since the beginning.
        quint64 allPackets = 0;
        quint64 allLost = 0;
        quint64 units = 0; // pictures, or packets of sound
        quint64 keyFrames = 0;
        unsigned int reports = 0; // of the sender

        double allLossPercent() const;
    };

    // What follows is of another source, or came over another connection.
    void beginSession();
    // A unit covers the time up to the next one; as much as the unit before it where packets are missing
    // between.
    void takeUnit(const RtpAccessUnit& unit, const RtpTime& time);
    void takeReport(const NTPTimestamp& ntp, const RtpArrival& arrival);
    // Closes an interval of so many milliseconds.
    void closeInterval(const Counts& sinceSessionBegan, qint64 ms);
    // One in which nothing came.
    void closeSilence(qint64 ms) { closeInterval(Counts(m_counted), ms); }

    const Figures& figures() const { return m_figures; }
    // Anything of the stream, be it a sender report.
    bool hasHeard() const { return m_figures.allPackets > 0 || m_figures.reports > 0; }
    // How far the sender's clock is before ours, as of its last report and but for the way here.
    std::optional<qint64> clockErrorUs() const { return m_clockErrorUs; }
    // By the sender's clock; by ours as long as it tells none.
    const Periods<NTPTimestamp>& recorded() const { return m_recorded; }
    int gaps() const { return m_recorded.gaps(); }
    // The newest unit's time.
    NTPTimestamp newest() const { return m_last ? ntpOf(m_last->wallUs) : NTPTimestamp(); }
    // Mbit/s of the last seconds, oldest first.
    const std::deque<double>& rates() const { return m_rates; }

    static NTPTimestamp ntpOf(qint64 unixUs);

private:
    void cover(const RtpAccessUnit& next, const RtpTime& time);
    void noteClock(const RtpTime& time);

    Figures m_figures;
    Counts m_counted;
    quint64 m_nUnitsCounted = 0;
    std::deque<double> m_rates;
    std::optional<RtpTime> m_last; // the newest unit
    bool m_bContinues = false; // the session has a unit before the next
    bool m_bBySender = false;
    qint64 m_unsureUs = 0; // periods from here on are by our clock
    qint64 m_usualUs = 0; // that a unit covers
    std::optional<qint64> m_clockErrorUs;
    Periods<NTPTimestamp> m_recorded;
};
