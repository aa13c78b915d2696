// What the programs of the RTP row share: packets, their heads, and the count.
//   near_rtp_PEER rtp 0 PACKETS STREAMS: receives on STREAMS ports, which it prints, until the far side's end
#pragma once

#include "Common.h"

#include <vector>

namespace bench
{
constexpr std::size_t kRtpSize = 1200;
constexpr unsigned int kRtpBurst = 17;

inline void writeRtpHead(
    std::string& packet, unsigned int sequence, unsigned int timestamp, unsigned int source, bool bMarker)
{
    const unsigned int words[] = {htonl(0x80600000U | (bMarker ? 0x800000U : 0U) | (sequence & 0xFFFF)),
        htonl(timestamp), htonl(source)};
    std::memcpy(&packet[0], words, sizeof words);
}

class RtpCount
{
public:
    // Every packet that arrived; the far side's last word is no packet, and ends the program.
    void took(const char* data, std::size_t size)
    {
        if (size < 12) {
            watch.report(m_received);
            std::_Exit(0);
        }
        if (m_received++ == 0)
            watch.start();
        m_marked += (data[1] & 0x80) != 0 ? 1 : 0;
    }

private:
    long long m_received = 0;
    long long m_marked = 0;
};

inline RtpCount rtpCount;

// The least that a receiver does by itself: checks the version, and counts gaps of the sequence.
class RtpStream
{
public:
    void took(const char* data, std::size_t size)
    {
        rtpCount.took(data, size);
        unsigned short sequence = 0;
        std::memcpy(&sequence, data + 2, sizeof sequence);
        sequence = ntohs(sequence);
        if ((data[0] & 0xC0) == 0x80 && sequence != m_next)
            m_lost += static_cast<unsigned short>(sequence - m_next);
        m_next = static_cast<unsigned short>(sequence + 1);
    }

private:
    unsigned short m_next = 0;
    unsigned int m_lost = 0;
};

inline std::string printedPorts(const std::vector<unsigned short>& ports)
{
    std::string text;
    for (const unsigned short port : ports)
        text += " " + std::to_string(port);
    return text;
}
} // namespace bench
