#include "StreamRecord.h"

namespace
{
constexpr qint64 kLongestUnitUs = 2000000; // a longer silence is a gap
constexpr qint64 kClockToleranceUs = 20000; // clocks are followed in small steps

NTPTimestamp tolerance() { return NTPTimestamp::fromMicroseconds(kClockToleranceUs); }

double percent(quint64 part, quint64 whole)
{
    return whole == 0 ? 0.0 : 100.0 * static_cast<double>(part) / static_cast<double>(whole);
}
} // namespace

NTPTimestamp StreamRecord::ntpOf(qint64 unixUs)
{
    static const NTPTimestamp epoch = NTPTimestamp::fromUnixTime(0);
    return unixUs < 0 ? epoch : epoch + NTPTimestamp::fromMicroseconds(static_cast<quint64>(unixUs));
}

double StreamRecord::Figures::allLossPercent() const { return percent(allLost, allPackets + allLost); }

void StreamRecord::beginSession()
{
    m_counted = Counts();
    m_bContinues = false;
    m_bBySender = false;
}

void StreamRecord::takeUnit(const RtpAccessUnit& unit, const RtpTime& time)
{
    ++m_figures.units;
    m_figures.keyFrames += unit.bKeyFrame ? 1 : 0;
    if (m_bContinues)
        cover(unit, time);
    noteClock(time);
    m_last = time;
    m_bContinues = true;
}

void StreamRecord::cover(const RtpAccessUnit& next, const RtpTime& time)
{
    const qint64 stepUs = time.presentationUs - m_last->presentationUs;
    const qint64 clockStepUs = time.wallUs - m_last->wallUs - stepUs; // a media clock that jumps makes none
    const bool bGoesOn = !time.bNewRun || qAbs(clockStepUs) <= kClockToleranceUs;
    const bool bWhole = next.nPacketsLost == 0 && bGoesOn && stepUs <= kLongestUnitUs;
    const qint64 endUs = bWhole ? time.wallUs : m_last->wallUs + std::min(m_usualUs, stepUs);
    if (bWhole && stepUs > 0)
        m_usualUs = stepUs;
    if (endUs > m_last->wallUs)
        m_recorded.add(ntpOf(m_last->wallUs), ntpOf(endUs), tolerance());
}

// Until its first report nobody knows the sender's clock: then what was told by ours moves there.
void StreamRecord::noteClock(const RtpTime& time)
{
    if (time.bWallBySender && !m_bBySender && m_bContinues && time.bNewRun) {
        const qint64 oursUs = m_last->wallUs + time.presentationUs - m_last->presentationUs;
        m_recorded.moveFrom(ntpOf(m_unsureUs), ntpOf(time.wallUs) - ntpOf(oursUs), tolerance());
    }
    if (!time.bWallBySender && (m_bBySender || !m_bContinues))
        m_unsureUs = time.wallUs;
    m_bBySender = time.bWallBySender;
}

void StreamRecord::takeReport(const NTPTimestamp& ntp, const RtpArrival& arrival)
{
    ++m_figures.reports;
    if (!ntp.isNull())
        m_clockErrorUs = static_cast<qint64>(ntp.toUnixTime() * 1e6) - arrival.wallUs;
}

void StreamRecord::closeInterval(const Counts& counts, qint64 ms)
{
    const double seconds = static_cast<double>(std::max<qint64>(ms, 1)) / 1000;
    m_figures.packets = counts.packets - m_counted.packets;
    m_figures.lost = counts.lost - m_counted.lost;
    m_figures.lossPercent = percent(m_figures.lost, m_figures.packets + m_figures.lost);
    m_figures.megabits = static_cast<double>(counts.bytes - m_counted.bytes) * 8 / 1e6 / seconds;
    m_figures.unitRate = static_cast<double>(m_figures.units - m_nUnitsCounted) / seconds;
    m_figures.allPackets += m_figures.packets;
    m_figures.allLost += m_figures.lost;
    m_counted = counts;
    m_nUnitsCounted = m_figures.units;
    m_rates.push_back(m_figures.megabits);
    if (m_rates.size() > kHistorySeconds)
        m_rates.pop_front();
    if (m_last) { // further ahead: from before the sender's clock was set back
        const NTPTimestamp history = NTPTimestamp::fromMilliseconds(kHistorySeconds * 1000);
        m_recorded.limitTo(newest() > history ? newest() - history : NTPTimestamp(), newest() + history);
    }
}
