#include <KepNuvikaUtil/RTCPPacket.h>

#include <KepNuvikaUtil/VariableBuffer.h>

#include <QtCore/QtEndian>

#include <cstring>

namespace
{
constexpr quint32 kHeaderSize = 8;
constexpr quint32 kSenderReportSize = 28;
constexpr unsigned char kVersion = 0x80; // 2, in the upper bits
constexpr unsigned char kVersionMask = 0xC0;
constexpr unsigned char kPadded = 0x20;
constexpr quint32 kNtpOffset = 0; // within the sender information
constexpr quint32 kRtpOffset = 8;

bool isReport(int type) { return type == eRtcpSR || type == eRtcpRR; }
} // namespace

RTCPPacket::RTCPPacket(VariableBuffer* buffer, unsigned int ssrc)
{
    build(buffer, kHeaderSize, eRtcpFIR, ssrc);
}

RTCPPacket::RTCPPacket(
    VariableBuffer* buffer, unsigned int ssrc, unsigned int rtpTimestamp, const NTPTimestamp& ntp)
{
    build(buffer, kSenderReportSize, eRtcpSR, ssrc);
    setNtpTimestamp(ntp);
    setRtpTimestamp(rtpTimestamp);
}

void RTCPPacket::build(VariableBuffer* buffer, unsigned int rawSize, rtcp_type_t type, unsigned int ssrc)
{
    auto* data = static_cast<unsigned char*>(buffer->getBuffer(rawSize));
    std::memset(data, 0, rawSize);
    data[0] = kVersion;
    data[1] = static_cast<unsigned char>(type);
    qToBigEndian<quint16>(static_cast<quint16>(rawSize / 4 - 1), data + 2);
    m_nHeaderSize = kHeaderSize;
    m_nPayloadSize = rawSize - kHeaderSize;
    m_nRawSize = rawSize;
    m_bValid = true;
    m_pData = data;
    setSSRC(ssrc);
}

RTCPPacket::RTCPPacket(const unsigned char* data, unsigned int size) { check(data, size); }

RTCPPacket::RTCPPacket(const VariableBuffer* buffer)
{
    check(static_cast<const unsigned char*>(buffer->getBuffer()), buffer->getSize());
}

void RTCPPacket::check(const unsigned char* data, unsigned int size)
{
    if (size < kHeaderSize)
        return;
    quint32 usable = size;
    if ((data[0] & kPadded) != 0) {
        const quint32 pad = data[size - 1];
        if (pad > size)
            return;
        usable -= pad;
    }
    const bool bKnown = isReport(data[1]) || data[1] == eRtcpFIR;
    if ((data[0] & kVersionMask) != kVersion || !bKnown || usable < kHeaderSize)
        return;
    m_nHeaderSize = kHeaderSize;
    m_nPayloadSize = usable - kHeaderSize;
    m_nRawSize = size;
    m_bValid = true;
    m_pData = data;
}

unsigned char* RTCPPacket::reportField(unsigned int offset, unsigned int size) const
{
    if (!m_bValid || !isReport(m_pData[1]) || offset + size > m_nPayloadSize)
        return nullptr;
    return const_cast<unsigned char*>(m_pData) + m_nHeaderSize + offset;
}

rtcp_type_t RTCPPacket::getType() const { return static_cast<rtcp_type_t>(m_bValid ? m_pData[1] : 0); }

void RTCPPacket::setType(rtcp_type_t type)
{
    if (m_bValid && isReport(m_pData[1]))
        const_cast<unsigned char*>(m_pData)[1] = static_cast<unsigned char>(type);
}

unsigned int RTCPPacket::getSSRC() const { return m_bValid ? qFromBigEndian<quint32>(m_pData + 4) : 0U; }

void RTCPPacket::setSSRC(unsigned int ssrc)
{
    if (m_bValid)
        qToBigEndian<quint32>(ssrc, const_cast<unsigned char*>(m_pData) + 4);
}

NTPTimestamp RTCPPacket::getNtpTimestamp() const
{
    quint64 raw = 0;
    if (const unsigned char* field = reportField(kNtpOffset, sizeof raw))
        std::memcpy(&raw, field, sizeof raw);
    return NTPTimestamp::fromRawNetByteOrder(raw);
}

void RTCPPacket::setNtpTimestamp(const NTPTimestamp& ntp)
{
    const quint64 raw = ntp.toNetByteOrder();
    if (unsigned char* field = reportField(kNtpOffset, sizeof raw))
        std::memcpy(field, &raw, sizeof raw);
}

unsigned int RTCPPacket::getRtpTimestamp() const
{
    const unsigned char* field = reportField(kRtpOffset, sizeof(quint32));
    return field != nullptr ? qFromBigEndian<quint32>(field) : 0U;
}

void RTCPPacket::setRtpTimestamp(unsigned int rtpTimestamp)
{
    if (unsigned char* field = reportField(kRtpOffset, sizeof(quint32)))
        qToBigEndian<quint32>(rtpTimestamp, field);
}
