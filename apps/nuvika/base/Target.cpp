#include "Target.h"

#include <QtCore/QUrl>

bool Target::parse(const QString& url, Target* target, QString* problem)
{
    const QUrl parsed(url, QUrl::StrictMode);
    if (!parsed.isValid() || parsed.host().isEmpty()) {
        *problem = QStringLiteral("\"%1\" is no URL").arg(parsed.toDisplayString(QUrl::RemoveUserInfo));
        return false;
    }
    target->bTls = parsed.scheme() == QLatin1String("https");
    if (!target->bTls && parsed.scheme() != QLatin1String("http")) {
        *problem
            = QStringLiteral("only http:// and https:// URLs are served, not %1://").arg(parsed.scheme());
        return false;
    }
    target->host = parsed.host();
    target->port = static_cast<unsigned short>(parsed.port(target->bTls ? 443 : 80));
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
    return QStringLiteral("%1://%2:%3%4")
        .arg(bTls ? QStringLiteral("https") : QStringLiteral("http"), host, QString::number(port), path);
}

std::unique_ptr<HttpsClient> Target::makeClient(bool bKeepAlive) const
{
    if (!bTls)
        return std::make_unique<HttpsClient>(host, port, bKeepAlive);
    auto client = std::make_unique<HttpsClient>(
        host, port, bKeepAlive, NuvikaSslSocket::eSslAny12, certificate, trusted, QString());
    if (bInsecure)
        client->setCertificateVerificationMode(NuvikaSslSocket::eVerifyNone);
    return client;
}
