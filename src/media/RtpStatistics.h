#pragma once

#include <KepNuvikaUtil/Export.h>

#include <QtCore/QObject>
#include <QtCore/QString>
#include <QtCore/QTimer>

#include <optional>

class QDebug;

class RTPPacket;

/// Counts the packets of one received RTP stream and, at an interval, turns the counts into a data rate and a
/// loss rate, which it logs, emits, or both; then it counts afresh.
///
/// Loss is counted from jumps of the sequence number. A packet up to 100 numbers behind the last is taken for
/// a late one or a duplicate: it counts as received, and takes no loss back. One that is further behind
/// counts as a jump ahead.
///
/// Threads: update() and the timer run in the thread that owns the object.
/// Lifetime: a handler of sigStatistics() may stop or delete the object.
class KEPNUVIKAUTIL_EXPORT RtpStatistics : public QObject
{
    Q_OBJECT
public:
    explicit RtpStatistics(QObject* parent = nullptr);

    /// Counts from now on under a new \a description. With neither \a log nor \a emitSignal it only counts.
    void start(const char* description, unsigned int intervalMs, bool log, bool emitSignal);
    /// Counts afresh; description, interval and flags stay.
    void restart();
    void stop();
    /// Counts one packet, if started.
    void update(const RTPPacket& packet);

signals:
    /// \a numOfTicks: the measured interval in milliseconds; \a dataRate in Mbit/s, headers included;
    /// \a looseRate in percent.
    void sigStatistics(const QString& strDesc, unsigned int numOfTicks, double dataRate,
        unsigned int packetsReceived, unsigned int packetsLost, double looseRate);

private slots:
    void slotPrintStats();

private:
    void reset();
    void countLoss(quint16 seqNum);

    bool m_bLog = false;
    bool m_bSignal = false;
    bool m_bRunning = false;
    quint32 m_nIntervalStart;
    quint64 m_nBytes = 0;
    quint64 m_nReceived = 0;
    quint64 m_nLost = 0;
    QTimer m_printTimer;
    std::optional<quint16> m_lastSeqNum;
    QString m_description;

public:
    /// Reports the interval so far at once, as its end would, and counts afresh.
    void report() { slotPrintStats(); }

    struct Totals {
        quint64 packets = 0; ///< received, late ones and duplicates included
        quint64 bytes = 0; ///< headers included
        quint64 lost = 0;
    };
    /// Of all intervals since start() or restart(), the present one included; stop() keeps them.
    Totals totals() const;

private:
    Totals m_finished; // without the interval that goes on
};

/// For logs.
KEPNUVIKAUTIL_EXPORT QDebug operator<<(QDebug debug, const RtpStatistics::Totals& totals);
