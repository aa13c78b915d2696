// Private: the heads of the requests that both clients offer, and what no head may hold.
#pragma once

#include <KepNuvikaUtil/HttpRequestHeader.h>

namespace Nuvika::HttpRequests
{
HttpRequestHeader make(const char* method, const QString& path, const QString& host);
void addConnection(HttpRequestHeader& header, bool bKeepAlive);
void addContent(HttpRequestHeader& header, const QString& type, int size);

HttpRequestHeader get(const QString& path, const QString& host, bool bKeepAlive);
HttpRequestHeader plainPost(const QString& path, const QString& host, int size, bool bKeepAlive);
HttpRequestHeader soap(
    const QString& path, const QString& host, const QString& action, int size, bool bKeepAlive);

// The body waits for a 100 (RFC 9110, 10.1.1).
bool expectsContinue(const HttpRequestHeader& header);

// The path as it can stand in a request line (RFC 3986): other characters are percent-encoded, beyond ASCII
// as UTF-8. What is encoded stays, as does every percent sign.
QString encodedPath(const QString& path);

// Why a request would not arrive as it was meant, in words; empty when it would.
QString problemOf(const HttpRequestHeader& header, const QString& user, const QString& password);
// The same of a text that must stay on its line, and of one that leaves as Latin-1 besides; `what`: for the
// sentence.
QString problemOfText(const char* what, QStringView text);
QString problemOfLine(const char* what, QStringView text);
} // namespace Nuvika::HttpRequests
