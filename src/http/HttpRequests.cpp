#include "http/HttpRequests_p.h"

#include "http/HttpHeader_p.h"

#include <algorithm>

using namespace Nuvika;

namespace
{
// The form upload's: it ends the head, as is wanted.
const QLatin1String kEndingConnection("Keep-Alive\r\n");

bool isLineEnd(QChar c) { return c == QLatin1Char('\r') || c == QLatin1Char('\n') || c.isNull(); }
bool isBeyondLatin1(QChar c) { return c.unicode() > 0xFF; }

QString problem(const char* what, const char* why) { return QLatin1String(what) + QLatin1String(why); }

bool isForRequestLine(int c)
{
    constexpr char kNever[] = "\"#<>\\^`{|}";
    return c > ' ' && c < 0x7F && std::find(std::begin(kNever), std::end(kNever), c) == std::end(kNever);
}
} // namespace

QString HttpRequests::encodedPath(const QString& path)
{
    if (std::all_of(path.begin(), path.end(), [](QChar c) { return isForRequestLine(c.unicode()); }))
        return path;
    QString encoded;
    encoded.reserve(path.size());
    for (const char c : path.toUtf8()) {
        if (isForRequestLine(c)) {
            encoded += QLatin1Char(c);
        } else {
            encoded += QLatin1Char('%');
            encoded += QString::fromLatin1(QByteArray(1, c).toHex().toUpper());
        }
    }
    return encoded;
}

bool HttpRequests::expectsContinue(const HttpRequestHeader& header)
{
    const QStringList values = header.allValues(QStringLiteral("expect"));
    return std::any_of(values.begin(), values.end(), [](const QString& value) {
        return value.compare(QLatin1String("100-continue"), Qt::CaseInsensitive) == 0;
    });
}

QString HttpRequests::problemOfText(const char* what, QStringView text)
{
    const bool bEnds = std::any_of(text.begin(), text.end(), isLineEnd);
    return bEnds ? problem(what, " holds a line end or a NUL") : QString();
}

QString HttpRequests::problemOfLine(const char* what, QStringView text)
{
    QString found = problemOfText(what, text);
    if (!found.isEmpty())
        return found;
    if (std::any_of(text.begin(), text.end(), isBeyondLatin1))
        return problem(what, " holds characters beyond Latin-1");
    return QString();
}

QString HttpRequests::problemOf(const HttpRequestHeader& header, const QString& user, const QString& password)
{
    QString found = problemOfText("the path", header.path());
    if (found.isEmpty())
        found = problemOfLine("the method", header.method());
    if (found.isEmpty())
        found = problemOfLine("the user name", user);
    if (found.isEmpty() && std::any_of(password.begin(), password.end(), isBeyondLatin1))
        found = problem("the password", " holds characters beyond Latin-1");
    const HttpFieldList& fields = HttpHeaderPrivate::fieldsOf(header);
    for (int i = 0; found.isEmpty() && i < fields.size(); ++i) {
        found = problemOfLine("a field's name", fields.name(i));
        const bool bEndsHead = fields.value(i) == kEndingConnection
            && fields.name(i).compare(QLatin1String("connection"), Qt::CaseInsensitive) == 0;
        if (found.isEmpty() && !bEndsHead)
            found = problemOfLine("a field's value", fields.value(i));
    }
    return found;
}

HttpRequestHeader HttpRequests::make(const char* method, const QString& path, const QString& host)
{
    HttpRequestHeader header(QString::fromLatin1(method), path);
    header.addValue(QStringLiteral("Host"), host);
    return header;
}

void HttpRequests::addConnection(HttpRequestHeader& header, bool bKeepAlive)
{
    header.addValue(
        QStringLiteral("Connection"), bKeepAlive ? QStringLiteral("keep-alive") : QStringLiteral("close"));
    if (bKeepAlive)
        header.addValue(QStringLiteral("Keep-Alive"), QStringLiteral("300"));
}

void HttpRequests::addContent(HttpRequestHeader& header, const QString& type, int size)
{
    header.addValue(QStringLiteral("Content-Type"), type);
    header.addValue(QStringLiteral("Content-Length"), QString::number(size));
    header.addValue(QStringLiteral("Accept-Encoding"), QStringLiteral("identity"));
}

HttpRequestHeader HttpRequests::get(const QString& path, const QString& host, bool bKeepAlive)
{
    HttpRequestHeader header = make("GET", path, host);
    addConnection(header, bKeepAlive);
    return header;
}

HttpRequestHeader HttpRequests::plainPost(const QString& path, const QString& host, int size, bool bKeepAlive)
{
    HttpRequestHeader header = make("POST", path, host);
    header.addValue(QStringLiteral("Cache-Control"), QStringLiteral("no-cache"));
    header.setContentLength(size);
    if (!bKeepAlive)
        addConnection(header, false);
    return header;
}

HttpRequestHeader HttpRequests::soap(
    const QString& path, const QString& host, const QString& action, int size, bool bKeepAlive)
{
    HttpRequestHeader header = make("POST", path, host);
    const QString type
        = QLatin1String("application/soap+xml; charset=utf-8; action=\"") + action + QLatin1Char('"');
    addContent(header, type, size);
    addConnection(header, bKeepAlive);
    return header;
}
