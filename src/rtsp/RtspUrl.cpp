#include "rtsp/RtspUrl_p.h"

#include <QtCore/QUrl>

#include <algorithm>

using namespace Nuvika;

namespace
{
constexpr int kPort = 554;
constexpr int kTlsPort = 322;

bool startsWithScheme(const QString& text)
{
    return text.startsWith(QLatin1String("rtsp://"), Qt::CaseInsensitive)
        || text.startsWith(QLatin1String("rtsps://"), Qt::CaseInsensitive);
}

QString decoded(const QString& text) { return QUrl::fromPercentEncoding(text.toUtf8()); }

// Host and port of "host:port", "[address]:port", "host"; false for a port that is none.
bool splitHost(const QString& text, RtspUrl* url)
{
    const bool bBrackets = text.startsWith(QLatin1Char('['));
    const int close = bBrackets ? text.indexOf(QLatin1Char(']')) : 0;
    if (close < 0)
        return false;
    const int colon = text.indexOf(QLatin1Char(':'), close);
    url->host = bBrackets ? text.mid(1, close - 1) : text.left(colon);
    url->nPort = static_cast<quint16>(url->bTls ? kTlsPort : kPort);
    if (colon < 0 || colon == text.size() - 1)
        return !url->host.isEmpty();
    bool bNumber = false;
    url->nPort = text.mid(colon + 1).toUShort(&bNumber);
    return bNumber && url->nPort != 0 && !url->host.isEmpty();
}
} // namespace

QString Nuvika::encodedUrl(const QString& url)
{
    QByteArray out;
    for (const char c : url.toUtf8()) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte <= ' ' || byte >= 0x7F)
            out += '%' + QByteArray(1, c).toHex().toUpper();
        else
            out += c;
    }
    return QString::fromLatin1(out);
}

RtspUrl RtspUrl::parse(const QString& text)
{
    RtspUrl url;
    const QString trimmed = text.trimmed();
    if (!startsWithScheme(trimmed)) {
        url.problem = QStringLiteral("\"%1\" is no URL that begins with rtsp:// or rtsps://").arg(trimmed);
        return url;
    }
    url.bTls = trimmed.at(4).toLower() == QLatin1Char('s');
    const int from = url.bTls ? 8 : 7;
    const auto end = std::find_if(trimmed.begin() + from, trimmed.end(),
        [](QChar c) { return c == QLatin1Char('/') || c == QLatin1Char('?'); });
    QString authority = trimmed.mid(from, static_cast<int>(end - trimmed.begin()) - from);
    url.path = encodedUrl(trimmed.mid(static_cast<int>(end - trimmed.begin())));
    const int at = authority.lastIndexOf(QLatin1Char('@'));
    if (at >= 0) {
        const QString login = authority.left(at);
        url.user = decoded(login.section(QLatin1Char(':'), 0, 0));
        url.password = decoded(login.section(QLatin1Char(':'), 1));
        authority = authority.mid(at + 1);
    }
    const bool bLine
        = std::all_of(authority.begin(), authority.end(), [](QChar c) { return c > QLatin1Char(' '); });
    if (!bLine || !splitHost(authority, &url))
        url.problem = QStringLiteral("\"%1\" is no host and port").arg(authority);
    return url;
}

// The scope of an IPv6 address is nobody else's business (RFC 6874).
QString RtspUrl::authority() const
{
    const QString name = host.contains(QLatin1Char(':'))
        ? QLatin1Char('[') + host.section(QLatin1Char('%'), 0, 0) + QLatin1Char(']')
        : host;
    return nPort == (bTls ? kTlsPort : kPort) ? name : name + QLatin1Char(':') + QString::number(nPort);
}

QString RtspUrl::toString() const
{
    return (bTls ? QLatin1String("rtsps://") : QLatin1String("rtsp://")) + authority() + path;
}

QString RtspUrl::base(const QString& contentBase, const QString& contentLocation) const
{
    QString said = encodedUrl((contentBase.isEmpty() ? contentLocation : contentBase).trimmed());
    if (said.isEmpty())
        return toString();
    if (startsWithScheme(said))
        return said;
    const QString origin = (bTls ? QLatin1String("rtsps://") : QLatin1String("rtsp://"));
    if (said.startsWith(QLatin1String("//")))
        return origin + said.mid(2);
    if (said.startsWith(QLatin1Char('/')) || said.startsWith(QLatin1Char('?')))
        return origin + authority() + said;
    // A host without its scheme, if it is ours; else a path.
    const bool bHost = said == host || said.startsWith(host + QLatin1Char('/'))
        || said.startsWith(host + QLatin1Char(':'));
    return bHost ? origin + said : origin + authority() + QLatin1Char('/') + said;
}

RtspUrl RtspUrl::redirected(const QString& location) const { return parse(base(location, QString())); }

bool Nuvika::mayBeSameTrack(const QString& trackUrl, const QString& other)
{
    const QString name = other.mid(other.lastIndexOf(QLatin1Char('/')) + 1);
    return !name.isEmpty() && trackUrl.endsWith(name);
}
