#include "rtsp/RtspHead_p.h"

#include "http/HttpHeader_p.h"

using namespace Nuvika;
using namespace Nuvika::HeadLines;

namespace
{
const QLatin1String kVersion("RTSP/");
const QLatin1String kOurVersion("RTSP/1.0");

QString toText(QStringView view) { return view.toString(); }
QString toText(QLatin1String view) { return view; }

class RtspHeadPrivate final : public HttpHeaderPrivate
{
public:
    bool parseLine(QStringView line, int number) override { return parseAny(line, number); }
    bool parseLine(QLatin1String line, int number) override { return parseAny(line, number); }

    int m_nStatus = 0; // 0: a request
    QString m_text; // reason or method
    QString m_url;

private:
    template <class View>
    bool parseAny(View line, int number)
    {
        if (number == 0)
            return parseFirst(line);
        parseField(line);
        return true;
    }

    template <class View>
    bool parseFirst(View line)
    {
        int at = 0;
        const View first = nextWord(line, &at, m_blanks);
        const View second = nextWord(line, &at, m_blanks);
        if (!first.startsWith(kVersion)) {
            m_text = toText(first);
            m_url = toText(second);
            return !m_text.isEmpty() && !m_url.isEmpty();
        }
        m_nStatus = toText(second).toInt();
        m_text = toText(trimmed(line.mid(at), m_blanks));
        return m_nStatus >= 100 && m_nStatus <= 999;
    }
};

// The digits in front; `otherwise` without any. What goes beyond 15 digits is as large as anything.
qint64 leadingNumber(const QString& text, qint64 otherwise)
{
    constexpr int kDigits = 15;
    qint64 value = 0;
    int n = 0;
    for (; n < text.size() && n < kDigits && text.at(n) >= QLatin1Char('0') && text.at(n) <= QLatin1Char('9');
         ++n)
        value = value * 10 + text.at(n).digitValue();
    return n == 0 ? otherwise : value;
}

RtspHeadPrivate& head(const std::unique_ptr<HttpHeaderPrivate>& d)
{
    return static_cast<RtspHeadPrivate&>(*d);
}
} // namespace

RtspHead::RtspHead() : HttpHeader(std::make_unique<RtspHeadPrivate>(), QString()) { setValid(false); }

RtspHead::RtspHead(const QString& method, const QString& url) : RtspHead()
{
    setValid(true);
    head(d_ptr).m_text = method;
    head(d_ptr).m_url = url;
}

RtspHead::RtspHead(int status) : RtspHead()
{
    setValid(true);
    head(d_ptr).m_nStatus = status;
    head(d_ptr).m_text = status == 200 ? QStringLiteral("OK") : QStringLiteral("Not Implemented");
}

RtspHead::RtspHead(const RtspHead& other)
    : HttpHeader(std::make_unique<RtspHeadPrivate>(head(other.d_ptr)), QString())
{
}

RtspHead& RtspHead::operator=(const RtspHead& other)
{
    head(d_ptr) = head(other.d_ptr);
    return *this;
}

RtspHead RtspHead::fromBytes(const char* data, int size)
{
    RtspHead result;
    result.d_ptr->m_blanks = Blanks::Ascii;
    result.setValid(true);
    result.parseBytes(data, size);
    return result;
}

bool RtspHead::isAnswer() const { return head(d_ptr).m_nStatus != 0; }
int RtspHead::status() const { return head(d_ptr).m_nStatus; }
QString RtspHead::reason() const { return isAnswer() ? head(d_ptr).m_text : QString(); }
QString RtspHead::method() const { return isAnswer() ? QString() : head(d_ptr).m_text; }
QString RtspHead::url() const { return head(d_ptr).m_url; }

qint64 RtspHead::cseq() const { return leadingNumber(value(QStringLiteral("CSeq")), -1); }

qint64 RtspHead::bodyLength() const { return leadingNumber(value(QStringLiteral("Content-Length")), 0); }

QString RtspHead::toString() const
{
    const RtspHeadPrivate& own = head(d_ptr);
    const QString first = isAnswer()
        ? kOurVersion + QLatin1Char(' ') + QString::number(own.m_nStatus) + QLatin1Char(' ') + own.m_text
        : own.m_text + QLatin1Char(' ') + own.m_url + QLatin1Char(' ') + kOurVersion;
    return first + QLatin1String("\r\n") + HttpHeader::toString() + QLatin1String("\r\n");
}
