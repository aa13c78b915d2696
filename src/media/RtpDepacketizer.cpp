#include <KepNuvikaUtil/RtpDepacketizer.h>

#include <KepNuvikaUtil/RTPPacket.h>

#include "media/RtpPayloads_p.h"

namespace
{
using Maker = std::unique_ptr<RtpDepacketizer> (*)(const RtpPayloadFormat&, const RtpUnitFormat&);

struct Entry {
    const char* name;
    Maker maker;
};

constexpr Entry kMakers[] = {
    {"H264", Nuvika::h264Depacketizer},
    {"H265", Nuvika::h265Depacketizer},
    {"JPEG", Nuvika::jpegDepacketizer},
    {"MPEG4-GENERIC", Nuvika::aacDepacketizer},
    {"MP4A-LATM", Nuvika::latmDepacketizer},
    {"PCMU", Nuvika::plainAudioDepacketizer},
    {"PCMA", Nuvika::plainAudioDepacketizer},
    {"G722", Nuvika::plainAudioDepacketizer},
    {"L16", Nuvika::plainAudioDepacketizer},
    {"OPUS", Nuvika::plainAudioDepacketizer},
};
} // namespace

RtpUnitFormat RtpUnitFormat::forFiles()
{
    RtpUnitFormat format;
    format.framing = eLengthPrefixed;
    format.parameterSets = eApart;
    format.aac = eAacRaw;
    return format;
}

RtpUnitFormat RtpUnitFormat::forDecoders() { return {}; }

std::unique_ptr<RtpDepacketizer> RtpDepacketizer::create(
    const RtpPayloadFormat& payload, const RtpUnitFormat& format)
{
    RtpPayloadFormat known = payload;
    if (known.pictureSize.isEmpty())
        known.pictureSize = QSize(); // what is not known is not valid
    const QString name = known.encodingName.trimmed();
    for (const Entry& entry : kMakers) {
        if (name.compare(QLatin1String(entry.name), Qt::CaseInsensitive) == 0)
            return entry.maker(known, format);
    }
    if (known.media.compare(QLatin1String("audio"), Qt::CaseInsensitive) == 0)
        return Nuvika::plainAudioDepacketizer(known, format);
    const bool bVideo = known.media.compare(QLatin1String("video"), Qt::CaseInsensitive) == 0;
    return Nuvika::markedDepacketizer(known, format, bVideo);
}

RtpDepacketizer::~RtpDepacketizer() = default;

void RtpDepacketizer::push(const RTPPacket& packet, quint32 lostBefore)
{
    if (packet.isHeaderValid())
        take(packet, lostBefore);
}

bool RtpDepacketizer::next(RtpAccessUnit* unit) { return give(unit); }

void RtpDepacketizer::flush() { end(); }
