#include "http/HttpExchange.h"
#include "support/LogCapture.h"

#include <cstring>

TEST(HttpClient, SendsOneRequestAtATimeOverOneConnection)
{
    Exchange x;
    EXPECT_EQ(x.get("/a?%1"), 1);
    EXPECT_EQ(x.client->plainPost(QStringLiteral("/b"), "body", QString(), QString(), true), 2);
    EXPECT_EQ(x.client->numOfPendingRequests(), 2);
    EXPECT_EQ(x.request(),
        "GET /a?%1 HTTP/1.1\r\nHost: 127.0.0.1:" + QByteArray::number(x.listener.port())
            + "\r\nConnection: keep-alive\r\nKeep-Alive: 300\r\n\r\n");
    settle(20);
    EXPECT_TRUE(x.server.received().isEmpty()) << "the second waits for the first";
    x.server.write(sized("one"));
    ASSERT_TRUE(x.expect({"head1 200", "done1 200 one"}));
    const QByteArray post = x.request();
    EXPECT_TRUE(
        post.contains("Cache-Control: no-cache\r\ncontent-length: 4\r\n") && post.endsWith("\r\n\r\nbody"))
        << post.constData();
    x.server.write("HTTP/1.1 100 Continue\r\n\r\n" + sized(""));
    ASSERT_TRUE(x.expect({"head2 200", "done2 200 "})) << "a 1xx head is skipped";
    x.client->soapRequest(
        QStringLiteral("/s"), QStringLiteral("urn:x"), QByteArray(5000, 's'), QString(), QString(), false);
    QByteArray soap = x.request();
    EXPECT_TRUE(soap.contains(
        "Content-Type: application/soap+xml; charset=utf-8; action=\"urn:x\"\r\nContent-Length: 5000\r\n"
        "Accept-Encoding: identity\r\nConnection: close\r\n"))
        << soap.left(500).constData();
    x.server.write("HTTP/1.1 204 None\r\ncontent-length: 9\r\n\r\n");
    ASSERT_TRUE(x.expect({"head3 204", "done3 204 "})) << "a 204 ends with its head";
}

TEST(HttpClient, AnswersA401OnceWhateverItsFraming)
{
    const QByteArray unauthorized = "HTTP/1.1 401 Unauthorized\r\nWWW-Authenticate: Basic realm=\"b\"\r\n"
                                    "www-authenticate: Digest realm=\"r\", nonce=\"n\", qop=\"auth\"\r\n";
    for (const char* framing : {"content-length: 4\r\n\r\nfail", "content-length: 900\r\n\r\ncut",
             "transfer-encoding: chunked\r\n\r\n4\r\nfail\r\n0\r\n\r\n", "\r\nuntil the end"}) {
        Exchange x;
        x.login("/p");
        EXPECT_TRUE(x.request().contains("Authorization: Basic dXNlcjpzZWNyZXQ=\r\n"));
        x.server.write(unauthorized + framing);
        if (strstr(framing, "cut") != nullptr || strstr(framing, "until") != nullptr)
            x.server.close();
        EXPECT_TRUE(x.request().contains("Digest username=\"user\", realm=\"r\", nonce=\"n\", uri=\"/p\""));
        x.server.write(unauthorized + "content-length: 2\r\n\r\nno");
        ASSERT_TRUE(x.expect({"done1 401 no"})) << "the second 401 is delivered: " << framing;
    }
}

TEST(HttpClient, DiscardsAndCancels)
{
    Exchange x;
    const int first = x.get();
    const int second = x.get();
    x.ask();
    LogCapture log;
    x.client->discardNonePendingRequest(first); // written already
    x.client->discardNonePendingRequest(second);
    EXPECT_TRUE(log.has("HttpClient::discardNonePendingRequest: remove request; id:2", QtDebugMsg));
    x.client->shutdown();
    EXPECT_TRUE(log.has("HttpClient::shutdown: removed pending request; id:1", QtDebugMsg));
    ASSERT_TRUE(x.expect({"cancelled1", "cancelled3"}));
}
