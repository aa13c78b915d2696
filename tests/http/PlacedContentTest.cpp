// Parts and bodies that are received right into their own memory: the same outcome as from a buffer, however
// they are cut.
#include "http/CollectedContent_p.h"
#include "http/ContentMemory_p.h"
#include "http/HttpMessageReader_p.h"

#include "http/HttpExchange.h"

#include <KepNuvikaUtil/HttpResponseHeader.h>

#include <cstring>
#include <gtest/gtest.h>

using namespace Nuvika;

namespace
{
struct Reading {
    QByteArray log;
    int nPlaced = 0; // bytes that were received where they belong
};

Reading read(const QByteArray& stream, int piece, bool bPlace)
{
    using Event = HttpMessageReader::Event;
    HttpMessageReader reader;
    Reading result;
    for (int at = 0; at < stream.size(); at += piece) {
        const QByteArray bytes = stream.mid(at, piece);
        int nPlaced = 0;
        if (const iovec target = reader.partTarget(); bPlace && target.iov_len > 0) {
            nPlaced = int(std::min(target.iov_len, std::size_t(bytes.size())));
            std::memcpy(target.iov_base, bytes.constData(), std::size_t(nPlaced));
            reader.partPlaced(std::size_t(nPlaced));
            result.nPlaced += nPlaced;
        }
        reader.feed(bytes.constData() + nPlaced, bytes.size() - nPlaced);
        for (Event event = reader.next(); event != Event::NeedMore; event = reader.next()) {
            if (event == Event::Head) {
                const auto header = HttpResponseHeader::fromBytes(reader.data(), reader.size());
                HttpBody body = HttpBody::fromFields(header, HttpBody::UntilEnd);
                body.detectMultipart(header);
                reader.setBody(body);
            } else if (event == Event::Part) {
                result.log += "P(" + QByteArray(reader.data(), reader.size()) + ") ";
            } else {
                result.log += event == Event::End ? "E " : "? ";
                if (event == Event::Failed)
                    return result;
            }
        }
    }
    return result;
}

// Collects the body behind that head.
Reading collect(const HttpBody& body, const QByteArray& stream, int piece, bool* bInPlace)
{
    HttpMessageReader reader;
    reader.setBody(body);
    CollectedContent content;
    content.begin(body.kind == HttpBody::Length ? body.nLength : -1, 1000);
    Reading result;
    for (int at = 0; at < stream.size(); at += piece) {
        const QByteArray bytes = stream.mid(at, piece);
        const iovec target = content.target(reader);
        const int nPlaced = int(std::min(target.iov_len, std::size_t(bytes.size())));
        if (nPlaced > 0) {
            std::memcpy(target.iov_base, bytes.constData(), std::size_t(nPlaced));
            content.placed(std::size_t(nPlaced));
            reader.contentPlaced(std::size_t(nPlaced));
            result.nPlaced += nPlaced;
        }
        reader.feed(bytes.constData() + nPlaced, bytes.size() - nPlaced);
        while (reader.next() == HttpMessageReader::Event::Content)
            EXPECT_TRUE(content.add(reader.data(), reader.size()));
        *bInPlace = content.data() >= bytes.constData() && content.data() < bytes.constData() + bytes.size();
        result.log = QByteArray(content.data(), content.size());
    }
    return result;
}

// Head and pieces of a body, each of which is sent when the one before was read.
struct Cut {
    const char* name;
    QList<int> sizes; // of all pieces but the last
};

const Cut kCuts[] = {
    {"whole", {}},
    {"the head alone", {0}},
    {"one byte with the head, one missing", {1, 99998}},
    {"small pieces first", {1, 1, 2, 3, 5, 8, 13}},
    {"more than a receive each", {68000, 10000}},
};

QList<QByteArray> piecesOf(const QByteArray& head, const QByteArray& body, const Cut& cut)
{
    QList<QByteArray> pieces;
    int at = 0;
    for (const int size : cut.sizes) {
        pieces << body.mid(at, size);
        at += size;
    }
    pieces << body.mid(at);
    pieces.first().prepend(head);
    return pieces;
}

QByteArray patterned(int size)
{
    QByteArray bytes(size, '\0');
    for (int i = 0; i < size; ++i)
        bytes[i] = char('a' + i % 23 + i / 997 % 3);
    return bytes;
}

QByteArray chunksOf(const QByteArray& body, int size)
{
    QByteArray chunked;
    for (int at = 0; at < body.size(); at += size) {
        const QByteArray chunk = body.mid(at, size);
        chunked += QByteArray::number(chunk.size(), 16) + "\r\n" + chunk + "\r\n";
    }
    return chunked + "0\r\n\r\n";
}
} // namespace

TEST(PlacedContent, BodiesAreTheSameInEveryFramingHoweverTheyAreCut)
{
    const QByteArray text = patterned(100);
    const struct {
        HttpBody::Kind kind;
        QByteArray stream;
    } bodies[]
        = {{HttpBody::Length, text}, {HttpBody::UntilEnd, text}, {HttpBody::Chunked, chunksOf(text, 17)}};
    for (const auto& [kind, stream] : bodies) {
        HttpBody body;
        body.kind = kind;
        body.nLength = text.size();
        for (int piece = 1; piece <= stream.size(); ++piece) {
            bool bInPlace = false;
            const Reading reading = collect(body, stream, piece, &bInPlace);
            ASSERT_EQ(reading.log, text) << "in pieces of " << piece << ", kind " << kind;
            ASSERT_EQ(bInPlace, kind == HttpBody::Length && piece == stream.size()) << piece;
            ASSERT_TRUE(piece > 17 || reading.nPlaced > 20) << reading.nPlaced << " for " << piece;
        }
    }
}

TEST(PlacedContent, CollectsNoMoreThanItMay)
{
    HttpMessageReader reader;
    HttpBody body;
    body.kind = HttpBody::UntilEnd;
    reader.setBody(body);
    CollectedContent content;
    content.begin(-1, 10);
    EXPECT_EQ(content.target(reader).iov_len, 0U) << "what may still come whole";
    EXPECT_TRUE(content.add("1234", 4));
    EXPECT_EQ(content.target(reader).iov_len, 6U);
    content.placed(6);
    EXPECT_EQ(content.target(reader).iov_len, 0U);
    EXPECT_FALSE(content.add("x", 1));
}

TEST(PlacedContent, AReaderThatWasResetClaimsNothingForTheBodyBefore)
{
    HttpMessageReader reader;
    HttpBody body;
    body.kind = HttpBody::UntilEnd;
    body.bMultipart = true;
    body.boundary = "b";
    reader.setBody(body);
    const QByteArray half = "--b\r\ncontent-length: 100\r\n\r\nhalf";
    reader.feed(half.constData(), half.size());
    ASSERT_EQ(reader.next(), HttpMessageReader::Event::NeedMore);
    ASSERT_EQ(reader.partTarget().iov_len, 96U);
    reader.reset();
    reader.setBody(HttpBody{HttpBody::Length, 50, false, {}, false, false});
    EXPECT_EQ(reader.partTarget().iov_len, 0U);
}

TEST(PlacedContent, AnswersInPiecesArriveWholeAndTheNextOneBehindThem)
{
    const QByteArray body = patterned(100000);
    const QByteArray chunked = chunksOf(body, 30000);
    const QByteArray plain = "HTTP/1.1 200 OK\r\ncontent-length: 100000\r\n\r\n";
    for (const Cut& cut : kCuts) {
        Exchange x;
        x.ask();
        for (const QByteArray& piece : piecesOf(plain, body, cut)) {
            x.server.write(piece);
            settle(5);
        }
        x.ask();
        for (const QByteArray& piece :
            piecesOf("HTTP/1.1 201 OK\r\ntransfer-encoding: chunked\r\n\r\n", chunked, cut)) {
            x.server.write(piece);
            settle(5);
        }
        const QString text = QString::fromLatin1(body);
        waitFor([&] { return x.events.size() >= 4; });
        EXPECT_TRUE(x.events
            == QStringList({QStringLiteral("head1 200"), QStringLiteral("done1 200 ") + text,
                QStringLiteral("head2 201"), QStringLiteral("done2 201 ") + text}))
            << cut.name << ": " << x.events.size() << " events";
        EXPECT_EQ(x.nConnections, 1) << cut.name;
    }
}

TEST(PlacedContent, RequestsInPiecesArriveWholeAndTheNextOneBehindThem)
{
    const QByteArray body = patterned(100000);
    for (const Cut& cut : kCuts) {
        Served s;
        s.onEvent = [&](const QString& text) { // its loop receives the next body
            if (!text.startsWith(QLatin1String("PUT /a")))
                return;
            s.client.write("PUT /n HTTP/1.1\r\nHost: h\r\nContent-Length: 5000\r\n\r\n" + body.left(1));
            settle(5);
            s.client.write(body.mid(1, 2999));
            settle(5);
        };
        const QByteArray head = "PUT /a HTTP/1.1\r\nHost: h\r\nContent-Length: 100000\r\n\r\n";
        for (const QByteArray& piece : piecesOf(head, body, cut)) {
            s.client.write(piece);
            settle(5);
        }
        waitFor([&] { return !s.events.isEmpty(); });
        settle(5);
        s.client.write(body.mid(3000, 2000));
        s.client.write("GET /b HTTP/1.1\r\nHost: h\r\n\r\n");
        waitFor([&] { return s.events.size() >= 3; });
        EXPECT_TRUE(s.events
            == QStringList({QStringLiteral("PUT /a ") + QString::fromLatin1(body),
                QStringLiteral("PUT /n ") + QString::fromLatin1(body.left(5000)), QStringLiteral("GET /b ")}))
            << cut.name << ": " << s.events.size() << " events";
    }
}

// The place that was named for the rest of a body is nobody's once its connection is gone.
TEST(PlacedContent, ABodyMayBeGivenUpInTheMiddle)
{
    for (const bool bDelete : {false, true}) {
        Exchange x;
        x.ask();
        x.server.write("HTTP/1.1 200 OK\r\ncontent-length: 100000\r\n\r\n" + patterned(1000));
        ASSERT_TRUE(waitFor([&] { return x.events.size() == 1; }));
        x.server.write(patterned(50000));
        if (bDelete) {
            x.client.reset();
            settle();
            continue;
        }
        x.client->shutdown();
        x.ask();
        x.server.write("HTTP/1.1 200 OK\r\ncontent-length: 4\r\n\r\nab");
        settle(5);
        x.server.write("cd");
        x.expect({QStringLiteral("head1 200"), QStringLiteral("cancelled1"), QStringLiteral("head2 200"),
            QStringLiteral("done2 200 abcd")});
    }
}

TEST(PlacedContent, PartsAreTheSameInEveryFramingHoweverTheyAreCut)
{
    const QByteArray parts = "--b\r\ncontent-length: 30\r\n\r\n0123456789abcdefghijklmnopqrst\r\n"
                             "--b\r\ncontent-length: 0\r\n\r\n\r\n--b\r\n\r\nof no length\r\n"
                             "--b\r\ncontent-length: 2\r\n\r\nhi\r\n";
    QByteArray chunked;
    for (int at = 0; at < parts.size(); at += 17) {
        const QByteArray chunk = parts.mid(at, 17);
        chunked += QByteArray::number(chunk.size(), 16) + "\r\n" + chunk + "\r\n";
    }
    const QByteArray head = "HTTP/1.1 200 OK\r\ncontent-type: multipart/x-mixed-replace; boundary=b\r\n";
    const QByteArray streams[] = {
        head + "\r\n" + parts,
        head + "content-length: " + QByteArray::number(parts.size()) + "\r\n\r\n" + parts,
        head + "transfer-encoding: chunked\r\n\r\n" + chunked + "0\r\n\r\n",
    };
    for (const QByteArray& stream : streams) {
        const QByteArray expected = read(stream, stream.size(), false).log;
        ASSERT_TRUE(expected.contains("P(0123456789abcdefghijklmnopqrst) P() ")) << expected.constData();
        for (int piece = 1; piece < stream.size(); ++piece) {
            const Reading placed = read(stream, piece, true);
            ASSERT_EQ(placed.log, expected) << "in pieces of " << piece << " of " << stream.constData();
            ASSERT_TRUE(piece > 20 || placed.nPlaced > 0) << piece;
        }
    }
}

TEST(PlacedContent, MemoryGrowsWithWhatHasComeNotWithWhatIsAnnounced)
{
    ContentMemory memory;
    memory.expect(std::size_t{1} << 30);
    for (std::size_t come = 0; come < 20000000;) {
        const iovec room = memory.room(std::size_t{1} << 30);
        ASSERT_GT(room.iov_len, 0U);
        ASSERT_LE(room.iov_len, std::max<std::size_t>(1 << 20, come)) << "behind " << come;
        const std::size_t size = std::min<std::size_t>(room.iov_len, 100000);
        std::memset(room.iov_base, 'x', size);
        memory.grow(size);
        come += size;
        ASSERT_EQ(memory.size(), come);
    }
}
