// How descriptions are shown in logs. Their keys are left out: those of "k" lines, and of streams that are
// encrypted by what the description says (RFC 4567, RFC 4568).
#include <KepNuvikaUtil/SDP.h>
#include <KepNuvikaUtil/SdpDescription.h>

#include "core/Shown_p.h"

#include <array>

using namespace Nuvika;

namespace
{
bool isKey(const QString& line)
{
    constexpr std::array<const char*, 3> kKeys{"k=", "a=crypto:", "a=key-mgmt:"};
    for (const char* key : kKeys) {
        if (line.startsWith(QLatin1String(key), Qt::CaseInsensitive))
            return true;
    }
    return false;
}

QString shownLine(const QString& line)
{
    if (!isKey(line))
        return withoutSecrets(line);
    return line.left(line.startsWith(QLatin1Char('a')) ? line.indexOf(QLatin1Char(':')) + 1 : 2)
        + QLatin1String("...");
}

const char* directionText(sdp_direction_t direction)
{
    constexpr std::array<const char*, 4> kTexts{"sendrecv", "sendonly", "recvonly", "inactive"};
    const auto i = static_cast<std::size_t>(direction);
    return i < kTexts.size() ? kTexts[i] : "unknown direction";
}
} // namespace

QDebug operator<<(QDebug debug, const SDP& sdp)
{
    Shown shown(debug, "SDP");
    const QStringList lines = SDP(sdp).toString().split(QLatin1String("\r\n"), Qt::SkipEmptyParts);
    for (const QString& line : lines)
        shown(shownLine(line));
    return debug;
}

QDebug operator<<(QDebug debug, const SdpLine& line)
{
    Shown(debug, "SdpLine")(shownLine(QString(QLatin1Char(line.type)) + QLatin1Char('=') + line.value));
    return debug;
}

QDebug operator<<(QDebug debug, const SdpParameter& parameter)
{
    Shown(debug, "SdpParameter")(withoutSecrets(parameter.key + QLatin1Char('=') + parameter.value));
    return debug;
}

QDebug operator<<(QDebug debug, const SdpConnection& connection)
{
    Shown(debug, "SdpConnection")(connection.address)("ttl", connection.ttl)
        .when(connection.bMulticast, "multicast");
    return debug;
}

QDebug operator<<(QDebug debug, const SdpFormat& format)
{
    Shown shown(debug, "SdpFormat");
    shown(format.name)(format.encoding)("clock", format.clockRate)("channels", format.channels);
    if (!format.fmtp.isEmpty())
        shown("fmtp", withoutSecrets(format.fmtp));
    if (format.width != 0)
        shown("width", format.width)("height", format.height);
    return debug;
}

QDebug operator<<(QDebug debug, const SdpMedia& media)
{
    Shown shown(debug, "SdpMedia");
    shown(media.type)("port", media.port)(media.transport)("control", withoutSecrets(media.control))(
        directionText(media.direction))(media.connection)("lines", media.lines.size());
    for (const SdpFormat& format : media.formats)
        shown(format);
    return debug;
}

QDebug operator<<(QDebug debug, const SdpDescription& description)
{
    Shown shown(debug, "SdpDescription");
    shown("control", withoutSecrets(description.control))(directionText(description.direction))(
        description.connection)("lines", description.lines.size())
        .when(description.bCut, "cut");
    for (const SdpMedia& media : description.media)
        shown(media);
    return debug;
}
