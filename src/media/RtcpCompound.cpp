#include <KepNuvikaUtil/RtcpCompound.h>

#include <QtCore/QtEndian>

#include <algorithm>

namespace
{
constexpr unsigned int kHead = 4; // of every packet
constexpr unsigned int kSource = 4;
constexpr unsigned int kSenderInfo = 20;
constexpr unsigned int kReportBlock = 24;
constexpr unsigned int kAppName = 4;
constexpr unsigned int kItemHead = 2;

// What a packet of that type and count holds at least.
unsigned int leastSize(int type, unsigned int count)
{
    switch (type) {
    case eRtcpSR:
        return kHead + kSource + kSenderInfo + count * kReportBlock;
    case eRtcpRR:
        return kHead + kSource + count * kReportBlock;
    case eRtcpBYE:
        return kHead + count * kSource;
    case eRtcpAPP:
        return kHead + kSource + kAppName;
    default:
        return kHead;
    }
}
} // namespace

RtcpCompound::RtcpCompound(const unsigned char* data, unsigned int size) : m_data(data), m_nTotal(size) { }

QString RtcpCompound::errorString() const
{
    if (m_error == nullptr)
        return QString();
    return QStringLiteral("RTCP, byte %1: %2").arg(m_nErrorAt).arg(QLatin1String(m_error));
}

bool RtcpCompound::fail(unsigned int at, const char* error)
{
    m_error = error;
    m_nErrorAt = at;
    m_nNext = m_nTotal;
    m_nSize = 0;
    m_nChunksLeft = 0;
    m_bInChunk = false;
    return false;
}

bool RtcpCompound::next()
{
    m_nSize = 0;
    m_nChunksLeft = 0;
    m_bInChunk = false;
    if (m_nNext >= m_nTotal)
        return false;
    m_nAt = m_nNext;
    const unsigned int left = m_nTotal - m_nAt;
    const unsigned char* head = m_data + m_nAt;
    if (left < kHead)
        return fail(m_nAt, "too few bytes for a packet");
    if ((head[0] & 0xC0) != 0x80)
        return fail(m_nAt, "not version 2");
    m_nSize = 4U * (qFromBigEndian<quint16>(head + 2) + 1U);
    const bool bEndMissing
        = head[1] == eRtcpSDES && (head[0] & 0x20) == 0 && m_nSize > left && m_nSize < left + 4;
    if (bEndMissing)
        m_nSize = left;
    if (m_nSize > left)
        return fail(m_nAt + 2, "the packet is longer than what was received");
    m_nNext = m_nAt + m_nSize;
    return fits();
}

// Takes the padding off, and looks whether what is counted is there.
bool RtcpCompound::fits()
{
    const unsigned char* head = m_data + m_nAt;
    if ((head[0] & 0x20) != 0) {
        const unsigned int padding = head[m_nSize - 1];
        if (padding == 0 || padding > m_nSize - kHead)
            return fail(m_nNext - 1, "the padding does not fit");
        m_nSize -= padding;
    }
    if (m_nSize < leastSize(type(), static_cast<unsigned int>(count())))
        return fail(m_nAt, "the packet is shorter than its count says");
    if (type() == eRtcpSDES) {
        m_nChunksLeft = static_cast<unsigned int>(count());
        m_nSdesAt = kHead;
    }
    return true;
}

quint32 RtcpCompound::word(unsigned int offset) const
{
    return offset + 4 <= m_nSize ? qFromBigEndian<quint32>(m_data + m_nAt + offset) : 0U;
}

std::string_view RtcpCompound::text(unsigned int offset, unsigned int size) const
{
    return std::string_view(reinterpret_cast<const char*>(m_data) + m_nAt + offset, size);
}

bool RtcpCompound::senderInfo(RtcpSenderInfo* info) const
{
    if (type() != eRtcpSR)
        return false;
    *info = {ssrc(), NTPTimestamp::fromRawHostByteOrder((quint64(word(8)) << 32) | word(12)), word(16),
        word(20), word(24)};
    return true;
}

bool RtcpCompound::reportBlock(int index, RtcpReportBlock* block) const
{
    if ((type() != eRtcpSR && type() != eRtcpRR) || index < 0 || index >= count())
        return false;
    const unsigned int at = leastSize(type(), static_cast<unsigned int>(index));
    const quint32 lost = word(at + 4);
    const auto cumulative = static_cast<qint32>(lost << 8) / 256; // with its sign
    *block = {word(at), static_cast<quint8>(lost >> 24), cumulative, word(at + 8), word(at + 12),
        word(at + 16), word(at + 20)};
    return true;
}

bool RtcpCompound::nextSdesItem(RtcpSdesItem* item)
{
    while (m_bInChunk || m_nChunksLeft > 0) {
        if (!m_bInChunk && !beginChunk())
            return false;
        const bool bEnd = m_nSdesAt >= m_nSize || m_data[m_nAt + m_nSdesAt] == 0;
        if (bEnd) {
            m_nSdesAt = (m_nSdesAt / 4 + 1) * 4;
            m_bInChunk = false;
            continue;
        }
        const unsigned int left = m_nSize - m_nSdesAt;
        const unsigned char* head = m_data + m_nAt + m_nSdesAt;
        if (left < kItemHead || left - kItemHead < head[1])
            return fail(m_nAt + m_nSdesAt, "an item reaches over the end");
        *item = {m_nSdesSsrc, head[0], text(m_nSdesAt + kItemHead, head[1])};
        m_nSdesAt += kItemHead + head[1];
        return true;
    }
    return false;
}

bool RtcpCompound::beginChunk()
{
    if (m_nSdesAt + kSource > m_nSize)
        return fail(m_nAt + m_nSdesAt, "a chunk is missing");
    m_nSdesSsrc = word(m_nSdesAt);
    m_nSdesAt += kSource;
    --m_nChunksLeft;
    m_bInChunk = true;
    return true;
}

quint32 RtcpCompound::byeSource(int index) const
{
    const bool bThere = type() == eRtcpBYE && index >= 0 && index < count();
    return bThere ? word(kHead + static_cast<unsigned int>(index) * kSource) : 0U;
}

std::string_view RtcpCompound::byeReason() const
{
    const unsigned int at = kHead + static_cast<unsigned int>(count()) * kSource;
    if (type() != eRtcpBYE || at >= m_nSize)
        return std::string_view();
    return text(at + 1, std::min<unsigned int>(m_data[m_nAt + at], m_nSize - at - 1));
}

std::string_view RtcpCompound::appName() const
{
    return type() == eRtcpAPP ? text(kHead + kSource, kAppName) : std::string_view();
}

std::string_view RtcpCompound::appData() const
{
    constexpr unsigned int kAppHead = kHead + kSource + kAppName;
    return type() == eRtcpAPP ? text(kAppHead, m_nSize - kAppHead) : std::string_view();
}
