#include <KepNuvikaUtil/RtpStatistics.h>

#include <KepNuvikaUtil/DateTimeExt.h>
#include <KepNuvikaUtil/RTPPacket.h>

#include "core/Log_p.h"

#include <utility>

namespace
{
constexpr quint16 kFurthestJump = 65436; // beyond, a packet is late
} // namespace

RtpStatistics::RtpStatistics(QObject* parent)
    : QObject(parent), m_nIntervalStart(DateTimeExt::getMonotonicTimeMs())
{
    connect(&m_printTimer, &QTimer::timeout, this, &RtpStatistics::slotPrintStats);
}

void RtpStatistics::start(const char* description, unsigned int intervalMs, bool log, bool emitSignal)
{
    m_bLog = log;
    m_bSignal = emitSignal;
    m_printTimer.setInterval(static_cast<int>(std::min(intervalMs, 0x7FFFFFFFU)));
    m_description = QString::fromUtf8(description);
    restart();
}

void RtpStatistics::restart()
{
    stop();
    m_finished = {};
    if (m_bLog || m_bSignal)
        m_printTimer.start();
    m_bRunning = true;
}

void RtpStatistics::stop()
{
    reset();
    m_lastSeqNum.reset();
    m_printTimer.stop();
    m_bRunning = false;
}

void RtpStatistics::reset()
{
    m_nIntervalStart = DateTimeExt::getMonotonicTimeMs();
    m_finished = totals();
    m_nBytes = 0;
    m_nReceived = 0;
    m_nLost = 0;
}

RtpStatistics::Totals RtpStatistics::totals() const
{
    return {m_finished.packets + m_nReceived, m_finished.bytes + m_nBytes, m_finished.lost + m_nLost};
}

void RtpStatistics::update(const RTPPacket& packet)
{
    if (!m_bRunning)
        return;
    m_nBytes += packet.getRawPacketSize();
    countLoss(packet.getSeqNum());
    ++m_nReceived;
}

void RtpStatistics::countLoss(quint16 seqNum)
{
    if (m_lastSeqNum) {
        const auto distance = static_cast<quint16>(seqNum - *m_lastSeqNum);
        if (distance == 0 || distance > kFurthestJump)
            return;
        m_nLost += distance - 1U;
    }
    m_lastSeqNum = seqNum;
}

void RtpStatistics::slotPrintStats()
{
    if (!m_bRunning)
        return;
    const quint32 elapsed = DateTimeExt::getMonotonicTimeMs() - m_nIntervalStart;
    const auto bytes = static_cast<quint32>(m_nBytes); // an interval's figures have 32 bits
    const auto received = static_cast<quint32>(m_nReceived);
    const auto lost = static_cast<quint32>(m_nLost);
    reset();
    const double dataRate = bytes * 8.0 * 0.001 / std::max(elapsed, 1U);
    const quint32 total = lost + received;
    const double looseRate = total == 0 ? 0.0 : static_cast<double>(lost * 100U) / total;
    if (m_bLog) {
        constexpr char kText[]
            = "STATISTICS::RTP: %s[last %u ms]: data rate = %f Mbps; packets received = %u; packets lost = "
              "%u(%f %%)";
        if (looseRate > 0)
            NUVIKA_WARNING(
                lcMedia, kText, qUtf8Printable(m_description), elapsed, dataRate, received, lost, looseRate);
        else
            NUVIKA_DEBUG(
                lcMedia, kText, qUtf8Printable(m_description), elapsed, dataRate, received, lost, looseRate);
    }
    if (m_bSignal) // the last statement: a handler may delete this object, and with it the description
        emit sigStatistics(QString(m_description), elapsed, dataRate, received, lost, looseRate);
}
