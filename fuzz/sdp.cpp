// Session descriptions: what is understood is written so that it is understood the same way again.
#include <KepNuvikaUtil/SDP.h>

#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const QString text = QString::fromUtf8(reinterpret_cast<const char*>(data), static_cast<int>(size));
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
