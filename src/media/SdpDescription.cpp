#include <KepNuvikaUtil/SdpDescription.h>

#include "media/SdpReader_p.h"

#include <algorithm>

namespace
{
QString attributeOf(const QVector<SdpLine>& lines, const QString& name)
{
    for (const SdpLine& line : lines) {
        if (line.type != 'a' || !line.value.startsWith(name, Qt::CaseInsensitive))
            continue;
        const QStringView rest = QStringView(line.value).mid(name.size());
        if (rest.isEmpty() || rest.front() == QLatin1Char(':'))
            return rest.mid(1).trimmed().toString();
    }
    return QString();
}

// A scheme and "://".
bool isAbsolute(const QString& url)
{
    const int at = url.indexOf(QLatin1String("://"));
    return at > 0 && std::all_of(url.begin(), url.begin() + at, [](QChar c) { return c.isLetterOrNumber(); });
}

QString below(const QString& base, const QString& control)
{
    if (control.isEmpty() || control == QLatin1String("*"))
        return base;
    if (isAbsolute(control))
        return control;
    const bool bSlash = base.endsWith(QLatin1Char('/'));
    if (control.startsWith(QLatin1Char('/')))
        return (bSlash ? base.chopped(1) : base) + control;
    return bSlash || control.startsWith(QLatin1Char('?')) ? base + control
                                                          : base + QLatin1Char('/') + control;
}
} // namespace

QString SdpMedia::attribute(const QString& name) const { return attributeOf(lines, name); }

const SdpFormat* SdpMedia::format(int payloadType) const
{
    const auto found = std::find_if(formats.begin(), formats.end(),
        [payloadType](const SdpFormat& format) { return format.payloadType == payloadType; });
    return found != formats.end() && payloadType >= 0 ? &*found : nullptr;
}

SdpDescription SdpDescription::read(const QByteArray& text)
{
    SdpDescription description;
    Nuvika::SdpReader(&description).read(text);
    return description;
}

QString SdpDescription::attribute(const QString& name) const { return attributeOf(lines, name); }

bool SdpDescription::isForClient(int index) const
{
    const auto isSentByClient = [](const SdpMedia& each) { return each.direction == eSdpSendOnly; };
    return index >= 0 && index < media.size()
        && (!isSentByClient(media.at(index)) || std::all_of(media.begin(), media.end(), isSentByClient));
}

QString SdpDescription::sessionUrl(const QString& base) const { return below(base, control); }

QString SdpDescription::trackUrl(int index, const QString& base) const
{
    const QString session = sessionUrl(base);
    return index >= 0 && index < media.size() ? below(session, media.at(index).control) : session;
}
