#pragma once

#include <KepNuvikaUtil/Export.h>
#include <KepNuvikaUtil/RtpAccessUnit.h>
#include <KepNuvikaUtil/RtpTimeline.h>
#include <KepNuvikaUtil/SdpDescription.h>

/// A track of a session, as its description tells it.
struct RtspTrack {
    int index = 0; ///< as all signals name it: the section of the description
    QString media; ///< "video", "audio", "application", or what the server says
    QString encoding; ///< in upper case
    int payloadType = -1; ///< the one whose units are made
    quint32 clockRate = 0; ///< in Hz
    int channels = 0; ///< of audio
    QString url; ///< that SETUP is sent to
    /// Why it is left out, in words: empty for tracks that are played. Tracks whose payload we cannot read
    /// may be chosen all the same: their packets are told.
    QString problem;
    RtpMediaParameters parameters; ///< codec, sizes, configuration, as far as the description has them
    SdpMedia description; ///< everything it says, every line
};

/// An access unit with its times. Its bytes are valid during the emission only.
struct RtspUnit : RtpAccessUnit {
    RtpTime time;
    RtpArrival arrival; ///< of the packet that completed it
};

/// What came for a track; the counts grow over the whole session.
struct RtspTrackStatistics {
    int track = 0;
    quint64 nPackets = 0;
    quint64 nBytes = 0; ///< of packets, their heads included
    quint64 nLost = 0;
    quint64 nLate = 0;
    quint64 nDuplicates = 0;
    quint64 nStrangers = 0; ///< of another source: dropped
    quint64 nUnknownTypes = 0; ///< of a payload type that was not described: dropped
    quint64 nUnits = 0;
    quint64 nUnitsLost = 0;
    quint32 nJitter = 0; ///< in ticks (RFC 3550, appendix A.8)
    quint32 nSsrc = 0;
    // In the last interval.
    quint32 nBitsPerSecond = 0;
    double unitsPerSecond = 0;
};

/// For logs; URLs without passwords.
KEPNUVIKAUTIL_EXPORT QDebug operator<<(QDebug debug, const RtspTrack& track);
KEPNUVIKAUTIL_EXPORT QDebug operator<<(QDebug debug, const RtspUnit& unit);
KEPNUVIKAUTIL_EXPORT QDebug operator<<(QDebug debug, const RtspTrackStatistics& statistics);
