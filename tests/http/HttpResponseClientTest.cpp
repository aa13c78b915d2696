#include "http/HttpExchange.h"
#include "support/LogCapture.h"
#include "support/Seams.h"

TEST(HttpResponseClient, DeliversPipelinedRequestsInOrder)
{
    Served s;
    s.client.write(
        "GET /1 HTTP/1.1\r\n\r\nPOST /2 HTTP/1.1\r\nContent-Length: 4\r\n\r\nbodyGET /3 HTTP/1.1\n\n");
    ASSERT_TRUE(s.expect({"GET /1 ", "POST /2 body", "GET /3 "}));
    s.respond(200, "one");
    s.respond(200, "two");
    ASSERT_TRUE(waitFor([&] { return s.client.received().endsWith("two"); }));
    EXPECT_TRUE(s.client.received().startsWith("HTTP/1.1 200 X\r\ncontent-length: 3\r\n\r\none"));
    EXPECT_FALSE(s.client.atEnd()) << "kept alive";
}

TEST(HttpResponseClient, ReadsChunkedMultipartAndUnlimitedRequests)
{
    Served s;
    LogCapture log;
    s.client.write("PUT / HTTP/1.1\r\nExpect: 100-Continue\r\nTransfer-Encoding: chunked\r\n\r\n");
    ASSERT_TRUE(waitFor([&] { return s.client.take() == "HTTP/1.1 100 Continue\r\n\r\n"; }));
    s.client.write("3\r\nabc\r\n0\r\n\r\n");
    ASSERT_TRUE(s.expect({"chunk abc", "chunk "}));
    EXPECT_TRUE(log.has("HttpResponseClient::slotSockDataReceived#3: chunk response finished", QtDebugMsg));
    s.respond(200, "");
    s.client.write(
        "POST / HTTP/1.1\r\nContent-Type: multipart/x-mixed-replace; boundary=b\r\nContent-Length: 28\r\n\r\n"
        "--b\r\ncontent-length: 2\r\n\r\nhi");
    ASSERT_TRUE(s.expect({"finished", "part hi", "POST / "})) << "the end of the parts is told, too";
    Served end;
    end.client.write("POST /all HTTP/1.1\r\n\r\nuntil");
    settle(5);
    end.client.write(" the end");
    end.client.shutdownWrite();
    ASSERT_TRUE(end.expect({"POST /all until the end"}));
    end.respond(200, "got it");
    ASSERT_TRUE(end.expect({"finished", "disconnected"}));
    EXPECT_TRUE(end.client.received().endsWith("got it"));
}

TEST(HttpResponseClient, FinishedFollowsTheLastByteAndCloseLosesNothing)
{
    Served s;
    s.client.write("GET / HTTP/1.1\r\nConnection: close\r\n\r\n");
    ASSERT_TRUE(s.expect({"GET / "}));
    const QByteArray big(12 << 20, 'b');
    s.respond(200, big);
    s.client.write("GET /unread HTTP/1.1\r\n\r\n"); // would turn a plain close into a reset
    settle(30);
    EXPECT_TRUE(s.events.isEmpty()) << "the peer has not read yet";
    ASSERT_TRUE(waitFor([&] { return s.client.atEnd(); }, 20000));
    EXPECT_FALSE(s.client.wasReset());
    EXPECT_TRUE(s.client.received().endsWith(big));
    EXPECT_TRUE(s.events.startsWith(QStringLiteral("finished")));
    s.client.close();
    ASSERT_TRUE(waitFor([&] { return s.events.contains(QStringLiteral("disconnected")); }));
    s.events.clear();
    s.respond(200, "late");
    ASSERT_TRUE(s.expect({"error"})) << "nobody to respond to";
}

TEST(HttpResponseClient, StreamsAndLetsASlowViewerBeSeen)
{
    Served s;
    s.client.write("GET /live HTTP/1.1\r\n\r\nGET /next HTTP/1.1\r\n\r\n");
    ASSERT_TRUE(waitFor([&] { return s.events.size() == 2; }));
    s.events.clear();
    s.respond(200, "", "Content-Type", "multipart/x-mixed-replace; boundary=b", true);
    int resumed = 0;
    QObject::connect(s.server.get(), &HttpResponseClient::sigCanSendContent, [&] { ++resumed; });
    const QByteArray picture(100000, 'p');
    int sent = 0;
    while (s.server->canSendContent() && sent < 1000) {
        ASSERT_TRUE(s.server->sendContent(picture.constData(), picture.size()));
        ++sent;
        QCoreApplication::processEvents();
    }
    EXPECT_GT(sent, 2);
    EXPECT_LT(sent, 200) << "a viewer that does not read is slow soon";
    ASSERT_TRUE(waitFor([&] {
        s.client.received();
        return s.server->canSendContent();
    }));
    EXPECT_TRUE(s.server->endContent());
    EXPECT_FALSE(s.server->sendContent("x", 1));
    ASSERT_TRUE(waitFor([&] { return s.client.atEnd(); }))
        << "without a length the connection's end is the end";
    EXPECT_GE(s.client.received().size(), sent * picture.size());
    EXPECT_TRUE(s.events.contains(QStringLiteral("finished")));

    Served chunked;
    chunked.client.write("GET / HTTP/1.1\r\n\r\n");
    ASSERT_TRUE(waitFor([&] { return chunked.events.size() == 1; }));
    chunked.respond(200, "ab", "Transfer-Encoding", "chunked", true);
    chunked.server->sendContent("cde", 3);
    chunked.server->endContent();
    ASSERT_TRUE(waitFor(
        [&] { return chunked.client.received().endsWith("\r\n\r\n2\r\nab\r\n3\r\ncde\r\n0\r\n\r\n"); }));
    EXPECT_FALSE(chunked.client.atEnd());
}

TEST(HttpResponseClient, AnswersABadRequestAndEnds)
{
    for (const char* bad :
        {"GET / HTTP/1\r\n\r\n", "nonsense\r\n\r\n", "GET / HTTP/1.1\r\nContent-Length: -1\r\n\r\n",
            "GET / HTTP/1.1\r\nContent-Length: 3\r\nTransfer-Encoding: chunked\r\n\r\n",
            "GET / HTTP/1.1\r\nTransfer-Encoding: gzip\r\n\r\n",
            "GET / HTTP/1.1\r\nContent-Length: 3\r\nContent-Length: 4\r\n\r\n",
            "PUT / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\nxx\r\n"}) {
        Served s;
        s.onEvent = [&](const QString& event) {
            if (event == QLatin1String("error"))
                s.respond(400, "bad");
        };
        s.client.write(QByteArray(bad) + "GET /smuggled HTTP/1.1\r\n\r\n");
        EXPECT_TRUE(waitFor([&] { return s.client.atEnd(); })) << bad;
        EXPECT_TRUE(s.client.received().startsWith("HTTP/1.1 400") && s.client.received().endsWith("bad"))
            << bad;
        EXPECT_FALSE(s.events.filter(QStringLiteral("smuggled")).size() > 0) << bad;
    }
    Served large;
    HttpReadLimits limits;
    limits.nContent = 1000;
    large.server->setReadLimits(limits);
    large.client.write("POST / HTTP/1.1\r\nContent-Length: 5000\r\n\r\n" + QByteArray(5000, 'x'));
    ASSERT_TRUE(waitFor([&] { return large.events.contains(QStringLiteral("error")); }));
    EXPECT_TRUE(waitFor([&] { return large.client.atEnd(); })) << "closes without an answer too";
}

TEST(HttpResponseClient, HeadAnswersCarryNoBodyAndHandlersMayDelete)
{
    Served s;
    s.client.write("HEAD / HTTP/1.1\r\n\r\n");
    ASSERT_TRUE(s.expect({"HEAD / "}));
    s.respond(200, "not sent");
    ASSERT_TRUE(s.expect({"finished"}));
    EXPECT_TRUE(s.client.received().endsWith("content-length: 8\r\n\r\n")) << s.client.received().constData();
    for (const char* when : {"GET", "finished", "error", "disconnected"}) {
        Served d;
        d.onEvent = [&](const QString& event) {
            if (event.startsWith(QLatin1String(when)))
                d.server.reset();
            else if (event.startsWith(QLatin1String("GET")))
                d.respond(200, "x");
        };
        d.client.write(
            qstrcmp(when, "error") == 0 ? "bad\r\n\r\n" : "GET / HTTP/1.1\r\n\r\nGET / HTTP/1.1\r\n\r\n");
        if (qstrcmp(when, "disconnected") == 0) {
            waitFor([&] { return d.events.size() >= 4; });
            d.client.close();
        }
        ASSERT_TRUE(waitFor([&] { return !d.server; })) << when;
    }
}
