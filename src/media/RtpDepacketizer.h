#pragma once

#include <KepNuvikaUtil/Export.h>
#include <KepNuvikaUtil/RtpAccessUnit.h>
#include <KepNuvikaUtil/RtpUnitFormat.h>

#include <QtCore/QString>

#include <memory>

class RTPPacket;

/// What a description says of a track's payload: `m=`, `a=rtpmap` and `a=fmtp` (RFC 8866). Only the name is
/// needed.
struct RtpPayloadFormat {
    QString encodingName; ///< in any case
    quint32 nClockRate = 0; ///< 0: the format's usual one
    QString fmtp; ///< the parameters: SdpFormat::fmtp
    QString media; ///< "video", "audio", ...: decides what a unit is where we do not know the name
    quint32 nChannels = 0;
    QSize pictureSize; ///< from a=framesize or the like, for JPEG that has none in its packets; empty: nobody
                       ///< says
};

/// Makes access units of the packets of one RTP stream:
///
///     while (depacketizer->next(&unit)) // nothing is left of the packet before
///         use(unit);
///
/// H.264 (RFC 6184), H265 (RFC 7798), JPEG (RFC 2435), MPEG4-GENERIC with AAC (RFC 3640), MP4A-LATM with its
/// configuration in the description (RFC 6416). PCMU, PCMA, G722, L16, OPUS and all other audio is a unit for
/// each packet, with samples as they are sent; other video is a unit until a marker or a new timestamp,
/// everything else a unit until a marker.
///
/// Packets come in their order (RtpReorderBuffer), with the number of those that are missing. A lost packet
/// costs the unit that it belongs to; what is known to be damaged is not given. Video pictures end with their
/// marker. The first one waits for the packet behind it, which shows whether the camera means its markers;
/// where it does not, or sends none, each picture waits for the next timestamp.
///
/// Errors: no payload is an error; what cannot be read is lost and counted. Where memory is exhausted, so is
/// the unit. Threads: one at a time. Time is linear in the bytes, memory bounded by the format's figures,
/// twice the unit's.
class KEPNUVIKAUTIL_EXPORT RtpDepacketizer
{
public:
    /// Never null.
    static std::unique_ptr<RtpDepacketizer> create(
        const RtpPayloadFormat& payload, const RtpUnitFormat& format = RtpUnitFormat());
    virtual ~RtpDepacketizer();
    RtpDepacketizer(const RtpDepacketizer&) = delete;
    RtpDepacketizer& operator=(const RtpDepacketizer&) = delete;

    /// Takes the next packet; \a lostBefore: how many are missing before it. One that is not valid is
    /// ignored. Units that were not taken by next() are gone; the packet's bytes stay where they are until
    /// the units are taken.
    void push(const RTPPacket& packet, quint32 lostBefore = 0);
    /// The next complete unit; false where there is none before the next packet.
    bool next(RtpAccessUnit* unit);
    /// No packet follows: what waits for one comes with next().
    void flush();

    /// As of the last unit that was taken.
    const RtpMediaParameters& parameters() const { return m_parameters; }
    /// Units of which something came but that were not given, or not in full.
    quint64 unitsLost() const { return m_nUnitsLost; }

protected:
    RtpDepacketizer() = default;

    RtpMediaParameters m_parameters;
    quint64 m_nUnitsLost = 0;

private:
    virtual void take(const RTPPacket& packet, quint32 lostBefore) = 0;
    virtual bool give(RtpAccessUnit* unit) = 0;
    virtual void end() = 0;
};

/// For logs.
KEPNUVIKAUTIL_EXPORT QDebug operator<<(QDebug debug, const RtpPayloadFormat& payload);
