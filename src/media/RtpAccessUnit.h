#pragma once

#include <KepNuvikaUtil/Export.h>

#include <QtCore/QByteArray>
#include <QtCore/QSize>
#include <QtCore/QtGlobal>

class QDebug;

/// What RtpDepacketizer::next() gives: a picture, a frame of audio, a document.
///
/// Lifetime: the bytes lie in the depacketizer or in the packet that was pushed last. They are valid until
/// the next call of next(), push() or flush(), and no longer than that packet.
struct RtpAccessUnit {
    const unsigned char* pData = nullptr;
    quint32 nSize = 0;
    quint32 nTimestamp
        = 0; ///< of RTP, in ticks of the clock rate; of a picture's packets, not its parameter sets'
    quint32 nPacketsLost = 0; ///< since the unit before it, those of lost units included
    /// A decoder can begin here, with nothing of what was before: IDR of H.264, IRAP of H.265; every unit of
    /// JPEG, audio and data, and of video that we know nothing of.
    bool bKeyFrame = false;
    /// A decoder can begin here with a picture that may get better with the next ones: a recovery point
    /// message, and with H.264 a picture that begins with an intra slice. Every key frame is one.
    bool bRecoveryPoint = false;
    /// Something was lost, or never seen, since the last key frame or recovery point, which this unit may
    /// refer to.
    bool bReferencesLost = false;
    /// No other unit refers to it (nal_ref_idc 0; a sub-layer non-reference picture of the highest
    /// sub-layer).
    bool bDroppable = false;
    /// RtpDepacketizer::parameters() are others than they were before this unit.
    bool bParametersChanged = false;
};

/// What a depacketizer knows of its track: from the description at first, then from what the stream says.
/// Whatever is not known is empty, not valid (a size) or 0.
struct RtpMediaParameters {
    QByteArray
        codec; ///< as in RFC 6381: avc1.640028, hvc1.1.6.L93.B0, mp4a.40.2; else the sample entry's name
    /// AVCDecoderConfigurationRecord, HEVCDecoderConfigurationRecord (ISO/IEC 14496-15), AudioSpecificConfig
    /// (ISO/IEC 14496-3), identification header (RFC 7845, Opus).
    QByteArray configuration;
    QSize codedSize; ///< in pixels, before cropping
    QSize shownSize; ///< in pixels, after cropping
    QSize pixelAspect; ///< width to height of a pixel
    quint32 nSampleRate = 0; ///< in Hz; what is heard, which need not be the clock rate
    quint32 nChannels = 0;
};

inline bool operator==(const RtpMediaParameters& a, const RtpMediaParameters& b)
{
    return a.codec == b.codec && a.configuration == b.configuration && a.codedSize == b.codedSize
        && a.shownSize == b.shownSize && a.pixelAspect == b.pixelAspect && a.nSampleRate == b.nSampleRate
        && a.nChannels == b.nChannels;
}
inline bool operator!=(const RtpMediaParameters& a, const RtpMediaParameters& b) { return !(a == b); }

/// For logs: all but the bytes.
KEPNUVIKAUTIL_EXPORT QDebug operator<<(QDebug debug, const RtpAccessUnit& unit);
KEPNUVIKAUTIL_EXPORT QDebug operator<<(QDebug debug, const RtpMediaParameters& parameters);
