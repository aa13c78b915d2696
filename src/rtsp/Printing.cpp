// How a session's values are shown in logs.
#include <KepNuvikaUtil/RtspTrack.h>

#include "core/Shown_p.h"

using namespace Nuvika;

QDebug operator<<(QDebug debug, const RtspTrack& track)
{
    Shown shown(debug, "RtspTrack");
    shown(track.index)(track.media)(track.encoding)("type", track.payloadType)("clock", track.clockRate)(
        "url", withoutSecrets(track.url))(track.parameters);
    if (!track.problem.isEmpty())
        shown("problem", track.problem);
    return debug;
}

QDebug operator<<(QDebug debug, const RtspUnit& unit)
{
    Shown(debug, "RtspUnit")(static_cast<const RtpAccessUnit&>(unit))(unit.time);
    return debug;
}

QDebug operator<<(QDebug debug, const RtspTrackStatistics& statistics)
{
    Shown(debug, "RtspTrackStatistics")("track", statistics.track)("packets", statistics.nPackets)(
        "bytes", statistics.nBytes)("lost", statistics.nLost)("late", statistics.nLate)(
        "duplicates", statistics.nDuplicates)("strangers", statistics.nStrangers)(
        "unknown types", statistics.nUnknownTypes)("units", statistics.nUnits)(
        "units lost", statistics.nUnitsLost)("jitter", statistics.nJitter)
        .hex("ssrc", statistics.nSsrc)("bits/s", statistics.nBitsPerSecond)(
            "units/s", statistics.unitsPerSecond);
    return debug;
}
