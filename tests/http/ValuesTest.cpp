#include <KepNuvikaUtil/HttpAuthenticator.h>
#include <KepNuvikaUtil/HttpRequestHeader.h>
#include <KepNuvikaUtil/HttpResponseHeader.h>

#include "support/Values.h"

#include <gtest/gtest.h>

TEST(Values, HeadsPrintWithoutPasswords)
{
    const HttpRequestHeader request(QStringLiteral(
        "GET /i.cgi?user=hidden HTTP/1.1\r\nHost: cam\r\nAuthorization: Basic hidden\r\n"
        "proxy-authorization: hidden\r\nCookie: hidden\r\nX-Api-Key: hidden\r\nX: /pwd=hidden\r\n\r\n"));
    EXPECT_EQ(shown(request),
        "HttpRequestHeader(\"GET\", \"/i.cgi?...\", HTTP/1.1, \"Host: cam\", \"Authorization: ...\", "
        "\"proxy-authorization: ...\", \"Cookie: ...\", \"X-Api-Key: ...\", \"X: /pwd=...\")");
    const HttpResponseHeader response(
        QStringLiteral("HTTP/1.0 302 Go on\r\nSet-Cookie: hidden\r\nLocation: http://u:hidden@h/\r\n"
                       "WWW-Authenticate: Digest realm=r\r\nAuthentication-Info: hidden\r\n\r\n"));
    EXPECT_EQ(shown(response),
        "HttpResponseHeader(HTTP/1.0, 302, \"Go on\", \"Set-Cookie: ...\", \"Location: http://...@h/\", "
        "\"WWW-Authenticate: Digest realm=r\", \"Authentication-Info: ...\")");
    EXPECT_EQ(shown(HttpResponseHeader()), "HttpResponseHeader(HTTP/0.0, 0, \"\", not valid)");
}

template <class Head>
void expectMoves(Head first, Head second)
{
    const QString text = first.toString();
    const QString other = second.toString();
    Head moved = std::move(first);
    EXPECT_EQ(moved.toString(), text);
    first = second; // NOLINT(bugprone-use-after-move): what was moved from takes a copy, and another head
    EXPECT_EQ(first.toString(), other);
    second = std::move(moved);
    EXPECT_EQ(second.toString(), text);
    Head last = std::move(second);
    second = std::move(first);
    EXPECT_EQ(second.toString(), other);
    second = last;
    EXPECT_EQ(second.toString(), text);
}

TEST(Values, HeadsMove)
{
    static_assert(moveFreely<HttpRequestHeader, HttpResponseHeader, HttpAuthenticator>(), "heads move");
    expectMoves(HttpRequestHeader(QStringLiteral("GET"), QStringLiteral("/a")),
        HttpRequestHeader(QStringLiteral("PUT"), QStringLiteral("/b")));
    expectMoves(HttpResponseHeader(200, QStringLiteral("OK")), HttpResponseHeader(404));
}
