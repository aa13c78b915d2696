#pragma once

#include <KepNuvikaUtil/Export.h>
#include <KepNuvikaUtil/NTPTimestamp.h>
#include <KepNuvikaUtil/RTCPPacket.h>

#include <QtCore/QString>

#include <string_view>

/// RTCP packet types (RFC 3550, section 12.1) beside those of rtcp_type_t.
enum rtcp_more_types_t { eRtcpSDES = 202, eRtcpBYE = 203, eRtcpAPP = 204 };

/// Items of a source description (RFC 3550, section 6.5).
enum rtcp_sdes_t {
    eSdesCNAME = 1,
    eSdesNAME,
    eSdesEMAIL,
    eSdesPHONE,
    eSdesLOC,
    eSdesTOOL,
    eSdesNOTE,
    eSdesPRIV
};

/// What a sender report says of its sender (RFC 3550, section 6.4.1).
struct RtcpSenderInfo {
    quint32 nSsrc = 0;
    NTPTimestamp ntp; ///< null: the sender has no wall clock
    quint32 nRtpTimestamp = 0; ///< the media clock at that moment
    quint32 nPackets = 0;
    quint32 nOctets = 0; ///< of payload
};

/// What a receiver says of one source (RFC 3550, section 6.4.1).
struct RtcpReportBlock {
    quint32 nSsrc = 0;
    quint8 nFractionLost = 0; ///< since the last report, in 1/256
    qint32 nCumulativeLost = 0; ///< 24 bits with a sign: duplicates may make it negative
    quint32 nExtendedHighest = 0;
    quint32 nJitter = 0; ///< in ticks of the media clock
    quint32 nLastSr = 0; ///< the middle 32 bits of its NTP timestamp; 0: none came
    quint32 nDelaySinceLastSr = 0; ///< in 1/65536 s
};

/// One item of a source description: not terminated, and in any encoding though UTF-8 is due.
struct RtcpSdesItem {
    quint32 nSsrc = 0;
    int type = 0; ///< rtcp_sdes_t or another
    std::string_view text;
};

/// Walks over the packets of a compound RTCP packet (RFC 3550, section 6.1) where they lie, and reads each.
///
///     RtcpCompound rtcp(data, size);
///     while (rtcp.next())
///         if (rtcp.senderInfo(&info)) ...
///     if (rtcp.isMalformed()) ...
///
/// A packet is shown once its length, its padding and what its count announces are there: next() ends at the
/// first where they are not, and what was shown before holds. Any type may come first or alone (RFC 5506).
/// Borne with: a source description without its end byte, also when up to three bytes are missing for it at
/// the very end, and a reason of a BYE that is longer than its packet (it is cut).
///
/// It owns no bytes: they outlive it and all views. Threads: one at a time.
class KEPNUVIKAUTIL_EXPORT RtcpCompound
{
public:
    RtcpCompound() = default;
    RtcpCompound(const unsigned char* data, unsigned int size);

    /// False behind the last packet, and at a malformed one.
    bool next();
    bool isMalformed() const { return m_error != nullptr; }
    /// What is wrong at which byte, for people; empty when nothing is.
    QString errorString() const;

    // Of the packet that next() came to: 0 and null before.
    int type() const { return m_nSize > 0 ? m_data[m_nAt + 1] : 0; }
    /// Reports, sources or chunks; of other packets their subtype.
    int count() const { return m_nSize > 0 ? m_data[m_nAt] & 0x1F : 0; }
    const unsigned char* data() const { return m_nSize > 0 ? m_data + m_nAt : nullptr; }
    /// In bytes, with the head and without padding.
    unsigned int size() const { return m_nSize; }
    /// The first source: of the sender, but in a source description.
    quint32 ssrc() const { return word(4); }
    /// The same packet as the view that builds and changes packets.
    RTCPPacket packet() const { return RTCPPacket(data(), m_nSize); }

    /// False in all but sender reports.
    bool senderInfo(RtcpSenderInfo* info) const;
    /// Of a sender or receiver report; false beyond the last.
    bool reportBlock(int index, RtcpReportBlock* block) const;
    /// The items of a source description one after the other; false behind the last, and in all else. An item
    /// that reaches over the end makes the packet malformed.
    bool nextSdesItem(RtcpSdesItem* item);
    /// A source that leaves, by its index; 0 beyond the last.
    quint32 byeSource(int index) const;
    std::string_view byeReason() const;
    /// Four characters, and the bytes behind; empty in all but application packets.
    std::string_view appName() const;
    std::string_view appData() const;

private:
    bool fail(unsigned int at, const char* error);
    bool fits();
    bool beginChunk();
    quint32 word(unsigned int offset) const;
    std::string_view text(unsigned int offset, unsigned int size) const;

    const unsigned char* m_data = nullptr;
    unsigned int m_nTotal = 0;
    unsigned int m_nAt = 0; // the packet
    unsigned int m_nSize = 0; // without padding
    unsigned int m_nNext = 0;
    unsigned int m_nSdesAt = 0; // the next item, from the packet on
    unsigned int m_nChunksLeft = 0;
    bool m_bInChunk = false;
    quint32 m_nSdesSsrc = 0;
    const char* m_error = nullptr;
    unsigned int m_nErrorAt = 0;
};

/// For logs; of a compound the packet that next() came to.
KEPNUVIKAUTIL_EXPORT QDebug operator<<(QDebug debug, const RtcpSenderInfo& info);
KEPNUVIKAUTIL_EXPORT QDebug operator<<(QDebug debug, const RtcpReportBlock& block);
KEPNUVIKAUTIL_EXPORT QDebug operator<<(QDebug debug, const RtcpSdesItem& item);
KEPNUVIKAUTIL_EXPORT QDebug operator<<(QDebug debug, const RtcpCompound& rtcp);
