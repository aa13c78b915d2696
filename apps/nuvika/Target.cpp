#include "Target.h"

#include <QtCore/QUrl>

bool Target::parse(const QString& url, Target* target, QString* problem)
{
    const QUrl parsed(url, QUrl::StrictMode);
    if (!parsed.isValid() || parsed.host().isEmpty()) {
        *problem = QStringLiteral("\"%1\" is no URL").arg(parsed.toDisplayString(QUrl::RemoveUserInfo));
        return false;
    }
    if (parsed.scheme() != QLatin1String("http")) {
        *problem = QStringLiteral("only http:// URLs are served, not %1://").arg(parsed.scheme());
        return false;
    }
    target->host = parsed.host();
    target->port = static_cast<unsigned short>(parsed.port(80));
    target->path = parsed.path(QUrl::FullyEncoded);
    if (target->path.isEmpty())
        target->path = QStringLiteral("/");
    if (parsed.hasQuery())
        target->path += QLatin1Char('?') + parsed.query(QUrl::FullyEncoded);
    target->user = parsed.userName(QUrl::FullyDecoded);
    target->password = parsed.password(QUrl::FullyDecoded);
    return true;
}

QString Target::shown() const
{
    return QStringLiteral("http://%1:%2%3").arg(host, QString::number(port), path);
}
