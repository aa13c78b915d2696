// Units that end with their marker, or, of video, with a new timestamp. Nothing tells where one begins:
// behind a loss the one whose beginning may be missing is left out.
#include "media/ReadyUnits_p.h"
#include "media/RtpPayloads_p.h"

#include <KepNuvikaUtil/RTPPacket.h>

#include <utility>

namespace
{
class MarkedDepacketizer final : public RtpDepacketizer
{
public:
    MarkedDepacketizer(const RtpPayloadFormat& payload, const RtpUnitFormat& format, bool bNewTimestampEnds)
        : m_bNewTimestampEnds(bNewTimestampEnds), m_nMost(format.nMaxUnitBytes), m_bytes(m_nMost),
          m_done(m_nMost)
    {
        m_parameters.codec = payload.encodingName.trimmed().toLower().toLatin1();
        if (bNewTimestampEnds)
            m_parameters.codedSize = m_parameters.shownSize = payload.pictureSize;
    }

private:
    void take(const RTPPacket& packet, quint32 lostBefore) override
    {
        const quint32 timestamp = packet.getRawTimestamp();
        const bool bOther = m_bNewTimestampEnds && timestamp != m_timestamp;
        m_ready.clear();
        if (lostBefore > 0)
            afterLoss(bOther, lostBefore);
        else if (m_bOpen && bOther)
            finish(true);
        else if (bOther)
            m_bLost = false;
        m_timestamp = m_bOpen ? m_timestamp : timestamp;
        if (!m_bLost)
            add(packet);
        if (packet.isMarked())
            m_bLost = false;
    }

    bool give(RtpAccessUnit* unit) override { return m_ready.give(unit); }

    void end() override
    {
        m_ready.clear();
        if (m_bOpen && m_bNewTimestampEnds)
            finish(false);
        else if (m_bOpen)
            lose();
        m_bLost = false;
    }

    void afterLoss(bool bOther, quint32 lost)
    {
        const bool bWasOpen = m_bOpen;
        if (bWasOpen)
            lose();
        const bool bIntact = bWasOpen && bOther && lost == 1;
        m_bLost = !bIntact;
        if (m_bLost && (!bWasOpen || bOther))
            ++m_nUnitsLost;
        m_ready.addLost(lost);
    }

    void add(const RTPPacket& packet)
    {
        const std::size_t size = packet.getPayloadSize();
        if (!m_bOpen && packet.isMarked() && size <= m_nMost)
            return m_ready.add(packet.getPayload(), size, m_timestamp);
        if (!m_bOpen)
            m_bytes.clear();
        m_bOpen = true;
        if (!m_bytes.append(packet.getPayload(), size))
            lose();
        else if (packet.isMarked())
            finish(false);
    }

    void finish(bool bMoreFollows)
    {
        if (bMoreFollows)
            std::swap(m_bytes, m_done);
        m_ready.add(bMoreFollows ? m_done : m_bytes, m_timestamp);
        m_bOpen = false;
        m_bLost = false;
    }

    void lose()
    {
        m_bOpen = false;
        m_bLost = true;
        ++m_nUnitsLost;
    }

    const bool m_bNewTimestampEnds;
    const std::size_t m_nMost;
    Nuvika::UnitBuffer m_bytes;
    Nuvika::UnitBuffer m_done;
    Nuvika::ReadyUnits m_ready;
    quint32 m_timestamp = 0;
    bool m_bOpen = false;
    bool m_bLost = false; // up to the end of the unit
};
} // namespace

std::unique_ptr<RtpDepacketizer> Nuvika::markedDepacketizer(
    const RtpPayloadFormat& payload, const RtpUnitFormat& format, bool bNewTimestampEnds)
{
    return std::make_unique<MarkedDepacketizer>(payload, format, bNewTimestampEnds);
}
