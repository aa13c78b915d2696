#pragma once

#include <KepNuvikaUtil/Export.h>

#include <QtCore/QtGlobal>

/// The form in which a depacketizer gives its units, the same for all cameras, and the bounds within which it
/// collects them. A unit that goes over a bound is lost and counted.
struct KEPNUVIKAUTIL_EXPORT RtpUnitFormat {
    /// How units of H.264 and H.265 are told apart: by a start code, or by a length of 4 bytes in front of
    /// each.
    enum NalFraming { eAnnexB, eLengthPrefixed };
    /// Where the units with parameter sets stand: before each key frame and with each change; with the first
    /// key frame and each change; nowhere but in the configuration record. Sets of more than
    /// 4 KiB together are repeated only when the stream has brought as many bytes since.
    enum ParameterSetPlace { eAtKeyFrames, eOnChange, eApart };
    enum AacFraming { eAacRaw, eAacAdts };

    NalFraming framing = eAnnexB;
    ParameterSetPlace parameterSets = eAtKeyFrames;
    AacFraming aac = eAacAdts;
    quint32 nMaxUnitBytes = 16 << 20;
    quint32 nMaxNalUnits = 4096; ///< in one access unit
    quint32 nMaxParameterSets = 32;
    quint32 nMaxParameterSetBytes = 0xFFFF; ///< of one; configuration records hold no more

    /// Length-prefixed, parameter sets apart, AAC raw: what MP4 and Matroska hold.
    static RtpUnitFormat forFiles();
    /// Annex B, parameter sets at each key frame, AAC in ADTS: what decoders take without a record; the
    /// default.
    static RtpUnitFormat forDecoders();
};
