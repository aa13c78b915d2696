// Session descriptions: what is understood is written so that it is understood the same way again; and as
// clients read them, down to what depacketizers take from it.
#include <KepNuvikaUtil/RtpDepacketizer.h>
#include <KepNuvikaUtil/SDP.h>
#include <KepNuvikaUtil/SdpDescription.h>

#include <cstdint>
#include <cstdlib>

namespace
{
void check(bool bGood)
{
    if (!bGood)
        std::abort();
}

// Configurations and parameter sets in "fmtp" lines.
void readParameters(const SdpMedia& media, const SdpFormat& format)
{
    const RtpPayloadFormat payload{format.encoding, format.clockRate, format.fmtp, media.type,
        static_cast<quint32>(format.channels), QSize(format.width, format.height)};
    const RtpMediaParameters read = RtpDepacketizer::create(payload)->parameters();
    for (const QSize& size : {read.codedSize, read.shownSize, read.pixelAspect})
        check(!size.isValid() || !size.isEmpty());
    check(read.configuration.size() <= 4 * (format.fmtp.size() + 64));
}

void readAsClient(const QByteArray& text)
{
    const SdpDescription read = SdpDescription::read(text);
    check(read.media.size() <= SdpDescription::kMaxMedia);
    const QString base = QStringLiteral("rtsp://h/");
    for (int i = 0; i < read.media.size(); ++i) {
        const SdpMedia& media = read.media.at(i);
        check(media.formats.size() <= SdpDescription::kMaxFormats && media.lines.first().type == 'm');
        check(!read.trackUrl(i, base).isEmpty() && media.port >= 0 && media.port <= 65535);
        for (const SdpFormat& format : media.formats) {
            check(format.encoding.isEmpty() || (format.clockRate > 0 && format.channels > 0));
            check(format.payloadType < 0 || media.format(format.payloadType) != nullptr);
            readParameters(media, format);
        }
    }
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const QString text = QString::fromUtf8(reinterpret_cast<const char*>(data), static_cast<int>(size));
    readAsClient(QByteArray(reinterpret_cast<const char*>(data), static_cast<int>(size)));
    SDP sdp = SDP::fromSDPString(text);
    const QString once = sdp.toString();
    if (SDP::fromSDPString(once).toString() != once)
        std::abort();
    for (int i = 0; i < sdp.getNumMediaDesc(); ++i) {
        const QStringList names = sdp.getMediaAttributeNames(i);
        for (const QString& name : names) {
            const QString value = sdp.getMediaAttributeValue(i, name);
            const bool bRefused = (name + value).contains(QChar(0)); // is read, and never set
            if (sdp.setMediaAttribute(i, name, value) == bRefused && !name.isEmpty())
                std::abort();
        }
    }
    while (sdp.getNumMediaDesc() > 0)
        sdp.removeMediaDesc(0);
    return 0;
}
