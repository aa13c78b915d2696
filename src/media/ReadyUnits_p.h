// Private: units that are complete and were not given yet, at most one that ended when a packet began and one
// that ended with it, and how many packets were lost before each.
#pragma once

#include "media/UnitBuffer_p.h"

#include <KepNuvikaUtil/RtpAccessUnit.h>

#include <array>

namespace Nuvika
{
class ReadyUnits
{
public:
    void clear() { m_nFirst = m_nEnd = 0; }
    void addLost(quint32 packets) { m_nPacketsLost += packets; }
    quint32 takeLost()
    {
        const quint32 lost = m_nPacketsLost;
        m_nPacketsLost = 0;
        return lost;
    }

    void add(const unsigned char* data, std::size_t size, quint32 timestamp)
    {
        RtpAccessUnit& unit = m_units[m_nEnd++];
        unit = RtpAccessUnit();
        unit.pData = data;
        unit.nSize = static_cast<quint32>(size);
        unit.nTimestamp = timestamp;
        unit.nPacketsLost = takeLost();
        unit.bKeyFrame = true;
        unit.bRecoveryPoint = true;
    }
    void add(const UnitBuffer& bytes, quint32 timestamp) { add(bytes.data(), bytes.size(), timestamp); }

    bool give(RtpAccessUnit* unit)
    {
        if (m_nFirst == m_nEnd)
            return false;
        *unit = m_units[m_nFirst++];
        return true;
    }

private:
    std::array<RtpAccessUnit, 2> m_units;
    std::size_t m_nFirst = 0;
    std::size_t m_nEnd = 0;
    quint32 m_nPacketsLost = 0;
};
} // namespace Nuvika
