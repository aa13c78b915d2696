#include "MediaDescription.h"

namespace
{
// RFC 3551's payload types with a fixed clock, as far as cameras send them.
QString staticEncoding(int payloadType)
{
    switch (payloadType) {
    case 0:
        return QStringLiteral("PCMU/8000");
    case 8:
        return QStringLiteral("PCMA/8000");
    case 9:
        return QStringLiteral("G722/8000");
    case 26:
        return QStringLiteral("JPEG/90000");
    case 32:
        return QStringLiteral("MPV/90000");
    case 33:
        return QStringLiteral("MP2T/90000");
    default:
        return QString();
    }
}

// "IN IP4 239.1.2.3/1"
QHostAddress connectionAddress(const QStringList& lines)
{
    const QString address = lines.value(0).section(QLatin1Char(' '), 2, 2);
    return QHostAddress(address.section(QLatin1Char('/'), 0, 0));
}

// What an attribute says of a payload type; empty where it says nothing.
QString attributeOf(const SDP& sdp, int index, const char* name, int payloadType)
{
    const QStringList lines = sdp.getMediaParamValues(index, QStringLiteral("a"));
    const QString lead = QStringLiteral("%1:%2 ").arg(QLatin1String(name), QString::number(payloadType));
    for (const QString& line : lines) {
        if (line.startsWith(lead))
            return line.mid(lead.size()).trimmed();
    }
    return QString();
}
} // namespace

QString MediaDescription::shown() const
{
    const QString what = encoding.isEmpty() ? QStringLiteral("payload type %1").arg(payloadType) : encoding;
    return QStringLiteral("%1 %2").arg(kind, what);
}

std::vector<MediaDescription> MediaDescription::of(const SDP& sdp, QStringList* problems)
{
    std::vector<MediaDescription> media;
    const QHostAddress sessionAddress = connectionAddress(sdp.getSessionParamValues(QStringLiteral("c")));
    for (int i = 0; i < sdp.getNumMediaDesc(); ++i) {
        const QString line = sdp.getMediaParamValues(i, QStringLiteral("m")).value(0);
        const QStringList fields = line.split(QLatin1Char(' '), Qt::SkipEmptyParts);
        MediaDescription m;
        m.kind = fields.value(0);
        bool bPort = false;
        m.rtpPort = fields.value(1).section(QLatin1Char('/'), 0, 0).toUShort(&bPort);
        if (!bPort || m.rtpPort == 0 || !fields.value(2).startsWith(QLatin1String("RTP/"))) {
            problems->append(QStringLiteral("\"m=%1\" is no RTP stream with a port").arg(line));
            continue;
        }
        m.payloadType = fields.value(3).toInt();
        m.encoding = attributeOf(sdp, i, "rtpmap", m.payloadType);
        if (m.encoding.isEmpty())
            m.encoding = staticEncoding(m.payloadType);
        m.fmtp = attributeOf(sdp, i, "fmtp", m.payloadType);
        const unsigned int rate = m.encoding.section(QLatin1Char('/'), 1, 1).toUInt();
        m.clockRate = rate > 0 ? rate : m.clockRate;
        const QStringList own = sdp.getMediaParamValues(i, QStringLiteral("c"));
        m.address = own.isEmpty() ? sessionAddress : connectionAddress(own);
        const unsigned short rtcp = sdp.getMediaAttributeValue(i, QStringLiteral("rtcp"))
                                        .section(QLatin1Char(' '), 0, 0)
                                        .toUShort();
        m.rtcpPort = rtcp > 0 ? rtcp : static_cast<unsigned short>(m.rtpPort + 1);
        media.push_back(m);
    }
    return media;
}
