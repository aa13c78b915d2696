#pragma once

#include <KepNuvikaUtil/Export.h>
#include <KepNuvikaUtil/NTPTimestamp.h>

#include <QtCore/QByteArray>

class QDebug;
class VariableBuffer;

/// The RTCP packet types that are known: full intra request (RFC 2032), sender and receiver report (RFC
/// 3550).
enum rtcp_type_t { eRtcpFIR = 192, eRtcpSR = 200, eRtcpRR = 201 };

/// A view of one RTCP packet (RFC 3550, section 6): builds a full intra request or a sender report into a
/// buffer, or checks received bytes and reads them where they lie. It owns no bytes, as RTPPacket.
///
/// Of a compound packet the first is seen; what follows counts as its payload. A receiver report is treated
/// like a sender report: its first report block reads as the sender information.
///
/// A view that is not valid, or whose bytes end before what is asked for, reads as 0 or a null timestamp and
/// ignores writes.
/// Threads: one at a time.
class KEPNUVIKAUTIL_EXPORT RTCPPacket
{
public:
    RTCPPacket() = default;
    /// Builds a full intra request of 8 bytes.
    RTCPPacket(VariableBuffer* buffer, unsigned int ssrc);
    /// Builds a sender report of 28 bytes, without report blocks; the packet and octet counts are 0.
    RTCPPacket(VariableBuffer* buffer, unsigned int ssrc, unsigned int rtpTimestamp, const NTPTimestamp& ntp);
    /// Checks received bytes.
    RTCPPacket(const unsigned char* data, unsigned int size);
    explicit RTCPPacket(const VariableBuffer* buffer);

    bool isHeaderValid() const { return m_bValid; }
    const unsigned char* getRawPacket() const { return m_pData; }
    unsigned int getRawPacketSize() const { return m_nRawSize; }

    rtcp_type_t getType() const;
    /// Only between sender and receiver report.
    void setType(rtcp_type_t type);
    unsigned int getSSRC() const;
    void setSSRC(unsigned int ssrc);
    /// The sender's wall clock, and its media clock at that moment: of reports only.
    NTPTimestamp getNtpTimestamp() const;
    void setNtpTimestamp(const NTPTimestamp& ntp);
    unsigned int getRtpTimestamp() const;
    void setRtpTimestamp(unsigned int rtpTimestamp);

private:
    void build(VariableBuffer* buffer, unsigned int rawSize, rtcp_type_t type, unsigned int ssrc);
    void check(const unsigned char* data, unsigned int size);
    // The bytes [offset, offset + size) of a report's payload; null when there are none.
    unsigned char* reportField(unsigned int offset, unsigned int size) const;

    quint32 m_nHeaderSize = 0;
    quint32 m_nPayloadSize = 0;
    quint32 m_nRawSize = 0;
    QByteArray m_owned; // stays empty
    bool m_bValid = false;
    const unsigned char* m_pData = nullptr;
};

/// For logs: what the head says, and the size.
KEPNUVIKAUTIL_EXPORT QDebug operator<<(QDebug debug, const RTCPPacket& packet);
