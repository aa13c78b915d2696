#include "http/HttpRequests_p.h"

using namespace Nuvika;

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
