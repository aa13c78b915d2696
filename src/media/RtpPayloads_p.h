// Private: one maker for each payload format that has a file of its own.
#pragma once

#include <KepNuvikaUtil/RtpDepacketizer.h>

namespace Nuvika
{
std::unique_ptr<RtpDepacketizer> h264Depacketizer(
    const RtpPayloadFormat& payload, const RtpUnitFormat& format);
std::unique_ptr<RtpDepacketizer> h265Depacketizer(
    const RtpPayloadFormat& payload, const RtpUnitFormat& format);
std::unique_ptr<RtpDepacketizer> jpegDepacketizer(
    const RtpPayloadFormat& payload, const RtpUnitFormat& format);
std::unique_ptr<RtpDepacketizer> aacDepacketizer(
    const RtpPayloadFormat& payload, const RtpUnitFormat& format);
std::unique_ptr<RtpDepacketizer> latmDepacketizer(
    const RtpPayloadFormat& payload, const RtpUnitFormat& format);
// Audio without a head of its own: G.711, G.722, L16, Opus and the like.
std::unique_ptr<RtpDepacketizer> plainAudioDepacketizer(
    const RtpPayloadFormat& payload, const RtpUnitFormat& format);
// Whatever ends with its marker, or, of video, with a new timestamp.
std::unique_ptr<RtpDepacketizer> markedDepacketizer(
    const RtpPayloadFormat& payload, const RtpUnitFormat& format, bool bNewTimestampEnds);
} // namespace Nuvika
