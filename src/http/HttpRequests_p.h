// Private: the heads of the requests that both clients offer.
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
} // namespace Nuvika::HttpRequests
