#pragma once

#include <KepNuvikaUtil/Export.h>

#include <QtCore/QtEndian>

class QDebug;
class VariableBuffer;

/// Payload type numbers of RTP (RFC 3551 and dynamic types), and the one of a packet that is not valid.
// clang-format off
enum rtp_payload_t {
    eRtp0 = 0, eRtp1, eRtp2, eRtp3, eRtp4, eRtp5, eRtp6, eRtp7, eRtp8, eRtp9, eRtp10, eRtp11, eRtp12, eRtp13,
    eRtp14, eRtp15, eRtp16, eRtp17, eRtp18, eRtp19, eRtp20, eRtp21, eRtp22, eRtp23, eRtp24, eRtp25, eRtp26,
    eRtp27, eRtp28, eRtp29, eRtp30, eRtp31, eRtp32, eRtp33, eRtp34, eRtp35, eRtp36, eRtp37, eRtp38, eRtp39,
    eRtp40, eRtp41, eRtp42, eRtp43, eRtp44, eRtp45, eRtp46, eRtp47, eRtp48, eRtp49, eRtp50, eRtp51, eRtp52,
    eRtp53, eRtp54, eRtp55, eRtp56, eRtp57, eRtp58, eRtp59, eRtp60, eRtp61, eRtp62, eRtp63, eRtp64, eRtp65,
    eRtp66, eRtp67, eRtp68, eRtp69, eRtp70, eRtp71, eRtp72, eRtp73, eRtp74, eRtp75, eRtp76, eRtp77, eRtp78,
    eRtp79, eRtp80, eRtp81, eRtp82, eRtp83, eRtp84, eRtp85, eRtp86, eRtp87, eRtp88, eRtp89, eRtp90, eRtp91,
    eRtp92, eRtp93, eRtp94, eRtp95, eRtp96, eRtp97, eRtp98, eRtp99, eRtp100, eRtp101, eRtp102, eRtp103,
    eRtp104, eRtp105, eRtp106, eRtp107, eRtp108, eRtp109, eRtp110, eRtp111, eRtp112, eRtp113, eRtp114,
    eRtp115, eRtp116, eRtp117, eRtp118, eRtp119, eRtp120, eRtp121, eRtp122, eRtp123, eRtp124, eRtp125,
    eRtp126, eRtp127,
    eRtpInvalid = 143
};
// clang-format on

/// A view of one RTP data packet (RFC 3550, section 5.1): builds one into a buffer, or checks received bytes
/// and reads them where they lie. It owns no bytes: the buffer or datagram outlives the view, and a copy sees
/// the same bytes. Nothing outside the given size is ever read, and no alignment is asked for.
///
/// A view that is not valid reads as 0, false, null or eRtpInvalid, and ignores writes.
/// Threads: one at a time.
class KEPNUVIKAUTIL_EXPORT RTPPacket
{
public:
    /// The 12 bytes in front of every packet, as they are sent.
    struct RTPFixedHeader {
        unsigned char flags; ///< version (2 bits), padding, extension, number of contributing sources (4)
        unsigned char type; ///< marker (1 bit), payload type (7)
        unsigned char seqNum[2];
        unsigned char timestamp[4];
        unsigned char ssrc[4];
    };
    /// The 4 bytes in front of a header extension, as they are sent.
    struct RTPHeaderExt {
        unsigned char profile[2];
        unsigned char length[2]; ///< of the extension behind, in 32-bit words
    };

    RTPPacket() = default;
    /// Builds a packet into \a buffer, padded to whole 32-bit words. A null \a payload leaves the bytes for
    /// getWritablePayload(). Of \a marker the lowest bit counts. A payload whose packet would not fit 32 bits
    /// is refused with a warning: the view is not valid then.
    RTPPacket(VariableBuffer* buffer, unsigned int ssrc, unsigned short seqNum, unsigned int timestamp,
        rtp_payload_t payloadType, const unsigned char* payload, unsigned int payloadSize,
        unsigned char marker);
    /// Checks received bytes. Not valid: another version, lengths that do not fit, no payload, and RTCP
    /// sender and receiver reports that come on the same port.
    RTPPacket(const unsigned char* data, unsigned int size);
    explicit RTPPacket(const VariableBuffer* buffer);

    bool isHeaderValid() const { return m_bValid; }
    const RTPFixedHeader* getHeader() const { return reinterpret_cast<const RTPFixedHeader*>(m_pData); }
    const unsigned char* getRawPacket() const { return m_pData; }

    /// Sizes in bytes: up to the payload; of the payload without padding; of everything.
    unsigned int getHeaderSize() const { return m_nHeaderSize; }
    unsigned int getPayloadSize() const { return m_nPayloadSize; }
    unsigned int getRawPacketSize() const { return m_nRawSize; }
    const unsigned char* getPayload() const { return m_bValid ? m_pData + m_nHeaderSize : nullptr; }
    unsigned char* getWritablePayload() { return const_cast<unsigned char*>(getPayload()); }

    /// The contributing sources in network byte order, at any alignment.
    const unsigned int* getCSRCs() const
    {
        return m_bValid ? reinterpret_cast<const unsigned int*>(m_pData + kFixedSize) : nullptr;
    }
    unsigned short getCSRCsCount() const
    {
        return m_bValid ? static_cast<unsigned short>(m_pData[0] & 0x0F) : static_cast<unsigned short>(0);
    }
    /// Where the extension is, if isExtended().
    const RTPHeaderExt* getHeaderExt() const
    {
        return m_bValid ? reinterpret_cast<const RTPHeaderExt*>(m_pData + kFixedSize + 4 * getCSRCsCount())
                        : nullptr;
    }
    /// The packet's last byte: the size of the padding, if isPadded().
    unsigned char getPaddingSize() const
    {
        return m_bValid ? m_pData[m_nRawSize - 1] : static_cast<unsigned char>(0);
    }
    bool isExtended() const { return m_bValid && (m_pData[0] & 0x10) != 0; }
    bool isPadded() const { return m_bValid && (m_pData[0] & 0x20) != 0; }
    bool isMarked() const { return m_bValid && (m_pData[1] & 0x80) != 0; }
    rtp_payload_t getPayloadType() const
    {
        return m_bValid ? static_cast<rtp_payload_t>(m_pData[1] & 0x7F) : eRtpInvalid;
    }
    /// In host byte order.
    unsigned short getSeqNum() const { return m_bValid ? qFromBigEndian<quint16>(m_pData + 2) : quint16(0); }
    unsigned int getRawTimestamp() const { return m_bValid ? qFromBigEndian<quint32>(m_pData + 4) : 0U; }
    unsigned int getSSRC() const { return m_bValid ? qFromBigEndian<quint32>(m_pData + 8) : 0U; }

    /// The marker bit stays.
    void setPayloadType(rtp_payload_t type);
    void setSeqNum(unsigned short seqNum);
    void setRawTimestamp(unsigned int timestamp);
    void setSSRC(unsigned int ssrc);

private:
    static constexpr unsigned int kFixedSize = 12;

    void check(const unsigned char* data, unsigned int size);
    unsigned char* writable() { return const_cast<unsigned char*>(m_pData); }

    quint32 m_nHeaderSize = 0;
    quint32 m_nPayloadSize = 0;
    quint32 m_nRawSize = 0;
    bool m_bValid = false;
    const unsigned char* m_pData = nullptr;
};

/// For logs: what the head says, and sizes.
KEPNUVIKAUTIL_EXPORT QDebug operator<<(QDebug debug, const RTPPacket& packet);
