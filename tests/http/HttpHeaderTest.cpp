#include <KepNuvikaUtil/HttpRequestHeader.h>
#include <KepNuvikaUtil/HttpResponseHeader.h>

#include "support/CpuTime.h"

#include <gtest/gtest.h>

namespace
{
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

// What takes time in proportion to the square of the lines takes half a minute here.
TEST(HttpHeader, LooksAtEachByteAFixedNumberOfTimes)
{
    for (const char* line : {" c\r\n", "\tcc \r\n", "\r\n", "\n", " \r\n"}) {
        const QByteArray head = "HTTP/1.1 200 OK\r\nA: b\r\n" + QByteArray(line).repeated(400000) + "x:y";
        const std::int64_t begin = cpuTimeNs();
        EXPECT_TRUE(HttpResponseHeader::fromBytes(head.constData(), head.size()).isValid());
        EXPECT_TRUE(response(head.constData()).isValid());
        EXPECT_LT(cpuTimeNs() - begin, 1000000000) << line;
    }
}
