// Private: gives frames of AAC in the form that was asked for, whatever they came in: without the ADTS heads
// of a camera, one by one where it put several into one unit, in place where nothing stands in front of them.
#pragma once

#include "media/AacConfig_p.h"
#include "media/UnitBuffer_p.h"

#include <KepNuvikaUtil/RtpUnitFormat.h>

namespace Nuvika
{
class AacUnits
{
public:
    AacUnits(const RtpUnitFormat& format, quint32 clockRate);

    // bAssumed: what ADTS heads say holds, the description said nothing.
    void setConfig(const AacConfig& config, bool bAssumed)
    {
        m_config = config;
        m_bAssumed = bAssumed;
    }
    const AacConfig& config() const { return m_config; }
    // Ticks of the clock for each frame.
    quint32 frameTicks() const;

    // Frames to give; they stay in place until they were given.
    void set(const unsigned char* data, std::size_t size, quint32 timestamp);
    void clear() { m_nLeft = 0; }
    // The next frame; its bytes, timestamp and flags are set.
    bool give(RtpAccessUnit* unit);
    quint64 lost() const { return m_nLost; }

private:
    void believe(const AacConfig& config);
    bool frame(const unsigned char* data, std::size_t size, RtpAccessUnit* unit);

    const bool m_bAdts;
    const quint32 m_nClockRate;
    AacConfig m_config;
    bool m_bAssumed = false;
    UnitBuffer m_bytes;
    const unsigned char* m_pNext = nullptr;
    std::size_t m_nLeft = 0;
    quint32 m_timestamp = 0;
    quint64 m_nLost = 0;
};
} // namespace Nuvika
