#include "StreamLines.h"

#include "base/Output.h"

namespace
{
unsigned long long wide(quint64 number) { return number; }
} // namespace

QByteArray secondLine(int second, const QString& stream, const StreamRecord& record)
{
    const StreamRecord::Figures& f = record.figures();
    return QString::asprintf("%4d s  %-20s  %8.3f Mbit/s  %6llu packets  %5llu lost (%.2f %%)  ", second,
        Output::shown(stream).constData(), f.megabits, wide(f.packets), wide(f.lost), f.lossPercent)
        .toUtf8();
}

QByteArray summaryLine(const QString& stream, const StreamRecord& record)
{
    const StreamRecord::Figures& f = record.figures();
    return QString::asprintf("%s: %llu packets, %llu lost (%.2f %%), %u sender reports, %d gaps",
        Output::shown(stream).constData(), wide(f.allPackets), wide(f.allLost), f.allLossPercent(), f.reports,
        record.gaps())
        .toUtf8();
}
