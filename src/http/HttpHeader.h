#pragma once

#include <KepNuvikaUtil/Export.h>

#include <QtCore/QList>
#include <QtCore/QPair>
#include <QtCore/QString>
#include <QtCore/QStringList>

#include <memory>

class HttpHeaderPrivate;
class QDebug;

/// An ordered list of HTTP/1.x header fields (RFC 9112) with a validity flag; base of the two kinds of heads.
///
/// Names are compared without regard to case, and kept and rendered exactly as they were set. Duplicates are
/// allowed and keep their order. Copies are deep. Threads: one at a time.
/// Errors: a parse that fails returns false and clears the validity; what was parsed before stays.
class KEPNUVIKAUTIL_EXPORT HttpHeader
{
public:
    HttpHeader();
    explicit HttpHeader(const QString& str);
    HttpHeader(const HttpHeader& other);
    HttpHeader& operator=(const HttpHeader& other);
    virtual ~HttpHeader();

    /// The fields, each "name: value\r\n"; empty when not valid.
    virtual QString toString() const;
    virtual int majorVersion() const = 0;
    virtual int minorVersion() const = 0;

protected:
    virtual bool parseLine(const QString& line, int number);

public:
    /// Changes the first field of that name (which keeps its spelling), or appends one.
    void setValue(const QString& key, const QString& value);
    void setValues(const QList<QPair<QString, QString>>& values);
    /// Appends, also when the name is there already.
    void addValue(const QString& key, const QString& value);
    /// The first value of that name, or an empty string.
    QString value(const QString& key) const;
    QStringList allValues(const QString& key) const;
    QList<QPair<QString, QString>> values() const;
    QStringList keys() const;
    bool hasKey(const QString& key) const;
    /// Removes the first field of that name.
    void removeValue(const QString& key);
    void removeAllValues(const QString& key);

    bool hasContentLength() const;
    /// In bytes; 0 when absent or not a number.
    unsigned int contentLength() const;
    void setContentLength(int len);
    bool hasContentType() const;
    /// Without its parameters.
    QString contentType() const;
    void setContentType(const QString& type);

    bool isValid() const;

protected:
    HttpHeader(std::unique_ptr<HttpHeaderPrivate> d, const QString& str);
    HttpHeader(std::unique_ptr<HttpHeaderPrivate> d, const HttpHeader& header);
    void setValid(bool valid);
    /// Adds the fields of a head to the header; the text may end its lines by "\r\n" or "\n".
    bool parse(const QString& str);
    /// The same from received Latin-1 bytes, without a detour over one long string.
    bool parseBytes(const char* data, int size);

    std::unique_ptr<HttpHeaderPrivate> d_ptr;

    HttpHeader(HttpHeader&& other) noexcept;

private:
    friend class HttpHeaderPrivate;
};

/// For logs: the first line and the fields of either kind of head, without what may be a password: the values
/// of fields with such names (Authorization, cookies, tokens, keys), and in other texts what stands before
/// the '@' of a URL, behind a question mark, or behind a key such as "password=".
KEPNUVIKAUTIL_EXPORT QDebug operator<<(QDebug debug, const HttpHeader& header);
