// Received datagrams, as RTP, as RTCP and as compound RTCP: every field is read, and written where writing is
// offered.
#include <KepNuvikaUtil/RTCPPacket.h>
#include <KepNuvikaUtil/RTPPacket.h>
#include <KepNuvikaUtil/RtcpCompound.h>

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

std::uint32_t readAll(RtcpCompound rtcp)
{
    std::uint32_t sum = 0;
    const auto add = [&sum](std::string_view text) {
        for (const char c : text)
            sum += static_cast<unsigned char>(c);
    };
    while (rtcp.next()) {
        check(rtcp.size() >= 4 && !rtcp.isMalformed());
        sum += rtcp.ssrc() + rtcp.packet().getSSRC()
            + static_cast<std::uint32_t>(rtcp.data()[rtcp.size() - 1]);
        RtcpSenderInfo info;
        sum += rtcp.senderInfo(&info) ? info.nOctets : 0;
        RtcpReportBlock block;
        for (int i = 0; rtcp.reportBlock(i, &block); ++i)
            sum += block.nDelaySinceLastSr;
        for (int i = 0; i < rtcp.count(); ++i)
            sum += rtcp.byeSource(i);
        add(rtcp.byeReason());
        add(rtcp.appName());
        add(rtcp.appData());
        for (RtcpSdesItem item; rtcp.nextSdesItem(&item);)
            add(item.text);
    }
    return sum + static_cast<std::uint32_t>(rtcp.errorString().size());
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::vector<unsigned char> bytes(data, data + size); // its end is the end of the memory
    RTPPacket rtp(bytes.data(), static_cast<unsigned int>(size));
    RTCPPacket rtcp(bytes.data(), static_cast<unsigned int>(size));
    check(std::uint64_t(rtp.getHeaderSize()) + rtp.getPayloadSize() <= size);
    check(!rtp.isHeaderValid() || rtp.getPayloadSize() > 0);
    volatile std::uint32_t sum = readAll(rtp)
        + readAll(RtcpCompound(bytes.data(), static_cast<unsigned int>(size))) + rtcp.getSSRC()
        + rtcp.getRtpTimestamp() + static_cast<std::uint32_t>(rtcp.getNtpTimestamp().toMilliseconds());
    (void)sum;
    rtcp.setNtpTimestamp(NTPTimestamp::fromMilliseconds(1));
    rtcp.setRtpTimestamp(2);
    rtcp.setType(eRtcpRR);
    rtp.setPayloadType(eRtp96);
    rtp.setSeqNum(5);
    check(!rtp.isHeaderValid() || rtp.getSeqNum() == 5);
    return 0;
}
