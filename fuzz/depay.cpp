// A stream of packets, as every payload format takes it. The first byte chooses format and form, then each
// packet has a head of three bytes: flags and losses, a step of the timestamp, a length.
#include <KepNuvikaUtil/RTPPacket.h>
#include <KepNuvikaUtil/RtpDepacketizer.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <vector>

namespace
{
constexpr std::uint32_t kMostUnit = 3000;

struct Track {
    const char* name;
    const char* media;
    const char* fmtp;
};

constexpr Track kTracks[] = {
    {"H264", "video",
        "packetization-mode=1;sprop-parameter-sets=Z2QAKKzZQHgCJ+XARAAAAwAEAAADAMg8YMZY,aOvjyyLA;"},
    {"H265", "video", "sprop-sps=QgEBAWAAAAMAkAAAAwAAAwB4oAPAgBDllmkk7njQQAAAAwBAAAAGQg=="},
    {"H265", "video", "sprop-max-don-diff=2"},
    {"JPEG", "video", ""},
    {"MPEG4-GENERIC", "audio", "mode=AAC-hbr;sizelength=13;indexlength=3;indexdeltalength=3;config=1190"},
    {"MPEG4-GENERIC", "audio", "mode=AAC-lbr"},
    {"MP4A-LATM", "audio", "cpresent=0;config=400023203fc0"},
    {"OPUS", "audio", ""},
    {"vnd.onvif.metadata", "application", ""},
    {"MP4V-ES", "video", ""},
};

void check(bool bGood)
{
    if (!bGood)
        std::abort();
}

void takeUnits(RtpDepacketizer* depacketizer)
{
    RtpAccessUnit unit;
    for (std::uint32_t count = 0; depacketizer->next(&unit); ++count) {
        check(unit.nSize > 0 && unit.nSize <= kMostUnit && count <= 0xFFFF);
        std::uint32_t sum = 0;
        for (std::uint32_t i = 0; i < unit.nSize; ++i)
            sum += unit.pData[i];
        volatile std::uint32_t use = sum;
        (void)use;
    }
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    constexpr std::size_t kHead = 3;
    constexpr std::size_t kTrackCount = sizeof kTracks / sizeof *kTracks;
    if (size == 0)
        return 0;
    const Track& track = kTracks[data[0] % kTrackCount];
    RtpUnitFormat format
        = data[0] / kTrackCount % 2 != 0 ? RtpUnitFormat::forFiles() : RtpUnitFormat::forDecoders();
    format.nMaxUnitBytes = kMostUnit;
    format.nMaxNalUnits = 20;
    format.nMaxParameterSets = 8;
    format.nMaxParameterSetBytes = 200;
    const auto depacketizer
        = RtpDepacketizer::create({QString::fromLatin1(track.name), 0, QString::fromLatin1(track.fmtp),
                                      QString::fromLatin1(track.media), 0, {}},
            format);
    std::uint32_t timestamp = 0;
    for (std::size_t at = 1; at + kHead < size;) {
        const std::uint8_t* head = data + at;
        at += kHead;
        const std::size_t length = std::min<std::size_t>(head[2] + 1U, size - at);
        timestamp += head[1];
        std::vector<unsigned char> packet{static_cast<unsigned char>(0x80 | (head[0] & 0x10)),
            static_cast<unsigned char>(96 | (head[0] & 0x80)), 0, 0,
            static_cast<unsigned char>(timestamp >> 24), static_cast<unsigned char>(timestamp >> 16),
            static_cast<unsigned char>(timestamp >> 8), static_cast<unsigned char>(timestamp), 0, 0, 0, 1};
        packet.insert(packet.end(), data + at, data + at + length);
        at += length;
        depacketizer->push(RTPPacket(packet.data(), static_cast<unsigned int>(packet.size())), head[0] & 3U);
        takeUnits(depacketizer.get());
    }
    depacketizer->flush();
    takeUnits(depacketizer.get());
    return 0;
}
