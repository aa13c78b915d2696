#include "HostNames.h"

#include <QtCore/QRegularExpression>
#include <QtNetwork/QHostAddress>

namespace
{
// Name or address of "name", "name:port", "[address]" or "[address]:port", without a final dot, in lower
// case; empty for anything else.
QString nameOf(const QString& field)
{
    static const QRegularExpression form(
        QStringLiteral("\\A(?:\\[([^\\[\\]]+)\\]|([^:\\[\\]/@]+?))\\.?(?::\\d*)?\\z"));
    const QRegularExpressionMatch match = form.match(field.trimmed());
    return (match.captured(1) + match.captured(2)).toLower();
}

bool isLoopback(const QString& name)
{
    return name == QLatin1String("localhost") || name.endsWith(QLatin1String(".localhost"))
        || QHostAddress(name).isLoopback();
}
} // namespace

bool HostNames::add(const QString& name)
{
    const QHostAddress address(name);
    const QString known = address.protocol() == QAbstractSocket::IPv6Protocol ? name.toLower() : nameOf(name);
    const bool bHasPort
        = known != name.toLower() && !name.endsWith(QLatin1Char(']')) && !name.endsWith(QLatin1Char('.'));
    m_names.append(known);
    return !known.isEmpty() && !bHasPort && !known.contains(QLatin1Char(' '));
}

bool HostNames::allow(const QString& field) const
{
    if (field.isEmpty())
        return true;
    const QString name = nameOf(field);
    return !name.isEmpty() && (isLoopback(name) || m_names.contains(name));
}
