#include "RtspTransport.h"

#include <QtCore/QStringList>

namespace
{
constexpr int kMaxChannel = 255;
constexpr int kMaxPort = 65535;

// "A-B", or "A", which means the pair that begins there.
bool readPair(const QString& text, int least, int most, RtspTransport* transport)
{
    const QStringList parts = text.split(QLatin1Char('-'));
    bool bFirst = false;
    bool bSecond = true;
    transport->nRtp = parts[0].toInt(&bFirst);
    transport->nRtcp = parts.size() > 1 ? parts[1].toInt(&bSecond) : transport->nRtp + 1;
    return bFirst && bSecond && parts.size() <= 2 && transport->nRtp >= least && transport->nRtcp >= least
        && transport->nRtp <= most && transport->nRtcp <= most && transport->nRtp != transport->nRtcp;
}

std::optional<RtspTransport> readOne(const QString& text)
{
    const QStringList parts = text.split(QLatin1Char(';'));
    RtspTransport transport;
    transport.bInterleaved = parts[0].trimmed() == QLatin1String("RTP/AVP/TCP");
    if (!transport.bInterleaved && parts[0].trimmed() != QLatin1String("RTP/AVP")
        && parts[0].trimmed() != QLatin1String("RTP/AVP/UDP"))
        return std::nullopt;
    bool bReadable = transport.bInterleaved; // without channels the first pair is taken
    transport.nRtcp = 1;
    for (const QString& each : parts) {
        const QString name = each.section(QLatin1Char('='), 0, 0).trimmed().toLower();
        const QString value = each.section(QLatin1Char('='), 1).trimmed().remove(QLatin1Char('"')).toLower();
        if (name == QLatin1String("multicast")
            || (name == QLatin1String("mode") && value != QLatin1String("play")))
            return std::nullopt;
        if (transport.bInterleaved && name == QLatin1String("interleaved"))
            bReadable = readPair(value, 0, kMaxChannel, &transport);
        else if (!transport.bInterleaved && name == QLatin1String("client_port"))
            bReadable = readPair(value, 1, kMaxPort, &transport);
    }
    return bReadable ? std::make_optional(transport) : std::nullopt;
}
} // namespace

std::optional<RtspTransport> RtspTransport::choose(const QString& field)
{
    const QStringList offers = field.split(QLatin1Char(','));
    for (const QString& offer : offers) {
        if (const auto transport = readOne(offer))
            return transport;
    }
    return std::nullopt;
}
