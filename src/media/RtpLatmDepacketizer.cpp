// RFC 6416, MP4A-LATM with its configuration in the description: one program, one layer, lengths in bytes.
// What has its configuration in the stream is handed on as it is.
#include "media/AacUnits_p.h"
#include "media/FormatParameters_p.h"
#include "media/RtpPayloads_p.h"

#include <KepNuvikaUtil/RTPPacket.h>

#include <algorithm>
#include <optional>

using Nuvika::AacConfig;
using Nuvika::BitReader;

namespace
{
// StreamMuxConfig (ISO/IEC 14496-3, 1.7.3). Nothing where it is of a kind that cameras do not send.
std::optional<AacConfig> readMuxConfig(const QByteArray& bytes)
{
    const auto* data = reinterpret_cast<const unsigned char*>(bytes.constData());
    const auto size = static_cast<std::size_t>(bytes.size());
    BitReader bits(data, size, false);
    const bool bVersion = bits.flag();
    const bool bSameTimes = bits.flag();
    bits.skip(6);
    const quint32 programs = bits.bits(4);
    const quint32 layers = bits.bits(3);
    const std::size_t from = bits.position();
    AacConfig config = Nuvika::readAacConfig(&bits);
    const std::size_t to = bits.position();
    const quint32 lengthType = bits.bits(3);
    if (bVersion || !bSameTimes || programs != 0 || layers != 0 || lengthType != 0 || !bits.isGood()
        || !config.isKnown())
        return {};
    // The configuration stands between bytes.
    BitReader again(data, size, false);
    again.skip(static_cast<unsigned int>(from));
    for (std::size_t at = from; at < to; at += 8) {
        const auto count = static_cast<unsigned int>(std::min<std::size_t>(8, to - at));
        config.bytes.append(static_cast<char>(again.bits(count) << (8 - count)));
    }
    return config;
}

// The frame in front, behind its length: bytes of 255 and one that is less. False when it does not end here.
bool takeFrame(const unsigned char** data, std::size_t* left, std::size_t* size)
{
    std::size_t at = 0;
    *size = 0;
    while (at < *left && (*data)[at] == 0xFF) {
        *size += (*data)[at++];
    }
    if (at == *left)
        return false;
    *size += (*data)[at++];
    if (*size > *left - at)
        return false;
    *data += at;
    *left -= at;
    return true;
}

bool isWhole(const unsigned char* data, std::size_t left)
{
    std::size_t size = 0;
    while (left > 0) {
        if (!takeFrame(&data, &left, &size))
            return false;
        data += size;
        left -= size;
    }
    return true;
}

class LatmDepacketizer final : public RtpDepacketizer
{
public:
    LatmDepacketizer(const RtpPayloadFormat& payload, const RtpUnitFormat& format, const AacConfig& config)
        : m_units(format, payload.nClockRate), m_bytes(format.nMaxUnitBytes)
    {
        m_units.setConfig(config, false);
        Nuvika::describeAac(config, &m_parameters);
    }

private:
    void take(const RTPPacket& packet, quint32 lostBefore) override
    {
        const bool bOther = packet.getRawTimestamp() != m_timestamp;
        m_nLeft = 0;
        m_units.clear();
        if (m_bOpen && (lostBefore > 0 || bOther))
            lose();
        m_nPacketsLost += lostBefore;
        m_timestamp = packet.getRawTimestamp();
        m_bSkip = m_bSkip && !bOther;
        const unsigned char* data = packet.getPayload();
        const std::size_t size = packet.getPayloadSize();
        if (!m_bOpen && !m_bSkip && isWhole(data, size))
            show(data, size);
        else if (!m_bOpen && !m_bSkip && (lostBefore > 0 || packet.isMarked()))
            lose(); // nobody knows where it begins
        else if (!m_bSkip)
            collect(packet);
        if (packet.isMarked())
            m_bSkip = false;
    }

    void collect(const RTPPacket& packet)
    {
        if (!m_bOpen)
            m_bytes.clear();
        m_bOpen = true;
        if (!m_bytes.append(packet.getPayload(), packet.getPayloadSize()))
            return lose();
        if (!packet.isMarked())
            return;
        if (!isWhole(m_bytes.data(), m_bytes.size()))
            return lose();
        show(m_bytes.data(), m_bytes.size());
        m_bOpen = false;
    }

    void show(const unsigned char* data, std::size_t size)
    {
        m_pNext = data;
        m_nLeft = size;
        m_nNextTimestamp = m_timestamp;
    }

    void lose()
    {
        m_bOpen = false;
        m_bSkip = true;
        ++m_nUnitsLost;
    }

    bool give(RtpAccessUnit* unit) override
    {
        *unit = RtpAccessUnit();
        const quint64 lost = m_units.lost();
        while (!m_units.give(unit)) {
            std::size_t size = 0;
            if (m_nLeft == 0 || !takeFrame(&m_pNext, &m_nLeft, &size)) {
                m_nUnitsLost += m_units.lost() - lost;
                return false;
            }
            m_units.set(m_pNext, size, m_nNextTimestamp);
            m_nNextTimestamp += m_units.frameTicks();
            m_pNext += size;
            m_nLeft -= size;
        }
        m_nUnitsLost += m_units.lost() - lost;
        unit->nPacketsLost = m_nPacketsLost;
        m_nPacketsLost = 0;
        return true;
    }

    void end() override
    {
        m_units.clear();
        m_nLeft = 0;
        if (m_bOpen)
            lose();
        m_bSkip = false;
    }

    Nuvika::AacUnits m_units;
    Nuvika::UnitBuffer m_bytes;
    const unsigned char* m_pNext = nullptr;
    std::size_t m_nLeft = 0;
    quint32 m_timestamp = 0;
    quint32 m_nNextTimestamp = 0;
    quint32 m_nPacketsLost = 0;
    bool m_bOpen = false; // a unit of several packets
    bool m_bSkip = false; // the rest of a lost one
};
} // namespace

std::unique_ptr<RtpDepacketizer> Nuvika::latmDepacketizer(
    const RtpPayloadFormat& payload, const RtpUnitFormat& format)
{
    const FormatParameters fmtp(payload.fmtp);
    const auto config = readMuxConfig(fmtp.fromHex("config"));
    if (!config || fmtp.number("cpresent", 0) != 0)
        return markedDepacketizer(payload, format, false);
    return std::make_unique<LatmDepacketizer>(payload, format, *config);
}
