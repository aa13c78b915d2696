#include <KepNuvikaUtil/RtpTimeline.h>

#include <algorithm>
#include <utility>

namespace
{
__extension__ typedef __int128 Wide;

constexpr qint64 kSecondUs = 1000000;
constexpr qint64 kNtpToUnixUs = 2208988800 * kSecondUs; // from 1900 to 1970
constexpr qint64 kReorderUs = kSecondUs; // pictures that are shown before their predecessors
constexpr qint64 kJumpUs = 10 * kSecondUs;
constexpr qint64 kWindowUs = 8 * kSecondUs; // in which a difference is made up
constexpr qint64 kPaceToleranceUs = 50000;
constexpr qint64 kSenderToleranceUs = 5000;
constexpr qint64 kClockStepUs = 300000;
constexpr qint64 kWallToleranceUs = 1000;

qint64 scaled(qint64 value, qint64 numerator, qint64 denominator)
{
    return static_cast<qint64>(Wide(value) * numerator / denominator);
}

// The part of a difference that is made up while the media moves on: at most a quarter of its way.
qint64 slewed(qint64 differenceUs, qint64 advanceUs)
{
    const qint64 bounded = std::clamp(differenceUs, -kWindowUs / 4, kWindowUs / 4);
    return std::clamp<qint64>(advanceUs, 0, kWindowUs) * bounded / kWindowUs;
}

qint64 slewed(qint64 differenceUs, qint64 advanceUs, qint64 toleranceUs)
{
    return qAbs(differenceUs) <= toleranceUs ? 0 : slewed(differenceUs, advanceUs);
}

// With its sign: NTP time starts again in 2036.
qint64 differenceUs(NTPTimestamp from, NTPTimestamp to)
{
    const auto units = static_cast<qint64>((to - from).toHostByteOrder());
    return static_cast<qint64>((Wide(units) * kSecondUs + (Wide(1) << 31)) >> 32);
}

NTPTimestamp ntpOf(qint64 unixUs)
{
    return NTPTimestamp::fromMicroseconds(static_cast<quint64>(unixUs + kNtpToUnixUs));
}
} // namespace

// --- tracks --------------------------------------------------------------------------------------------

int RtpTimeline::addTrack(quint32 clockRate)
{
    constexpr quint32 kUsualRate = 90000;
    m_tracks.emplace_back(clockRate == 0 ? kUsualRate : clockRate);
    return static_cast<int>(m_tracks.size()) - 1;
}

RtpTimeline::Track* RtpTimeline::trackAt(int index)
{
    return index >= 0 && static_cast<std::size_t>(index) < m_tracks.size()
        ? &m_tracks[static_cast<std::size_t>(index)]
        : nullptr;
}

void RtpTimeline::setSource(int track, quint32 ssrc)
{
    Track* t = trackAt(track);
    if (t == nullptr)
        return;
    if (t->source && *t->source != ssrc)
        restart(track);
    t->source = ssrc;
}

void RtpTimeline::restart(int track)
{
    if (Track* t = trackAt(track))
        t->bRestart = true;
}

// --- timestamps ----------------------------------------------------------------------------------------

// The timestamp in 64 bits if it goes on from the last one, or with the time that has passed since.
std::optional<qint64> RtpTimeline::continued(const Track& track, quint32 rtpTimestamp, qint64 nowUs)
{
    const qint64 rate = track.nRate;
    const auto nearest = [rtpTimestamp](qint64 ticks) {
        return ticks + static_cast<qint32>(rtpTimestamp - static_cast<quint32>(ticks));
    };
    const auto awayUs = [rate](qint64 from, qint64 to) { return scaled(to - from, kSecondUs, rate); };
    const qint64 next = nearest(track.ticks);
    const qint64 stepUs = awayUs(track.ticks, next);
    if (stepUs >= -kReorderUs && stepUs <= kJumpUs)
        return next;
    const qint64 passed = track.ticks + scaled(nowUs - track.clockUs, rate, kSecondUs);
    const qint64 later = nearest(passed);
    if (later > track.ticks && qAbs(awayUs(passed, later)) <= kJumpUs)
        return later;
    return std::nullopt;
}

// The same, where it does not go on: above all before.
qint64 RtpTimeline::unwrap(Track& track, quint32 rtpTimestamp, qint64 nowUs)
{
    const std::optional<qint64> goesOn = track.bClock ? continued(track, rtpTimestamp, nowUs) : std::nullopt;
    if (!goesOn || track.bRestart) {
        track.bRestart = true;
        track.senderClock = ClockToNtpMapper64(track.nRate);
        const quint32 ahead = rtpTimestamp - static_cast<quint32>(track.ticks);
        return track.bClock ? track.ticks + ahead : (qint64(1) << 32) + rtpTimestamp;
    }
    return *goesOn;
}

// --- sender reports ------------------------------------------------------------------------------------

bool RtpTimeline::senderReport(
    int track, quint32 ssrc, NTPTimestamp ntp, quint32 rtpTimestamp, const RtpArrival& arrival)
{
    Track* t = trackAt(track);
    if (t == nullptr || ntp.isNull() || t->source.value_or(ssrc) != ssrc || t->bRestart)
        return false;
    if (!std::exchange(t->bClock, true)) {
        t->ticks = (qint64(1) << 32) + rtpTimestamp;
        t->clockUs = arrival.monotonicUs;
    }
    const std::optional<qint64> ticks = continued(*t, rtpTimestamp, arrival.monotonicUs);
    if (!ticks)
        return false;
    const auto clock = static_cast<quint64>(*ticks);
    const NTPTimestamp before = t->senderClock.clockToNtp(clock);
    const qint64 errorUs = differenceUs(ntpOf(arrival.wallUs), ntp);
    // A clock at the bound does not go to and fro.
    const bool bFirst = !t->senderClock.hasTimeBase();
    t->bBelieved = qAbs(errorUs) <= (t->bBelieved || bFirst ? m_clockBoundUs : m_clockBoundUs / 2);
    // Set, not only delayed on its way (our clock would differ alone), or a media clock of a wrong pace (its
    // own would).
    const qint64 stepUs = differenceUs(before, ntp);
    const qint64 changeUs = errorUs - std::exchange(t->clockErrorUs, errorUs);
    if (!bFirst && std::min(qAbs(stepUs), qAbs(changeUs)) > kClockStepUs)
        moveSenderClocks(*t, ntp - before);
    t->senderClock.setTimeBase(ntp, clock);
    return true;
}

// The camera has set its clock: it is that of all tracks, whose reports come one after the other. Their
// places on the line stay.
void RtpTimeline::moveSenderClocks(const Track& mover, NTPTimestamp step)
{
    for (Track& track : m_tracks) {
        if (!track.senderClock.hasTimeBase())
            continue;
        const auto clock = static_cast<quint64>(track.ticks);
        track.senderClock.setTimeBase(track.senderClock.clockToNtp(clock) + step, clock);
        track.bBelieved = mover.bBelieved;
        track.clockErrorUs = mover.clockErrorUs;
    }
    m_senderSteps += step;
}

qint64 RtpTimeline::senderUs(const Track& track, qint64 ticks) const
{
    return differenceUs(m_senderSteps, track.senderClock.clockToNtp(static_cast<quint64>(ticks)));
}

// The place on the line by the sender reports, where it is not far from that of the arrival.
std::optional<qint64> RtpTimeline::senderLineUs(const Track& track, qint64 ticks, qint64 arrivalLineUs) const
{
    if (!track.senderClock.hasTimeBase() || !m_senderOffsetUs)
        return std::nullopt;
    const qint64 lineUs = senderUs(track, ticks) + *m_senderOffsetUs;
    return qAbs(lineUs - arrivalLineUs) <= m_stepBoundUs ? std::optional<qint64>(lineUs) : std::nullopt;
}

// --- the line ------------------------------------------------------------------------------------------

void RtpTimeline::Pace::note(qint64 behindUs, qint64 nowUs)
{
    if (leastUs == kNothing)
        windowStartUs = nowUs;
    if (nowUs - windowStartUs >= kWindowUs) {
        // Half of it: what was made up shows one window later, and all of it would swing.
        slewUs = qAbs(leastUs) > kPaceToleranceUs ? leastUs / 2 : 0;
        leastUs = kNothing;
        windowStartUs = nowUs;
    }
    leastUs = std::min(leastUs, behindUs);
}

// As long behind the last unit as it came, or, where that is not near it, where the arrival is: the line may
// be somewhat before the arrivals or behind them.
void RtpTimeline::beginRun(Track& track, qint64 arrivalLineUs, qint64 sinceLastUs)
{
    const qint64 behindLastUs = track.shownUs + sinceLastUs;
    const bool bNear = qAbs(behindLastUs - arrivalLineUs) <= 2 * kPaceToleranceUs;
    if (std::exchange(track.bStarted, true) && bNear)
        arrivalLineUs = behindLastUs;
    track.anchorTicks = track.ticks;
    track.anchorUs = senderLineUs(track, track.ticks, arrivalLineUs).value_or(arrivalLineUs);
    track.anchorUs = std::max(track.anchorUs, track.shownUs);
    track.plainUs = track.anchorUs;
    track.correctionUs = 0;
    track.pace = Pace();
}

void RtpTimeline::present(Track& track, const RtpArrival& arrival)
{
    const qint64 plainUs = track.anchorUs + scaled(track.ticks - track.anchorTicks, kSecondUs, track.nRate);
    const qint64 advanceUs = std::max<qint64>(0, plainUs - track.plainUs);
    track.plainUs = std::max(track.plainUs, plainUs);
    followSenders(track, advanceUs, arrival);
    const qint64 arrivalLineUs = arrival.monotonicUs - *m_startUs;
    const qint64 shownUs = plainUs + track.correctionUs;
    if (const std::optional<qint64> lineUs = senderLineUs(track, track.ticks, arrivalLineUs)) {
        track.correctionUs += slewed(*lineUs - shownUs, advanceUs, kSenderToleranceUs);
        track.pace = Pace();
    } else {
        track.pace.note(arrivalLineUs - shownUs, arrival.monotonicUs);
        track.correctionUs += slewed(track.pace.slewUs, advanceUs);
    }
    track.shownUs = std::max(track.shownUs, plainUs + track.correctionUs);
}

// The senders' own line begins where the first track with a report is, and follows the arrival as a track
// does. Where no track has been near it for long, it begins anew.
void RtpTimeline::followSenders(Track& track, qint64 advanceUs, const RtpArrival& arrival)
{
    if (!track.senderClock.hasTimeBase())
        return;
    const qint64 nowUs = arrival.monotonicUs;
    const qint64 arrivalLineUs = nowUs - *m_startUs;
    const qint64 senderNowUs = senderUs(track, track.ticks);
    const bool bNear = senderLineUs(track, track.ticks, arrivalLineUs).has_value();
    if (!bNear && (!m_senderOffsetUs || nowUs - m_senderNearUs > 2 * kWindowUs)) {
        m_senderOffsetUs = track.plainUs + track.correctionUs - senderNowUs;
        m_senderPace = Pace();
        m_senderNearUs = nowUs;
    }
    if (!bNear)
        return;
    m_senderPace.note(arrivalLineUs - senderNowUs - *m_senderOffsetUs, nowUs);
    *m_senderOffsetUs += slewed(m_senderPace.slewUs, std::min(nowUs - m_senderNearUs, advanceUs));
    m_senderNearUs = nowUs;
}

// Our own clock is read without the delays of arrivals: by what the monotonic one says.
qint64 RtpTimeline::wallTargetUs(const Track& track, const RtpArrival& arrival) const
{
    if (isBySender(track) && !track.senderClock.hasTimeBase())
        return track.shownUs + track.wallOffsetUs;
    if (isBySender(track)) {
        const NTPTimestamp ntp = track.senderClock.clockToNtp(static_cast<quint64>(track.ticks));
        return arrival.wallUs + differenceUs(ntpOf(arrival.wallUs), ntp);
    }
    return arrival.wallUs - arrival.monotonicUs + *m_startUs + track.shownUs;
}

RtpTime RtpTimeline::stamp(int track, quint32 rtpTimestamp, const RtpArrival& arrival)
{
    Track* t = trackAt(track);
    if (t == nullptr)
        return RtpTime();
    if (!m_startUs)
        m_startUs = arrival.monotonicUs;
    t->ticks = unwrap(*t, rtpTimestamp, arrival.monotonicUs);
    const qint64 sinceLastUs = arrival.monotonicUs - std::exchange(t->clockUs, arrival.monotonicUs);
    t->bClock = true;
    const bool bFarOff = t->pace.slewUs > kJumpUs / 2; // the line cannot wait for what is ahead of it
    bool bNewRun = std::exchange(t->bRestart, false) || !t->bStarted || bFarOff;
    if (bNewRun)
        beginRun(*t, arrival.monotonicUs - *m_startUs, sinceLastUs);
    const qint64 beforeUs = t->shownUs;
    present(*t, arrival);

    const qint64 missingUs = wallTargetUs(*t, arrival) - t->shownUs - t->wallOffsetUs;
    bNewRun = bNewRun || qAbs(missingUs) > m_stepBoundUs;
    t->wallOffsetUs += bNewRun ? missingUs : slewed(missingUs, t->shownUs - beforeUs, kWallToleranceUs);
    t->bBySender = isBySender(*t);
    return {t->ticks, t->shownUs, t->shownUs + t->wallOffsetUs, t->bBySender, bNewRun};
}
