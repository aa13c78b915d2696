// RFC 3640 with AAC: several units in a packet, or one in several.
#include "media/AacUnits_p.h"
#include "media/FormatParameters_p.h"
#include "media/RtpPayloads_p.h"

#include <KepNuvikaUtil/RTPPacket.h>

#include <QtCore/QtEndian>

#include <algorithm>
#include <utility>

using Nuvika::AacConfig;
using Nuvika::BitReader;

namespace
{
constexpr std::size_t kLengthField = 2; // of the units' heads, in bits

class AacDepacketizer final : public RtpDepacketizer
{
public:
    AacDepacketizer(const RtpPayloadFormat& payload, const RtpUnitFormat& format)
        : m_units(format, payload.nClockRate), m_bytes(format.nMaxUnitBytes), m_done(format.nMaxUnitBytes)
    {
        const Nuvika::FormatParameters fmtp(payload.fmtp);
        const bool bLow = fmtp.value("mode").compare("AAC-lbr", Qt::CaseInsensitive) == 0;
        m_nSizeBits = std::min(fmtp.number("sizelength", bLow ? 6 : 13), 32U);
        m_nUsualIndexBits = bLow ? 2 : 3;
        m_bIndexBits = !fmtp.value("indexlength").isEmpty();
        m_nIndexBits = std::min(fmtp.number("indexlength", m_nUsualIndexBits), 32U);
        m_nDeltaBits = std::min(fmtp.number("indexdeltalength", m_nIndexBits), 32U);
        constexpr quint32 kUsualRate = 48000;
        const AacConfig config = Nuvika::readAacConfig(fmtp.fromHex("config"));
        const quint32 rate = payload.nClockRate != 0 ? payload.nClockRate : kUsualRate;
        m_units.setConfig(
            config.isKnown() ? config : Nuvika::makeAacConfig(rate, payload.nChannels), !config.isKnown());
        Nuvika::describeAac(m_units.config(), &m_parameters);
    }

private:
    void take(const RTPPacket& packet, quint32 lostBefore) override
    {
        m_units.clear();
        m_nHeads = 0;
        m_bDone = false;
        const quint32 timestamp = packet.getRawTimestamp();
        if (m_bOpen && (lostBefore > 0 || timestamp != m_timestamp))
            endOpen(lostBefore > 0);
        m_nPacketsLost += lostBefore;
        m_bSkip = m_bSkip && timestamp == m_timestamp;
        m_timestamp = timestamp;
        if (!m_bSkip)
            read(packet);
        if (packet.isMarked())
            m_bSkip = false;
    }

    // A unit of several packets, or one that may have been the first of them, at a new timestamp.
    void endOpen(bool bLoss)
    {
        if (bLoss || m_nWhole > 0) {
            lose();
            return;
        }
        std::swap(m_bytes, m_done);
        m_bDone = true;
        m_doneTimestamp = m_timestamp;
        m_bOpen = false;
    }

    void lose()
    {
        m_bOpen = false;
        m_bSkip = true;
        ++m_nUnitsLost;
    }

    void read(const RTPPacket& packet)
    {
        const unsigned char* data = packet.getPayload();
        const std::size_t size = packet.getPayloadSize();
        const std::size_t bits = size < kLengthField ? 0 : qFromBigEndian<quint16>(data);
        const std::size_t heads = kLengthField + (bits + 7) / 8;
        if (m_nSizeBits == 0 || Nuvika::readAdts(data, size).headSize > 0) { // no heads
            m_units.set(data, size, m_timestamp);
            return;
        }
        if (bits < m_nSizeBits || heads > size) {
            m_nUnitsLost += size > kLengthField ? 1 : 0;
            return;
        }
        chooseIndexBits(bits);
        m_heads = BitReader(data + kLengthField, heads - kLengthField, false);
        m_pNext = data + heads;
        m_nLeft = size - heads;
        m_nNextTimestamp = m_timestamp;
        const std::size_t behind = bits - std::min<std::size_t>(bits, m_nSizeBits + m_nIndexBits);
        m_nHeads = 1 + behind / (m_nSizeBits + m_nDeltaBits);
        m_bFirst = true;
        if (m_nHeads == 1)
            single(packet.isMarked());
    }

    // Without a word of the description on indexes: some cameras send them, some do not.
    void chooseIndexBits(std::size_t bits)
    {
        if (m_bIndexBits)
            return;
        const bool bUsual = bits % (m_nSizeBits + m_nUsualIndexBits) == 0;
        m_nIndexBits = m_nDeltaBits = bUsual ? m_nUsualIndexBits : 0;
    }

    // The only unit of a packet may be a piece of one, with the size of the whole or its own.
    void single(bool bMarked)
    {
        const std::size_t size = m_heads.bits(m_nSizeBits);
        const std::size_t here = std::min(size, m_nLeft);
        m_nHeads = 0;
        if (here == 0)
            return;
        if (!m_bOpen && bMarked && size <= m_nLeft)
            return m_units.set(m_pNext, size, m_timestamp);
        if (!m_bOpen) {
            m_bytes.clear();
            m_nWhole = size > m_nLeft ? size : 0;
        }
        m_bOpen = true;
        const std::size_t wanted = m_nWhole > 0 ? std::min(m_nWhole - m_bytes.size(), m_nLeft) : here;
        if (!m_bytes.append(m_pNext, wanted))
            return lose();
        const bool bWhole = m_nWhole > 0 && m_bytes.size() == m_nWhole;
        if (bMarked && m_nWhole > 0 && !bWhole)
            return lose();
        if (bMarked || bWhole) {
            m_units.set(m_bytes.data(), m_bytes.size(), m_timestamp);
            m_bOpen = false;
        }
    }

    bool give(RtpAccessUnit* unit) override
    {
        *unit = RtpAccessUnit();
        if (m_bDone) {
            m_units.set(m_done.data(), m_done.size(), m_doneTimestamp);
            m_bDone = false;
            if (giveFrame(unit))
                return true;
        }
        while (!giveFrame(unit)) {
            if (!nextOfPacket())
                return false;
        }
        return true;
    }

    bool giveFrame(RtpAccessUnit* unit)
    {
        const quint64 lost = m_units.lost();
        const bool bGiven = m_units.give(unit);
        m_nUnitsLost += m_units.lost() - lost;
        if (!bGiven)
            return false;
        if (m_units.config().bytes != m_parameters.configuration) {
            Nuvika::describeAac(m_units.config(), &m_parameters);
            unit->bParametersChanged = true;
        }
        unit->nPacketsLost = m_nPacketsLost;
        m_nPacketsLost = 0;
        return true;
    }

    bool nextOfPacket()
    {
        if (m_nHeads == 0)
            return false;
        --m_nHeads;
        const std::size_t size = m_heads.bits(m_nSizeBits);
        const quint32 gap = m_heads.bits(m_bFirst ? m_nIndexBits : m_nDeltaBits);
        if (!m_bFirst)
            m_nNextTimestamp += (gap + 1) * m_units.frameTicks();
        m_bFirst = false;
        if (size > m_nLeft) {
            m_nHeads = 0;
            ++m_nUnitsLost;
            return false;
        }
        m_units.set(m_pNext, size, m_nNextTimestamp);
        m_pNext += size;
        m_nLeft -= size;
        return true;
    }

    void end() override
    {
        m_units.clear();
        m_nHeads = 0;
        m_bDone = false;
        if (m_bOpen)
            endOpen(false);
    }

    quint32 m_nSizeBits;
    quint32 m_nUsualIndexBits;
    quint32 m_nIndexBits;
    quint32 m_nDeltaBits;
    bool m_bIndexBits;
    Nuvika::AacUnits m_units;
    quint32 m_nPacketsLost = 0;
    quint32 m_timestamp = 0;

    // A packet of several units.
    BitReader m_heads{nullptr, 0, false};
    std::size_t m_nHeads = 0; // left
    bool m_bFirst = true;
    const unsigned char* m_pNext = nullptr;
    std::size_t m_nLeft = 0;
    quint32 m_nNextTimestamp = 0;

    // A unit of several packets.
    Nuvika::UnitBuffer m_bytes;
    Nuvika::UnitBuffer m_done; // one that ended when the next packet came
    quint32 m_doneTimestamp = 0;
    std::size_t m_nWhole = 0; // its size, when its packets say so
    bool m_bOpen = false;
    bool m_bDone = false;
    bool m_bSkip = false; // the rest of a lost one
};
} // namespace

std::unique_ptr<RtpDepacketizer> Nuvika::aacDepacketizer(
    const RtpPayloadFormat& payload, const RtpUnitFormat& format)
{
    return std::make_unique<AacDepacketizer>(payload, format);
}
