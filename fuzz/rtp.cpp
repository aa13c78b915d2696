// Received datagrams, as RTP and as RTCP: every field is read, and written where writing is offered.
#include <KepNuvikaUtil/RTCPPacket.h>
#include <KepNuvikaUtil/RTPPacket.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace
{
void check(bool bGood)
{
    if (!bGood)
        std::abort();
}

std::uint32_t readAll(const RTPPacket& packet)
{
    std::uint32_t sum = packet.getSeqNum() + packet.getRawTimestamp() + packet.getSSRC()
        + packet.getPaddingSize() + static_cast<std::uint32_t>(packet.getPayloadType());
    for (unsigned int i = 0; i < packet.getPayloadSize(); ++i)
        sum += packet.getPayload()[i];
    for (unsigned int i = 0; i < 4U * packet.getCSRCsCount(); ++i)
        sum += reinterpret_cast<const unsigned char*>(packet.getCSRCs())[i];
    if (packet.isExtended())
        sum += packet.getHeaderExt()->length[1];
    return sum;
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::vector<unsigned char> bytes(data, data + size); // its end is the end of the memory
    RTPPacket rtp(bytes.data(), static_cast<unsigned int>(size));
    RTCPPacket rtcp(bytes.data(), static_cast<unsigned int>(size));
    check(std::uint64_t(rtp.getHeaderSize()) + rtp.getPayloadSize() <= size);
    check(!rtp.isHeaderValid() || rtp.getPayloadSize() > 0);
    volatile std::uint32_t sum = readAll(rtp) + rtcp.getSSRC() + rtcp.getRtpTimestamp()
        + static_cast<std::uint32_t>(rtcp.getNtpTimestamp().toMilliseconds());
    (void)sum;
    rtcp.setNtpTimestamp(NTPTimestamp::fromMilliseconds(1));
    rtcp.setRtpTimestamp(2);
    rtcp.setType(eRtcpRR);
    rtp.setPayloadType(eRtp96);
    rtp.setSeqNum(5);
    check(!rtp.isHeaderValid() || rtp.getSeqNum() == 5);
    return 0;
}
