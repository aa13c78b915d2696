#include "rtsp/RtspFields_p.h"

#include <algorithm>

using namespace Nuvika;

namespace
{
constexpr int kMaxMembers = 64; // of a list: more is nobody's

struct Parameter {
    QString key; // in lower case
    QString value; // without quotes
};

Parameter parameterOf(const QString& text)
{
    const int at = text.indexOf(QLatin1Char('='));
    QString value = at < 0 ? QString() : text.mid(at + 1).trimmed();
    if (value.size() >= 2 && value.startsWith(QLatin1Char('"')) && value.endsWith(QLatin1Char('"')))
        value = value.mid(1, value.size() - 2);
    return {text.left(at).trimmed().toLower(), value};
}

QVector<Parameter> parametersOf(const QString& text)
{
    QVector<Parameter> parameters;
    for (const QString& part : text.split(QLatin1Char(';')).mid(0, kMaxMembers))
        parameters.append(parameterOf(part));
    return parameters;
}

// "4-5", "4": an even or odd pair.
PortPair pairOf(const QString& text)
{
    bool bFirst = false;
    bool bSecond = false;
    PortPair pair;
    const int first = text.section(QLatin1Char('-'), 0, 0).trimmed().toInt(&bFirst);
    const int second = text.section(QLatin1Char('-'), 1, 1).trimmed().toInt(&bSecond);
    if (!bFirst || first < 0 || first > 0xFFFF)
        return pair;
    pair.nFirst = first;
    pair.nSecond = bSecond && second >= 0 && second <= 0xFFFF ? second : std::min(first + 1, 0xFFFF);
    return pair;
}

// Hexadecimal, with blanks or of any length; more than eight decimal digits are a decimal number.
std::optional<quint32> ssrcOf(const QString& text)
{
    bool bRead = false;
    const QString digits = text.trimmed();
    constexpr int kHexDigits = 8;
    qulonglong value = digits.size() > kHexDigits ? digits.toULongLong(&bRead, 10) : 0;
    if (!bRead)
        value = digits.toULongLong(&bRead, 16);
    if (!bRead || value == 0 || value > 0xFFFFFFFFULL)
        return std::nullopt;
    return static_cast<quint32>(value);
}

QString pairText(const PortPair& pair)
{
    return QString::number(pair.nFirst) + QLatin1Char('-') + QString::number(pair.nSecond);
}

template <class Number>
std::optional<Number> numberOf(const QString& text)
{
    bool bRead = false;
    const qulonglong value = text.toULongLong(&bRead);
    if (!bRead || value > static_cast<Number>(-1))
        return std::nullopt;
    return static_cast<Number>(value);
}

// Where the next track's part begins: a comma with "url=" behind it, since URLs hold commas, too.
int nextTrack(const QString& text, int from)
{
    for (int at = from; (at = text.indexOf(QLatin1Char(','), at)) >= 0; ++at) {
        int behind = at + 1;
        while (behind < text.size() && text.at(behind).isSpace())
            ++behind;
        if (QStringView(text).mid(behind, 4).compare(QLatin1String("url="), Qt::CaseInsensitive) == 0)
            return at;
        at = behind - 1;
    }
    return text.size();
}
} // namespace

RtspTransportField RtspTransportField::parse(const QString& text)
{
    RtspTransportField field;
    const QVector<Parameter> parameters = parametersOf(text.section(QLatin1Char(','), 0, 0));
    field.lower = parameters.first().key.endsWith(QLatin1String("/tcp")) ? eTcp : eUdp;
    for (const Parameter& each : parameters) {
        if (each.key == QLatin1String("interleaved"))
            field.interleaved = pairOf(each.value);
        else if (each.key == QLatin1String("client_port"))
            field.clientPort = pairOf(each.value);
        else if (each.key == QLatin1String("server_port"))
            field.serverPort = pairOf(each.value);
        else if (each.key == QLatin1String("port"))
            field.port = pairOf(each.value);
        else if (each.key == QLatin1String("destination"))
            field.destination = each.value;
        else if (each.key == QLatin1String("source"))
            field.source = each.value;
        else if (each.key == QLatin1String("ssrc"))
            field.ssrc = ssrcOf(each.value);
        else if (each.key == QLatin1String("multicast"))
            field.bMulticast = true;
    }
    if (field.interleaved.isSaid())
        field.lower = eTcp;
    return field;
}

QString RtspTransportField::toString() const
{
    QString text = lower == eTcp ? QStringLiteral("RTP/AVP/TCP") : QStringLiteral("RTP/AVP");
    text += bMulticast ? QLatin1String(";multicast") : QLatin1String(";unicast");
    if (interleaved.isSaid())
        text += QLatin1String(";interleaved=") + pairText(interleaved);
    if (clientPort.isSaid())
        text += QLatin1String(";client_port=") + pairText(clientPort);
    return text;
}

RtspSessionField RtspSessionField::parse(const QString& text)
{
    RtspSessionField field;
    field.id = text.section(QLatin1Char(';'), 0, 0).trimmed();
    for (const Parameter& each : parametersOf(text)) {
        if (each.key != QLatin1String("timeout"))
            continue;
        constexpr int kMostSeconds = 86400;
        const int seconds = each.value.section(QLatin1Char(' '), 0, 0).toInt();
        field.bTimeout = true;
        if (seconds > 0)
            field.nTimeout = std::min(seconds, kMostSeconds);
    }
    return field;
}

QVector<RtpInfo> Nuvika::parseRtpInfo(const QString& text)
{
    QVector<RtpInfo> tracks;
    for (int from = 0; from < text.size() && tracks.size() < kMaxMembers;) {
        const int end = nextTrack(text, from);
        RtpInfo info;
        for (const Parameter& each : parametersOf(text.mid(from, end - from))) {
            if (each.key == QLatin1String("url"))
                info.url = each.value;
            else if (each.key == QLatin1String("seq"))
                info.sequence = numberOf<quint16>(each.value);
            else if (each.key == QLatin1String("rtptime"))
                info.timestamp = numberOf<quint32>(each.value);
        }
        tracks.append(info);
        from = end + 1;
    }
    return tracks;
}

QStringList Nuvika::parseMethods(const QString& text)
{
    QStringList methods;
    for (const QString& each : text.split(QLatin1Char(',')).mid(0, kMaxMembers))
        methods.append(each.trimmed().toUpper());
    return methods;
}
