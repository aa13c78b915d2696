// Private: the field that carries credentials, and the Basic form of them.
#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QString>

namespace Nuvika::HttpCredentials
{
inline const QString& field()
{
    static const QString name = QStringLiteral("Authorization");
    return name;
}

inline QByteArray basic(const QString& user, const QString& password)
{
    return "Basic " + (user + QLatin1Char(':') + password).toLatin1().toBase64();
}
} // namespace Nuvika::HttpCredentials
