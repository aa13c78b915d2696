#pragma once

#include <KepNuvikaUtil/HttpHeader.h>

/// The head of an HTTP/1.x request. Not valid until setRequest() or a successful parse.
class KEPNUVIKAUTIL_EXPORT HttpRequestHeader : public HttpHeader
{
public:
    HttpRequestHeader();
    HttpRequestHeader(const QString& method, const QString& path, int majorVer = 1, int minorVer = 1);
    explicit HttpRequestHeader(const QString& str);
    HttpRequestHeader(const HttpRequestHeader& other);
    HttpRequestHeader& operator=(const HttpRequestHeader& other);
    ~HttpRequestHeader() override;

    /// Request line, fields and the closing empty line.
    QString toString() const override;
    int majorVersion() const override;
    int minorVersion() const override;

protected:
    bool parseLine(const QString& line, int number) override;

public:
    void setRequest(const QString& method, const QString& path, int majorVer = 1, int minorVer = 1);
    QString method() const;
    QString path() const;

    /// A head from received Latin-1 bytes, as a server reads it: other than by the constructor from a text,
    /// white space is that of ASCII, and what RFC 9112 tells servers to refuse is not valid (a name that is
    /// no token, control characters, a line feed inside a line, more than one Host).
    static HttpRequestHeader fromBytes(const char* data, int size);

    /// Of a head that was moved from, only assignments of one of the same kind and its destruction are left.
    HttpRequestHeader(HttpRequestHeader&& other) noexcept;
    HttpRequestHeader& operator=(HttpRequestHeader&& other) noexcept;
};
