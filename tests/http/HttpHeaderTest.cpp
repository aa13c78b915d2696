#include <KepNuvikaUtil/HttpRequestHeader.h>
#include <KepNuvikaUtil/HttpResponseHeader.h>

#include "http/HttpHeadLines_p.h"

#include <gtest/gtest.h>

namespace
{
// A head and the text that its lines are joined in, which count the bytes that are looked at and copied.
long long g_nTouched = 0;

struct CountedText {
    QString text;
    CountedText() = default;
    CountedText(const CountedText& other) : text(other.text) { g_nTouched += text.size(); }
    CountedText& operator=(const CountedText& other)
    {
        g_nTouched += other.text.size();
        text = other.text;
        return *this;
    }
    CountedText& operator+=(QLatin1Char c)
    {
        text += c;
        return *this;
    }
};

struct CountedView : QLatin1String {
    CountedView() = default;
    explicit CountedView(QLatin1String view) : QLatin1String(view) { }
    CountedView mid(int at, int size) const { return CountedView(QLatin1String::mid(at, size)); }
};

QChar charAt(CountedView view, int i)
{
    ++g_nTouched;
    return QChar(view.at(i));
}

int findChar(CountedView view, char c, int from)
{
    const int at = Nuvika::HeadLines::findChar(QLatin1String(view), c, from);
    g_nTouched += (at < 0 ? view.size() : at + 1) - from;
    return at;
}

void appendTo(CountedText& text, CountedView view)
{
    g_nTouched += view.size();
    text.text.append(view);
}

CountedView viewOf(const CountedText&) { return CountedView(); }

long long touchedBy(const QByteArray& head)
{
    g_nTouched = 0;
    Nuvika::HeadLines::forEach<CountedText>(CountedView(QLatin1String(head.constData(), head.size())),
        Nuvika::HeadLines::Blanks::Unicode, [](CountedView, int) { return true; });
    return g_nTouched;
}

HttpResponseHeader response(const char* text) { return HttpResponseHeader(QString::fromLatin1(text)); }
HttpRequestHeader request(const char* text) { return HttpRequestHeader(QString::fromLatin1(text)); }
const QString kLength = QStringLiteral("CONTENT-LENGTH");
} // namespace

TEST(HttpHeader, KeepsSpellingOrderAndDuplicates)
{
    HttpResponseHeader header = response("HTTP/1.1 200 OK\r\nCoNtEnT-LeNgTh: 12\r\nX: 1\r\nx: 2\r\n");
    EXPECT_EQ(header.contentLength(), 12U);
    EXPECT_EQ(header.keys().first(), QStringLiteral("CoNtEnT-LeNgTh"));
    header.setValue(kLength, QStringLiteral("13"));
    EXPECT_EQ(header.keys().first(), QStringLiteral("CoNtEnT-LeNgTh"));
    EXPECT_EQ(header.contentLength(), 13U);
    EXPECT_EQ(header.value(QStringLiteral("X")), QStringLiteral("1"));
    EXPECT_EQ(header.allValues(QStringLiteral("X")).size(), 2);
    HttpResponseHeader copy = header;
    copy.removeValue(QStringLiteral("x"));
    EXPECT_EQ(copy.value(QStringLiteral("x")), QStringLiteral("2"));
    EXPECT_EQ(header.allValues(QStringLiteral("x")).size(), 2) << "copies are deep";
    copy.addValue(QStringLiteral("X"), QString());
    copy.removeAllValues(QStringLiteral("x"));
    EXPECT_FALSE(copy.hasKey(QStringLiteral("x")));
}

TEST(HttpHeader, ParsesStringsAndBytesAlike)
{
    const char* heads[] = {
        "HTTP/1.1 200 OK\r\nA: 1\r\n  more\r\n\tand more\r\nB:2\r\n",
        "HTTP/1.0 404 Not  Found\nA : x:y \nB:\n\n continued",
        "  HTTP/1.1   204   \r\nA: 1",
        "HTTP/1.1 200",
        "HTTP/1.1\r\nA: 1",
        "HTTP/x.1 200 OK\r\n",
        "HTTP/1.1 200 OK\r\nno colon\r\nB: 2",
        " only: continuation\r\n",
        "HTTP/1.1 200 \xE9t\xE9\r\nA: \xFF\r\n",
        "",
    };
    for (const char* head : heads) {
        const HttpResponseHeader text = response(head);
        const HttpResponseHeader bytes = HttpResponseHeader::fromBytes(head, static_cast<int>(qstrlen(head)));
        EXPECT_EQ(text.isValid(), bytes.isValid()) << head;
        EXPECT_EQ(text.toString(), bytes.toString()) << head;
        EXPECT_EQ(text.values(), bytes.values()) << head;
    }
    EXPECT_EQ(response(heads[0]).value(QStringLiteral("a")), QStringLiteral("1 more and more"));
    EXPECT_EQ(response(heads[1]).reasonPhrase(), QStringLiteral("Not Found"));
    EXPECT_EQ(response(heads[2]).statusCode(), 204);
    EXPECT_TRUE(response(heads[3]).isValid());
    EXPECT_TRUE(response(heads[3]).reasonPhrase().isEmpty());
    EXPECT_FALSE(response(heads[4]).isValid());
    EXPECT_FALSE(response(heads[5]).isValid());
    EXPECT_TRUE(response(heads[9]).isValid());
    EXPECT_FALSE(HttpResponseHeader().isValid());
}

TEST(HttpHeader, ParsesRequestLines)
{
    const HttpRequestHeader good = request("GET   /a%20b?c HTTP/1.1\r\nHost: h\r\n\r\n");
    EXPECT_TRUE(good.isValid());
    EXPECT_EQ(good.path(), QStringLiteral("/a%20b?c"));
    EXPECT_EQ(good.minorVersion(), 1);
    for (const char* bad : {"GET /p HTTP/1", "GET /p", "GET /p HTTP/a.1"}) {
        EXPECT_FALSE(request(bad).isValid()) << bad;
        EXPECT_EQ(request(bad).path(), QStringLiteral("/p")) << bad;
    }
}

TEST(HttpHeader, RendersWithoutTouchingPercentSigns)
{
    HttpRequestHeader header(QStringLiteral("GET"), QStringLiteral("/%1/%2"));
    header.addValue(QStringLiteral("H"), QStringLiteral("%3"));
    EXPECT_EQ(header.toString(), QStringLiteral("GET /%1/%2 HTTP/1.1\r\nH: %3\r\n\r\n"));
    const HttpResponseHeader response(503, QStringLiteral("50% busy"), 1, 0);
    EXPECT_EQ(response.toString(), QStringLiteral("HTTP/1.0 503 50% busy\r\n\r\n"));
    header.setContentType(QStringLiteral("multipart/x-mixed-replace; boundary=b"));
    EXPECT_EQ(header.contentType(), QStringLiteral("multipart/x-mixed-replace"));
    EXPECT_EQ(HttpRequestHeader().contentLength(), 0U);
}

TEST(HttpHeader, LooksAtEachByteAFixedNumberOfTimes)
{
    for (const char* line : {" c\r\n", "\tcc \r\n", "a:b\r\n", "\r\n", "\n", " \r\n"}) {
        const QByteArray start = "HTTP/1.1 200 OK\r\nA: b\r\n";
        const long long once = touchedBy(start + QByteArray(line).repeated(20000) + "x:y");
        const long long twice = touchedBy(start + QByteArray(line).repeated(40000) + "x:y");
        EXPECT_LT(twice, once * 2 + 1000) << line;
        EXPECT_LT(once, 10LL * 20000 * qstrlen(line)) << line;
    }
}
