#include <KepNuvikaUtil/RTPPacket.h>

#include <KepNuvikaUtil/VariableBuffer.h>

#include "core/Log_p.h"

#include <cstring>
#include <limits>

namespace
{
constexpr unsigned char kVersion = 0x80; // 2, in the upper bits
constexpr unsigned char kVersionMask = 0xC0;
constexpr unsigned char kPadded = 0x20;
constexpr unsigned char kExtended = 0x10;
constexpr quint32 kExtensionHead = 4;
constexpr quint32 kWord = 4;
} // namespace

RTPPacket::RTPPacket(VariableBuffer* buffer, unsigned int ssrc, unsigned short seqNum, unsigned int timestamp,
    rtp_payload_t payloadType, const unsigned char* payload, unsigned int payloadSize, unsigned char marker)
{
    if (payloadSize > static_cast<quint32>(std::numeric_limits<qint32>::max()) - kFixedSize - kWord) {
        NUVIKA_WARNING(lcMedia, "RTPPacket::RTPPacket(): a payload of %u bytes is too large", payloadSize);
        return;
    }
    const quint32 unpadded = kFixedSize + payloadSize;
    const quint32 pad = (kWord - unpadded % kWord) % kWord;
    m_nHeaderSize = kFixedSize;
    m_nPayloadSize = payloadSize;
    m_nRawSize = unpadded + pad;
    m_bValid = true;
    auto* data = static_cast<unsigned char*>(buffer->getBuffer(m_nRawSize));
    m_pData = data;

    std::memset(data + unpadded, static_cast<int>(pad), pad);
    data[0] = pad > 0 ? kVersion | kPadded : kVersion;
    data[1] = static_cast<unsigned char>((payloadType & 0x7F) | ((marker & 1) << 7));
    setSeqNum(seqNum);
    setRawTimestamp(timestamp);
    setSSRC(ssrc);
    if (payload != nullptr)
        std::memcpy(data + kFixedSize, payload, payloadSize);
}

RTPPacket::RTPPacket(const unsigned char* data, unsigned int size) { check(data, size); }

RTPPacket::RTPPacket(const VariableBuffer* buffer)
{
    check(static_cast<const unsigned char*>(buffer->getBuffer()), buffer->getSize());
}

void RTPPacket::check(const unsigned char* data, unsigned int size)
{
    if (size < kFixedSize)
        return;
    quint32 header = kFixedSize + 4U * (data[0] & 0x0F);
    if ((data[0] & kExtended) != 0) {
        if (header + kExtensionHead > size)
            return;
        header += kExtensionHead + 4U * qFromBigEndian<quint16>(data + header + 2);
    }
    if (header > size)
        return;
    quint32 end = size;
    if ((data[0] & kPadded) != 0) {
        const quint32 pad = data[size - 1];
        if (pad > size)
            return;
        end -= pad;
    }
    constexpr unsigned char kReportMask = 0x7E; // types 72 and 73: RTCP's 200 and 201
    constexpr unsigned char kReport = 0x48;
    if ((data[0] & kVersionMask) != kVersion || (data[1] & kReportMask) == kReport || header >= end)
        return;
    m_nHeaderSize = header;
    m_nPayloadSize = end - header;
    m_nRawSize = size;
    m_bValid = true;
    m_pData = data;
}

void RTPPacket::setPayloadType(rtp_payload_t type)
{
    if (m_bValid)
        writable()[1] = static_cast<unsigned char>((m_pData[1] & 0x80) | (type & 0x7F));
}

void RTPPacket::setSeqNum(unsigned short seqNum)
{
    if (m_bValid)
        qToBigEndian<quint16>(seqNum, writable() + 2);
}

void RTPPacket::setRawTimestamp(unsigned int timestamp)
{
    if (m_bValid)
        qToBigEndian<quint32>(timestamp, writable() + 4);
}

void RTPPacket::setSSRC(unsigned int ssrc)
{
    if (m_bValid)
        qToBigEndian<quint32>(ssrc, writable() + 8);
}
