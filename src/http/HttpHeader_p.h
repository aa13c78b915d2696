// Private: the state of the heads, and the parsing of head text, which is the same for strings and for
// received bytes.
#pragma once

#include <KepNuvikaUtil/HttpHeader.h>

#include "http/HttpFieldList_p.h"
#include "http/HttpHeadLines_p.h"

#include <QtCore/QString>

#include <memory>

class HttpHeaderPrivate
{
public:
    virtual ~HttpHeaderPrivate() = default;
    // For the library's own reading, which needs no text of its own for a name or a value.
    static const Nuvika::HttpFieldList& fieldsOf(const HttpHeader& header) { return header.d_ptr->m_fields; }

    // One logical line; number 0 is the first line of the head.
    virtual bool parseLine(QStringView line, int /*number*/) { return parseField(line); }
    virtual bool parseLine(QLatin1String line, int /*number*/) { return parseField(line); }

    template <class View>
    bool parseField(View line)
    {
        using namespace Nuvika::HeadLines;
        const int colon = findChar(line, ':', 0);
        if (colon < 0)
            return false;
        m_fields.append(trimmed(line.left(colon), m_blanks), trimmed(line.mid(colon + 1), m_blanks));
        return true;
    }

    Nuvika::HttpFieldList m_fields;
    bool m_bValid = true;
    Nuvika::HeadLines::Blanks m_blanks = Nuvika::HeadLines::Blanks::Unicode; // while parsing
};

class HttpRequestHeaderPrivate : public HttpHeaderPrivate
{
public:
    bool parseLine(QStringView line, int number) override { return parseRequest(line, number); }
    bool parseLine(QLatin1String line, int number) override { return parseRequest(line, number); }

    template <class View>
    bool parseRequest(View line, int number);

    QString m_method;
    QString m_path;
    int m_nMajor = 0;
    int m_nMinor = 0;
};

class HttpResponseHeaderPrivate : public HttpHeaderPrivate
{
public:
    bool parseLine(QStringView line, int number) override { return parseStatus(line, number); }
    bool parseLine(QLatin1String line, int number) override { return parseStatus(line, number); }

    template <class View>
    bool parseStatus(View line, int number);

    int m_nStatus = 0;
    QString m_reason;
    int m_nMajor = 0;
    int m_nMinor = 0;
};
