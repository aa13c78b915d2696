#include "Target.h"

#include <QtCore/QUrl>

namespace
{
// An IPv6 address in brackets, as in URLs.
QString bracketed(const QString& host)
{
    return host.contains(QLatin1Char(':')) ? QLatin1Char('[') + host + QLatin1Char(']') : host;
}

// As it was given, but for the credentials.
QString withoutCredentials(const QString& url)
{
    const int start = url.indexOf(QLatin1String("//")) + 2;
    int end = start;
    while (end < url.size() && !QStringLiteral("/?#").contains(url.at(end)))
        ++end;
    const int at = url.lastIndexOf(QLatin1Char('@'), end - 1);
    return start >= 2 && at >= start ? url.left(start) + url.mid(at + 1) : url;
}

QString mistakeOf(const QUrl& parsed)
{
    if (!parsed.isValid()) // its own text goes on with the source, and the password in it
        return parsed.errorString().section(QLatin1Char(';'), 0, 0).toLower();
    return parsed.host().isEmpty() ? QStringLiteral("it names no host") : QStringLiteral("its port is 0");
}
} // namespace

bool Target::parse(const QString& url, Target* target, QString* problem)
{
    const QUrl parsed(url, QUrl::StrictMode);
    if (!parsed.isValid() || parsed.host().isEmpty() || parsed.port() == 0) {
        *problem = QStringLiteral("\"%1\" is no URL: %2").arg(withoutCredentials(url), mistakeOf(parsed));
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
        .arg(bTls ? QStringLiteral("https") : QStringLiteral("http"), bracketed(host), QString::number(port),
            path);
}

QString Target::authority() const
{
    const QString name = bracketed(host.section(QLatin1Char('%'), 0, 0)); // a zone is this host's own
    return port == (bTls ? 443 : 80) ? name : name + QLatin1Char(':') + QString::number(port);
}

std::unique_ptr<HttpsClient> Target::makeClient(bool bKeepAlive) const
{
    auto client = bTls ? std::make_unique<HttpsClient>(
                      host, port, bKeepAlive, NuvikaSslSocket::eSslAny12, certificate, trusted, QString())
                       : std::make_unique<HttpsClient>(host, port, bKeepAlive);
    if (bInsecure)
        client->setCertificateVerificationMode(NuvikaSslSocket::eVerifyNone);
    client->setSystemBuffers(NuvikaTcpSocket::eTuned); // cameras and servers may be far away
    return client;
}
