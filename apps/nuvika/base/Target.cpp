#include "Target.h"

#include <QtCore/QMap>
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

bool Target::parse(const QString& url, Schemes schemes, Target* target, QString* problem)
{
    const QString scheme = url.section(QLatin1Char(':'), 0, 0).toLower();
    target->bTls = scheme.endsWith(QLatin1Char('s'));
    target->bRtsp = scheme == QLatin1String("rtsp") || scheme == QLatin1String("rtsps");
    const bool bServed = target->bRtsp ? schemes != eHttp : schemes != eRtsp;
    if (bServed)
        return target->bRtsp ? target->parseRtsp(url, problem) : target->parseHttp(url, problem);
    *problem = schemes == eRtsp
        ? QStringLiteral("\"%1\" does not begin with rtsp:// or rtsps://").arg(withoutCredentials(url))
        : QStringLiteral("\"%1\" is an address for nuvika rtsp and nuvika watch")
              .arg(withoutCredentials(url));
    return false;
}

bool Target::parseHttp(const QString& url, QString* problem)
{
    const QUrl parsed(url, QUrl::StrictMode);
    if (!parsed.isValid() || parsed.host().isEmpty() || parsed.port() == 0) {
        *problem = QStringLiteral("\"%1\" is no URL: %2").arg(withoutCredentials(url), mistakeOf(parsed));
        return false;
    }
    bTls = parsed.scheme() == QLatin1String("https");
    if (!bTls && parsed.scheme() != QLatin1String("http")) {
        *problem
            = QStringLiteral("only http:// and https:// URLs are served, not %1://").arg(parsed.scheme());
        return false;
    }
    host = parsed.host();
    port = static_cast<unsigned short>(parsed.port(usualPort()));
    path = parsed.path(QUrl::FullyEncoded);
    if (path.isEmpty())
        path = QStringLiteral("/");
    if (parsed.hasQuery())
        path += QLatin1Char('?') + parsed.query(QUrl::FullyEncoded);
    user = parsed.userName(QUrl::FullyDecoded);
    password = parsed.password(QUrl::FullyDecoded);
    return true;
}

// Cameras name their streams as they like, and passwords are pasted as they are: only the host and the port
// are read strictly.
bool Target::parseRtsp(const QString& url, QString* problem)
{
    const int from = url.indexOf(QLatin1Char(':')) + 3; // behind "//"
    int end = from;
    while (end < url.size() && url.at(end) != QLatin1Char('/') && url.at(end) != QLatin1Char('?'))
        ++end;
    const QString place = url.mid(from, end - from);
    const int at = place.lastIndexOf(QLatin1Char('@'));
    const QUrl parsed(QStringLiteral("rtsp://") + place.mid(at + 1), QUrl::StrictMode);
    if (!url.startsWith(scheme() + QLatin1String("://"), Qt::CaseInsensitive) || !parsed.isValid()
        || parsed.host().isEmpty() || parsed.port() == 0) {
        *problem = QStringLiteral("\"%1\" is no URL: %2").arg(withoutCredentials(url), mistakeOf(parsed));
        return false;
    }
    host = parsed.host();
    port = static_cast<unsigned short>(parsed.port(usualPort()));
    path = url.mid(end);
    const QString login = place.left(qMax(at, 0));
    user = QUrl::fromPercentEncoding(login.section(QLatin1Char(':'), 0, 0).toUtf8());
    password = QUrl::fromPercentEncoding(login.section(QLatin1Char(':'), 1).toUtf8());
    return true;
}

QString Target::scheme() const
{
    return (bRtsp ? QStringLiteral("rtsp") : QStringLiteral("http")) + QLatin1String(bTls ? "s" : "");
}

unsigned short Target::usualPort() const
{
    if (bRtsp)
        return bTls ? 322 : 554;
    return bTls ? 443 : 80;
}

QString Target::shown() const
{
    return QStringLiteral("%1://%2:%3%4").arg(scheme(), bracketed(host), QString::number(port), path);
}

QString Target::authority() const
{
    const QString name = bracketed(host.section(QLatin1Char('%'), 0, 0)); // a zone is this host's own
    return port == usualPort() ? name : name + QLatin1Char(':') + QString::number(port);
}

RtspOptions Target::rtspOptions() const
{
    RtspOptions options;
    options.transport = transport;
    options.userAgent = QStringLiteral("nuvika");
    options.tlsTrusted = trusted;
    options.tlsCertificateFile = certificate;
    if (bInsecure)
        options.tlsVerify = NuvikaSslSocket::eVerifyNone;
    return options;
}

bool Target::chooseTransport(const QString& name, QString* problem)
{
    static const QMap<QString, RtspOptions::Transport> names{{QStringLiteral("tcp"), RtspOptions::eTcp},
        {QStringLiteral("udp"), RtspOptions::eUdp}, {QStringLiteral("multicast"), RtspOptions::eMulticast}};
    transport = names.value(name, RtspOptions::eAutomatic);
    if (!bRtsp)
        *problem = QStringLiteral("a transport is chosen for rtsp:// and rtsps:// only");
    else if (transport == RtspOptions::eAutomatic)
        *problem = QStringLiteral("\"%1\" is none of tcp, udp, multicast").arg(name);
    else if (bTls && transport != RtspOptions::eTcp)
        *problem = QStringLiteral("rtsps is for TCP only: datagrams would be sent in the clear");
    return problem->isEmpty();
}

std::unique_ptr<HttpsClient> Target::makeClient(bool bKeepAlive) const
{
    auto client = bTls ? std::make_unique<HttpsClient>(
                      host, port, bKeepAlive, NuvikaSslSocket::eSslAny12, certificate, trusted, QString())
                       : std::make_unique<HttpsClient>(host, port, bKeepAlive);
    if (bInsecure)
        client->setCertificateVerificationMode(NuvikaSslSocket::eVerifyNone);
    client->setSystemBuffers(NuvikaTcpSocket::eTuned); // cameras and servers may be far away
    client->setRetryPolicy({HttpRetryPolicy::eIdempotent, 0});
    return client;
}
