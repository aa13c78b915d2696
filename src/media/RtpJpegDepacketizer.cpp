// RFC 2435, and the header extension with the picture's own segments (ONVIF Streaming, 5.1.3.1) for pictures
// whose size does not fit a packet's head.
#include "media/JpegHead_p.h"
#include "media/ReadyUnits_p.h"
#include "media/RtpPayloads_p.h"

#include <KepNuvikaUtil/RTPPacket.h>

#include <QtCore/QtEndian>

#include <cstring>
#include <map>
#include <utility>

using Nuvika::JpegHead;

namespace
{
constexpr quint16 kPictureExtension = 0xFFD8;
constexpr quint16 kReplayExtension = 0xABAC; // of recordings; another one may stand in it
constexpr std::size_t kReplaySize = 12;

// The size in the segments of a picture's head; empty when there is none.
QSize sizeInSegments(const unsigned char* data, std::size_t size)
{
    constexpr std::size_t kFrame = 9; // marker, length, precision, height, width
    while (size >= 4 && data[0] == 0xFF) {
        if (data[1] >= 0xC0 && data[1] <= 0xC2 && size >= kFrame)
            return {qFromBigEndian<quint16>(data + 7), qFromBigEndian<quint16>(data + 5)};
        const std::size_t length = 2U + qFromBigEndian<quint16>(data + 2);
        if (data[1] == 0xFF || length > size)
            break;
        data += length;
        size -= length;
    }
    return {};
}

QSize sizeInExtension(const RTPPacket& packet)
{
    if (!packet.isExtended())
        return {};
    const auto* data = reinterpret_cast<const unsigned char*>(packet.getHeaderExt());
    std::size_t size = 4U * qFromBigEndian<quint16>(data + 2);
    if (qFromBigEndian<quint16>(data) == kReplayExtension && size >= kReplaySize + 4) {
        data += 4 + kReplaySize;
        size -= 4 + kReplaySize;
    }
    return qFromBigEndian<quint16>(data) == kPictureExtension ? sizeInSegments(data + 4, size) : QSize();
}

// What stands in front of each packet's bytes of the scan.
struct Fragment {
    bool bGood = false;
    quint32 offset = 0;
    unsigned int type = 0;
    unsigned int quality = 0;
    QSize size;
    quint32 restartInterval = 0;
    const unsigned char* rest = nullptr;
    std::size_t nRest = 0;
};

Fragment readFragment(const unsigned char* data, std::size_t size)
{
    constexpr std::size_t kMain = 8;
    constexpr std::size_t kRestart = 4;
    Fragment fragment;
    const bool bRestart = size >= kMain && data[4] >= 64 && data[4] < 128;
    const std::size_t head = bRestart ? kMain + kRestart : kMain;
    if (size < head)
        return fragment;
    fragment.offset = qFromBigEndian<quint32>(data) & 0xFFFFFFU;
    fragment.type = data[4] & ~64U;
    fragment.quality = data[5];
    fragment.size = QSize(data[6] * 8, data[7] * 8);
    fragment.restartInterval = bRestart ? qFromBigEndian<quint16>(data + kMain) : 0;
    fragment.rest = data + head;
    fragment.nRest = size - head;
    fragment.bGood = fragment.type <= 1;
    return fragment;
}

class JpegDepacketizer final : public RtpDepacketizer
{
public:
    JpegDepacketizer(const RtpPayloadFormat& payload, const RtpUnitFormat& format)
        : m_describedSize(payload.pictureSize), m_bytes(format.nMaxUnitBytes), m_done(format.nMaxUnitBytes)
    {
        m_parameters.codec = "jpeg";
        m_parameters.codedSize = m_parameters.shownSize = payload.pictureSize;
    }

private:
    void take(const RTPPacket& packet, quint32 lostBefore) override
    {
        m_ready.clear();
        const quint32 timestamp = packet.getRawTimestamp();
        Fragment fragment = readFragment(packet.getPayload(), packet.getPayloadSize());
        // A single packet before the middle of a new picture was that one's first.
        const bool bNextOnes
            = lostBefore == 1 && timestamp != m_timestamp && fragment.bGood && fragment.offset != 0;
        if (m_bOpen && bNextOnes)
            finish(true);
        else if (m_bOpen && lostBefore > 0)
            lose();
        m_ready.addLost(lostBefore);
        if (m_bOpen && (timestamp != m_timestamp || (fragment.bGood && fragment.offset == 0)))
            finish(true);
        const bool bNew = timestamp != m_timestamp || !m_bSeen;
        m_timestamp = timestamp;
        m_bSeen = true;
        if (!m_bOpen && !(fragment.bGood && fragment.offset == 0)) {
            m_nUnitsLost += bNew ? 1 : 0; // once for each
            return;
        }
        const bool bJoins = m_bOpen ? fragment.bGood && fragment.offset == m_bytes.size() - m_nHead
                                    : begin(packet, &fragment);
        m_bOpen = true;
        if (!bJoins || !m_bytes.append(fragment.rest, fragment.nRest))
            lose();
        else if (packet.isMarked())
            finish(false);
    }

    bool give(RtpAccessUnit* unit) override
    {
        if (!m_ready.give(unit))
            return false;
        const QSize size = m_sizes[unit->pData == m_done.data() ? 1 : 0];
        unit->bParametersChanged = size != m_parameters.codedSize;
        m_parameters.codedSize = m_parameters.shownSize = size;
        return true;
    }

    void end() override
    {
        m_ready.clear();
        if (m_bOpen)
            finish(false);
        m_bSeen = false;
    }

    // The first packet of a picture. False when something is missing that its head needs.
    bool begin(const RTPPacket& packet, Fragment* fragment)
    {
        JpegHead head;
        head.size = fragment->size;
        if (head.size.isEmpty())
            head.size = sizeInExtension(packet);
        if (head.size.isEmpty())
            head.size = m_describedSize;
        head.sampling = static_cast<int>(fragment->type);
        head.restartInterval = fragment->restartInterval;
        m_bytes.clear();
        if (head.size.isEmpty() || !readTables(fragment, &head))
            return false;
        m_sizes[0] = head.size;
        const bool bGood = m_bytes.append(Nuvika::jpegHead(head));
        m_nHead = m_bytes.size();
        return bGood;
    }

    // Tables of the packet are kept under their number, for pictures that name it only (3.1.8).
    bool readTables(Fragment* fragment, JpegHead* head)
    {
        constexpr unsigned int kOwnTables = 128;
        constexpr std::size_t kTableHead = 4;
        constexpr std::size_t kMost = 256;
        if (fragment->quality < kOwnTables) {
            head->tables = Nuvika::jpegTables(fragment->quality);
            return true;
        }
        if (fragment->nRest < kTableHead)
            return false;
        const std::size_t length = qFromBigEndian<quint16>(fragment->rest + 2);
        if (length > fragment->nRest - kTableHead || length > kMost)
            return false;
        Tables& kept = m_tables[fragment->quality];
        if (length > 0) {
            kept.wide = fragment->rest[1];
            kept.bytes = QByteArray(
                reinterpret_cast<const char*>(fragment->rest + kTableHead), static_cast<int>(length));
        }
        fragment->rest += kTableHead + length;
        fragment->nRest -= kTableHead + length;
        head->tables = kept.bytes;
        head->wideTables = kept.wide;
        return !kept.bytes.isEmpty();
    }

    void finish(bool bMoreFollows)
    {
        static constexpr unsigned char kEnd[2] = {0xFF, 0xD9};
        const std::size_t size = m_bytes.size();
        const bool bEnded = size - m_nHead >= 2 && std::memcmp(m_bytes.data() + size - 2, kEnd, 2) == 0;
        if (size == m_nHead || (!bEnded && !m_bytes.append(kEnd, 2)))
            return lose();
        if (bMoreFollows) {
            std::swap(m_bytes, m_done);
            m_sizes[1] = m_sizes[0];
        }
        m_ready.add(bMoreFollows ? m_done : m_bytes, m_timestamp);
        m_bOpen = false;
    }

    void lose()
    {
        m_bOpen = false;
        ++m_nUnitsLost;
    }

    struct Tables {
        QByteArray bytes;
        quint32 wide = 0;
    };

    const QSize m_describedSize;
    std::map<unsigned int, Tables> m_tables; // by quality, 128 to 255
    Nuvika::UnitBuffer m_bytes;
    Nuvika::UnitBuffer m_done;
    QSize m_sizes[2]; // of m_bytes, of m_done
    std::size_t m_nHead = 0;
    Nuvika::ReadyUnits m_ready;
    quint32 m_timestamp = 0;
    bool m_bOpen = false;
    bool m_bSeen = false; // a packet, hence the timestamp
};
} // namespace

std::unique_ptr<RtpDepacketizer> Nuvika::jpegDepacketizer(
    const RtpPayloadFormat& payload, const RtpUnitFormat& format)
{
    return std::make_unique<JpegDepacketizer>(payload, format);
}
