#pragma once

#include <KepNuvikaUtil/HttpHeader.h>

/// The head of an HTTP/1.x response. Not valid until setStatusLine() or a successful parse.
class KEPNUVIKAUTIL_EXPORT HttpResponseHeader : public HttpHeader
{
public:
    HttpResponseHeader();
    HttpResponseHeader(int code, const QString& text = QString(), int majorVer = 1, int minorVer = 1);
    explicit HttpResponseHeader(const QString& str);
    HttpResponseHeader(const HttpResponseHeader& other);
    HttpResponseHeader& operator=(const HttpResponseHeader& other);
    ~HttpResponseHeader() override;

    /// Status line, fields and the closing empty line.
    QString toString() const override;
    int majorVersion() const override;
    int minorVersion() const override;

protected:
    bool parseLine(const QString& line, int number) override;

public:
    void setStatusLine(int code, const QString& text = QString(), int majorVer = 1, int minorVer = 1);
    int statusCode() const;
    QString reasonPhrase() const;

    /// A head from received Latin-1 bytes, without its closing empty line.
    static HttpResponseHeader fromBytes(const char* data, int size);

    /// Of a head that was moved from, only assignments of one of the same kind and its destruction are left.
    HttpResponseHeader(HttpResponseHeader&& other) noexcept;
    HttpResponseHeader& operator=(HttpResponseHeader&& other) noexcept;
};
