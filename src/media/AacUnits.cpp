#include "media/AacUnits_p.h"

using Nuvika::AacUnits;

AacUnits::AacUnits(const RtpUnitFormat& format, quint32 clockRate)
    : m_bAdts(format.aac == RtpUnitFormat::eAacAdts), m_nClockRate(clockRate),
      m_bytes(kAdtsHead + kMostInAdts)
{
}

quint32 AacUnits::frameTicks() const
{
    const quint64 rate = m_config.coreRate != 0 ? m_config.coreRate : m_nClockRate;
    const quint64 clock = m_nClockRate != 0 ? m_nClockRate : rate;
    return rate == 0 ? m_config.frameLength : static_cast<quint32>(m_config.frameLength * clock / rate);
}

void AacUnits::set(const unsigned char* data, std::size_t size, quint32 timestamp)
{
    m_pNext = data;
    m_nLeft = size;
    m_timestamp = timestamp;
}

bool AacUnits::give(RtpAccessUnit* unit)
{
    while (m_nLeft > 0) {
        const AdtsHead adts = readAdts(m_pNext, m_nLeft);
        const std::size_t whole = adts.headSize > 0 ? adts.frameSize : m_nLeft;
        const unsigned char* data = m_pNext;
        if (adts.headSize > 0 && m_bAssumed)
            believe(configOfAdts(data));
        m_pNext += whole;
        m_nLeft -= whole;
        unit->nTimestamp = m_timestamp;
        m_timestamp += frameTicks();
        if (whole > adts.headSize && frame(data + adts.headSize, whole - adts.headSize, unit))
            return true;
    }
    return false;
}

void AacUnits::believe(const AacConfig& config)
{
    if (config.isKnown())
        setConfig(config, false);
}

bool AacUnits::frame(const unsigned char* data, std::size_t size, RtpAccessUnit* unit)
{
    unit->pData = data;
    unit->nSize = static_cast<quint32>(size);
    unit->bKeyFrame = true;
    unit->bRecoveryPoint = true;
    if (!m_bAdts)
        return true;
    m_bytes.clear();
    const auto head = adtsHead(m_config, size);
    if (size > kMostInAdts || !m_bytes.append(head.data(), head.size()) || !m_bytes.append(data, size)) {
        ++m_nLost;
        return false;
    }
    unit->pData = m_bytes.data();
    unit->nSize = static_cast<quint32>(m_bytes.size());
    return true;
}
