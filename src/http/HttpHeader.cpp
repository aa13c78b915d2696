#include <KepNuvikaUtil/HttpHeader.h>
#include <KepNuvikaUtil/HttpRequestHeader.h>
#include <KepNuvikaUtil/HttpResponseHeader.h>

#include "http/HttpHeader_p.h"
#include "http/HttpStrict_p.h"

#include <array>
#include <charconv>

using namespace Nuvika::HeadLines;

namespace
{
const QLatin1String kContentLength("content-length");
const QLatin1String kContentType("content-type");
constexpr int kMinVersionWord = 8; // HTTP/1.1
constexpr int kMinStatusLine = 10; // HTTP/1.1 2

QString toText(QStringView view) { return view.toString(); }
QString toText(QLatin1String view) { return view; }

bool isDigit(QChar c) { return c >= QLatin1Char('0') && c <= QLatin1Char('9'); }

// "HTTP/x.y" at the start of a text of at least 8 characters.
template <class View>
bool parseVersion(View text, int* major, int* minor)
{
    if (length(text) < kMinVersionWord || !text.startsWith(QLatin1String("HTTP/"))
        || !isDigit(charAt(text, 5)) || charAt(text, 6) != QLatin1Char('.') || !isDigit(charAt(text, 7)))
        return false;
    *major = charAt(text, 5).digitValue();
    *minor = charAt(text, 7).digitValue();
    return true;
}
} // namespace

// --- rendering -----------------------------------------------------------------------------------------

namespace
{
const QLatin1String kLineEnd("\r\n");
constexpr int kUsualLine = 24; // what a first line has beside its words, and the empty line

int textSize(const Nuvika::HttpFieldList& fields)
{
    int size = 0;
    for (int i = 0; i < fields.size(); ++i)
        size += length(fields.name(i)) + length(fields.value(i)) + 4;
    return size;
}

void appendFields(QString& text, const HttpHeaderPrivate& head)
{
    const Nuvika::HttpFieldList& fields = head.m_fields;
    for (int i = 0; head.m_bValid && i < fields.size(); ++i) {
        appendTo(text, fields.name(i));
        text += QLatin1String(": ");
        appendTo(text, fields.value(i));
        text += kLineEnd;
    }
}

void appendNumber(QString& text, int number)
{
    std::array<char, 12> digits;
    const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), number).ptr;
    text += QLatin1String(digits.data(), static_cast<int>(end - digits.data()));
}

void appendVersion(QString& text, int major, int minor)
{
    text += QLatin1String("HTTP/");
    appendNumber(text, major);
    text += QLatin1Char('.');
    appendNumber(text, minor);
}
} // namespace

// --- parsing -------------------------------------------------------------------------------------------

template <class View>
bool HttpRequestHeaderPrivate::parseRequest(View line, int number)
{
    if (number != 0)
        return parseField(line);
    int at = 0;
    m_method = toText(nextWord(line, &at, m_blanks));
    const View path = nextWord(line, &at, m_blanks);
    if (!path.isEmpty())
        m_path = toText(path);
    return parseVersion(nextWord(line, &at, m_blanks), &m_nMajor, &m_nMinor);
}

template <class View>
bool HttpResponseHeaderPrivate::parseStatus(View line, int number)
{
    if (number != 0)
        return parseField(line);
    const QString text = toText(line).simplified();
    if (text.size() < kMinStatusLine || text.at(8) != QLatin1Char(' ') || !isDigit(text.at(9))
        || !parseVersion(QStringView(text), &m_nMajor, &m_nMinor))
        return false;
    const int blank = text.indexOf(QLatin1Char(' '), 9);
    m_nStatus = text.midRef(9, blank < 0 ? -1 : blank - 9).toInt();
    m_reason = blank < 0 ? QString() : text.mid(blank + 1);
    return true;
}

bool HttpHeader::parse(const QString& str)
{
    const bool bParsed = forEach(QStringView(str), d_ptr->m_blanks,
        [this](QStringView line, int number) { return parseLine(line.toString(), number); });
    if (!bParsed)
        setValid(false);
    return bParsed;
}

bool HttpHeader::parseBytes(const char* data, int size)
{
    d_ptr->m_fields.reserve(size);
    const bool bParsed = forEach(QLatin1String(data, size), d_ptr->m_blanks,
        [this](auto line, int number) { return d_ptr->parseLine(line, number); });
    if (!bParsed)
        setValid(false);
    return bParsed;
}

// --- HttpHeader ----------------------------------------------------------------------------------------

HttpHeader::HttpHeader() : d_ptr(std::make_unique<HttpHeaderPrivate>()) { }

HttpHeader::HttpHeader(const QString& str) : d_ptr(std::make_unique<HttpHeaderPrivate>()) { parse(str); }

HttpHeader::HttpHeader(const HttpHeader& other) : d_ptr(std::make_unique<HttpHeaderPrivate>(*other.d_ptr)) { }

HttpHeader::HttpHeader(HttpHeader&& other) noexcept = default;

HttpHeader::HttpHeader(std::unique_ptr<HttpHeaderPrivate> d, const QString& str) : d_ptr(std::move(d))
{
    HttpHeader::parse(str);
}

HttpHeader::HttpHeader(std::unique_ptr<HttpHeaderPrivate> d, const HttpHeader& header) : d_ptr(std::move(d))
{
    *this = header;
}

HttpHeader& HttpHeader::operator=(const HttpHeader& other)
{
    d_ptr->m_fields = other.d_ptr->m_fields;
    d_ptr->m_bValid = other.d_ptr->m_bValid;
    return *this;
}

HttpHeader::~HttpHeader() = default;

bool HttpHeader::parseLine(const QString& line, int /*number*/)
{
    return d_ptr->parseField(QStringView(line));
}

QString HttpHeader::toString() const
{
    QString text;
    if (isValid())
        text.reserve(textSize(d_ptr->m_fields));
    appendFields(text, *d_ptr);
    return text;
}

void HttpHeader::setValue(const QString& key, const QString& value)
{
    const int i = d_ptr->m_fields.find(QStringView(key));
    if (i >= 0)
        d_ptr->m_fields.setValue(i, value);
    else
        addValue(key, value);
}

void HttpHeader::setValues(const QList<QPair<QString, QString>>& values)
{
    d_ptr->m_fields.clear();
    for (const auto& field : values)
        addValue(field.first, field.second);
}

void HttpHeader::addValue(const QString& key, const QString& value)
{
    d_ptr->m_fields.append(QStringView(key), QStringView(value));
}

QString HttpHeader::value(const QString& key) const
{
    const int i = d_ptr->m_fields.find(QStringView(key));
    return i < 0 ? QString() : d_ptr->m_fields.value(i).toString();
}

QStringList HttpHeader::allValues(const QString& key) const
{
    QStringList found;
    for (int i = -1; (i = d_ptr->m_fields.find(QStringView(key), i + 1)) >= 0;)
        found.append(d_ptr->m_fields.value(i).toString());
    return found;
}

QList<QPair<QString, QString>> HttpHeader::values() const
{
    QList<QPair<QString, QString>> pairs;
    for (int i = 0; i < d_ptr->m_fields.size(); ++i)
        pairs.append({d_ptr->m_fields.name(i).toString(), d_ptr->m_fields.value(i).toString()});
    return pairs;
}

QStringList HttpHeader::keys() const
{
    QStringList names;
    for (int i = 0; i < d_ptr->m_fields.size(); ++i)
        names.append(d_ptr->m_fields.name(i).toString());
    return names;
}

bool HttpHeader::hasKey(const QString& key) const { return d_ptr->m_fields.find(QStringView(key)) >= 0; }

void HttpHeader::removeValue(const QString& key)
{
    const int i = d_ptr->m_fields.find(QStringView(key));
    if (i >= 0)
        d_ptr->m_fields.removeAt(i);
}

void HttpHeader::removeAllValues(const QString& key) { d_ptr->m_fields.removeAll(key); }

bool HttpHeader::hasContentLength() const { return d_ptr->m_fields.find(kContentLength) >= 0; }

unsigned int HttpHeader::contentLength() const { return value(kContentLength).toUInt(); }

void HttpHeader::setContentLength(int len) { setValue(kContentLength, QString::number(len)); }

bool HttpHeader::hasContentType() const { return d_ptr->m_fields.find(kContentType) >= 0; }

QString HttpHeader::contentType() const
{
    const QString type = value(kContentType);
    if (type.isEmpty())
        return QString();
    const int semicolon = type.indexOf(QLatin1Char(';'));
    return semicolon < 0 ? type : type.left(semicolon).trimmed();
}

void HttpHeader::setContentType(const QString& type) { setValue(kContentType, type); }

bool HttpHeader::isValid() const { return d_ptr->m_bValid; }

void HttpHeader::setValid(bool valid) { d_ptr->m_bValid = valid; }

// --- HttpRequestHeader ---------------------------------------------------------------------------------

namespace
{
HttpRequestHeaderPrivate& request(const std::unique_ptr<HttpHeaderPrivate>& d)
{
    return static_cast<HttpRequestHeaderPrivate&>(*d);
}

HttpResponseHeaderPrivate& response(const std::unique_ptr<HttpHeaderPrivate>& d)
{
    return static_cast<HttpResponseHeaderPrivate&>(*d);
}
} // namespace

HttpRequestHeader::HttpRequestHeader() : HttpHeader(std::make_unique<HttpRequestHeaderPrivate>(), QString())
{
    setValid(false);
}

HttpRequestHeader::HttpRequestHeader(const QString& method, const QString& path, int majorVer, int minorVer)
    : HttpRequestHeader()
{
    setRequest(method, path, majorVer, minorVer);
}

HttpRequestHeader::HttpRequestHeader(const QString& str)
    : HttpHeader(std::make_unique<HttpRequestHeaderPrivate>(), QString())
{
    parse(str);
}

HttpRequestHeader::HttpRequestHeader(const HttpRequestHeader& other)
    : HttpHeader(std::make_unique<HttpRequestHeaderPrivate>(request(other.d_ptr)), other)
{
}

HttpRequestHeader& HttpRequestHeader::operator=(const HttpRequestHeader& other)
{
    if (d_ptr)
        request(d_ptr) = request(other.d_ptr);
    else
        d_ptr = std::make_unique<HttpRequestHeaderPrivate>(request(other.d_ptr));
    return *this;
}

HttpRequestHeader::HttpRequestHeader(HttpRequestHeader&& other) noexcept = default;

HttpRequestHeader& HttpRequestHeader::operator=(HttpRequestHeader&& other) noexcept
{
    d_ptr.swap(other.d_ptr);
    return *this;
}

HttpRequestHeader::~HttpRequestHeader() = default;

void HttpRequestHeader::setRequest(const QString& method, const QString& path, int majorVer, int minorVer)
{
    setValid(true);
    request(d_ptr).m_method = method;
    request(d_ptr).m_path = path;
    request(d_ptr).m_nMajor = majorVer;
    request(d_ptr).m_nMinor = minorVer;
}

QString HttpRequestHeader::method() const { return request(d_ptr).m_method; }
QString HttpRequestHeader::path() const { return request(d_ptr).m_path; }
int HttpRequestHeader::majorVersion() const { return request(d_ptr).m_nMajor; }
int HttpRequestHeader::minorVersion() const { return request(d_ptr).m_nMinor; }

bool HttpRequestHeader::parseLine(const QString& line, int number)
{
    return d_ptr->parseLine(QStringView(line), number);
}

// Joined, not filled into a template: percent signs in a path stay what they are.
QString HttpRequestHeader::toString() const
{
    const HttpRequestHeaderPrivate& head = request(d_ptr);
    QString text;
    text.reserve(head.m_method.size() + head.m_path.size() + kUsualLine + textSize(head.m_fields));
    text += head.m_method;
    text += QLatin1Char(' ');
    text += head.m_path;
    text += QLatin1Char(' ');
    appendVersion(text, head.m_nMajor, head.m_nMinor);
    text += kLineEnd;
    appendFields(text, head);
    text += kLineEnd;
    return text;
}

HttpRequestHeader HttpRequestHeader::fromBytes(const char* data, int size)
{
    HttpRequestHeader header;
    header.d_ptr->m_blanks = Blanks::Ascii;
    header.setValid(true);
    if (header.parseBytes(data, size))
        header.setValid(Nuvika::isStrictHead(data, size));
    header.d_ptr->m_blanks = Blanks::Unicode;
    return header;
}

// --- HttpResponseHeader --------------------------------------------------------------------------------

HttpResponseHeader::HttpResponseHeader()
    : HttpHeader(std::make_unique<HttpResponseHeaderPrivate>(), QString())
{
    setValid(false);
}

HttpResponseHeader::HttpResponseHeader(int code, const QString& text, int majorVer, int minorVer)
    : HttpResponseHeader()
{
    setStatusLine(code, text, majorVer, minorVer);
}

HttpResponseHeader::HttpResponseHeader(const QString& str)
    : HttpHeader(std::make_unique<HttpResponseHeaderPrivate>(), QString())
{
    parse(str);
}

HttpResponseHeader::HttpResponseHeader(const HttpResponseHeader& other)
    : HttpHeader(std::make_unique<HttpResponseHeaderPrivate>(response(other.d_ptr)), other)
{
}

HttpResponseHeader& HttpResponseHeader::operator=(const HttpResponseHeader& other)
{
    if (d_ptr)
        response(d_ptr) = response(other.d_ptr);
    else
        d_ptr = std::make_unique<HttpResponseHeaderPrivate>(response(other.d_ptr));
    return *this;
}

HttpResponseHeader::HttpResponseHeader(HttpResponseHeader&& other) noexcept = default;

HttpResponseHeader& HttpResponseHeader::operator=(HttpResponseHeader&& other) noexcept
{
    d_ptr.swap(other.d_ptr);
    return *this;
}

HttpResponseHeader::~HttpResponseHeader() = default;

void HttpResponseHeader::setStatusLine(int code, const QString& text, int majorVer, int minorVer)
{
    setValid(true);
    response(d_ptr).m_nStatus = code;
    response(d_ptr).m_reason = text;
    response(d_ptr).m_nMajor = majorVer;
    response(d_ptr).m_nMinor = minorVer;
}

int HttpResponseHeader::statusCode() const { return response(d_ptr).m_nStatus; }
QString HttpResponseHeader::reasonPhrase() const { return response(d_ptr).m_reason; }
int HttpResponseHeader::majorVersion() const { return response(d_ptr).m_nMajor; }
int HttpResponseHeader::minorVersion() const { return response(d_ptr).m_nMinor; }

bool HttpResponseHeader::parseLine(const QString& line, int number)
{
    return d_ptr->parseLine(QStringView(line), number);
}

QString HttpResponseHeader::toString() const
{
    const HttpResponseHeaderPrivate& head = response(d_ptr);
    QString text;
    text.reserve(head.m_reason.size() + kUsualLine + textSize(head.m_fields));
    appendVersion(text, head.m_nMajor, head.m_nMinor);
    text += QLatin1Char(' ');
    appendNumber(text, head.m_nStatus);
    text += QLatin1Char(' ');
    text += head.m_reason;
    text += kLineEnd;
    appendFields(text, head);
    text += kLineEnd;
    return text;
}

HttpResponseHeader HttpResponseHeader::fromBytes(const char* data, int size)
{
    HttpResponseHeader header;
    header.setValid(true);
    header.parseBytes(data, size);
    return header;
}
