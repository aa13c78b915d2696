// Every message whole, cut at every byte, and byte by byte, from a buffer and received where it belongs: the
// same outcome each time.
#include "http/CollectedContent_p.h"
#include "http/ContentMemory_p.h"
#include "http/HttpMessageReader_p.h"

#include <KepNuvikaUtil/HttpResponseHeader.h>

#include <cstring>
#include <gtest/gtest.h>
#include <vector>

using namespace Nuvika;

namespace
{
long long g_nPlaced = 0; // bytes of parts that were received where they belong

// What a stream of answers is read as.
QByteArray readAll(const std::vector<QByteArray>& pieces, bool bPlace = false)
{
    using Event = HttpMessageReader::Event;
    HttpMessageReader reader;
    QByteArray log;
    QByteArray content;
    for (const QByteArray& piece : pieces) {
        const iovec target = bPlace ? reader.partTarget() : iovec{};
        const int placed = int(std::min(target.iov_len, std::size_t(piece.size())));
        if (placed > 0) {
            std::memcpy(target.iov_base, piece.constData(), std::size_t(placed));
            reader.partPlaced(std::size_t(placed));
            g_nPlaced += placed;
        }
        reader.feed(piece.constData() + placed, piece.size() - placed);
        for (Event event = reader.next(); event != Event::NeedMore; event = reader.next()) {
            if (event == Event::Head) {
                const auto header = HttpResponseHeader::fromBytes(reader.data(), reader.size());
                HttpBody body = HttpBody::fromFields(header, HttpBody::UntilEnd);
                body.detectMultipart(header);
                log += "H" + QByteArray::number(header.statusCode()) + (header.isValid() ? " " : "! ");
                reader.setBody(header.statusCode() == 204 ? HttpBody() : body);
            } else if (event == Event::Content) {
                content.append(reader.data(), reader.size());
            } else if (event == Event::Part) {
                log += "P(" + QByteArray(reader.contentType()) + "|"
                    + QByteArray(reader.data(), reader.size()) + ") ";
            } else if (event == Event::PartSkipped) {
                log += "S ";
            } else {
                log += content.isEmpty() ? QByteArray() : "C(" + content + ") ";
                content.clear();
                log += event == Event::End ? "E " : "F ";
                if (event == Event::Failed)
                    return log;
            }
        }
    }
    if (!content.isEmpty())
        log += "C(" + content + ") ";
    return log + (reader.endOfStream() ? "end" : "cut");
}

void expectReads(const QByteArray& stream, const QByteArray& expected)
{
    std::vector<QByteArray> bytes;
    for (int i = 0; i < stream.size(); ++i)
        bytes.push_back(stream.mid(i, 1));
    for (const bool bPlace : {false, true}) {
        for (int cut = 0; cut < stream.size(); ++cut)
            ASSERT_EQ(readAll({stream.left(cut), stream.mid(cut)}, bPlace), expected)
                << "cut at " << cut << " of " << stream.constData();
        EXPECT_EQ(readAll(bytes, bPlace), expected) << "byte by byte: " << stream.constData();
    }
}

const QByteArray kOk = "HTTP/1.1 200 OK\r\n";
const QByteArray kMixed = "content-type: multipart/x-mixed-replace; boundary=";
} // namespace

TEST(HttpMessageReader, ReadsEveryFraming)
{
    expectReads(kOk + "Content-Length: 3\r\n\r\nabc\r\nHTTP/1.1 204 No\r\n\r\nHTTP/1.1 200 OK\n\nrest",
        "H200 C(abc) E H204 E H200 C(rest) end");
    expectReads(kOk + "content-length: 0\r\n\r\n", "H200 E cut");
    expectReads(
        kOk + "Transfer-Encoding: chunked\r\n\r\n4;ext=1\r\nwiki\r\n 3 \r\npe.\r\n0\r\nTrailer: x\r\n\r\n",
        "H200 C(wikipe.) E cut");
    expectReads(
        kOk + "transfer-encoding: chunked\r\n\r\n00000A\r\n0123456789\r\n0\r\n", "H200 C(0123456789) end");
    expectReads(
        kOk + "transfer-encoding: chunked\r\ncontent-length: 1\r\n\r\n2\nab\n0\n\n", "H200 C(ab) E cut");
    expectReads("HTTP/1.1 200 OK\nA: 1\n\r\nbody", "H200 C(body) end");
    expectReads(kOk + "content-length: 9\r\n\r\nshort", "H200 C(short) cut");
    for (const char* coding : {"Chunked", "identity, chunked", "gzip,CHUNKED"}) { // would wait for ever else
        expectReads(
            kOk + "Transfer-Encoding: " + coding + "\r\n\r\n3\r\nabc\r\n0\r\n\r\n", "H200 C(abc) E cut");
        expectReads(
            kOk + "content-length: 2\r\nTransfer-Encoding: " + coding + "\r\n\r\nab", "H200 C(ab) E cut");
    }
}

TEST(HttpMessageReader, ReadsMultipartAsCamerasSendIt)
{
    const QByteArray sized
        = "--b\r\nContent-Type: image/jpeg\r\nCONTENT-LENGTH :  4\r\nX: y\r\n\r\n\r\n--\r\n--b\r\n"
          "content-length:2\r\n\r\nhi\r\n--b--\r\nepilogue\r\n";
    const QByteArray sizedParts = "H200 P(image/jpeg|\r\n--) P(|hi) cut";
    for (const QByteArray& boundary :
        {QByteArray("b"), QByteArray("\"b\""), QByteArray("--b"), QByteArray("b; x=1")})
        expectReads(kOk + kMixed + boundary + "\r\n\r\n" + sized, sizedParts);
    expectReads(kOk + kMixed + "--b\r\n\r\n----b\r\ncontent-length: 1\r\n\r\nx", "H200 P(|x) cut");
    expectReads(kOk + kMixed
            + "b\r\n\r\n\r\n--b\r\nContent-type:text/"
              "plain\r\n\r\nno\r\nlength--b\r\n\r\n--b\r\n\r\n\r\n--b\r\n",
        "H200 P(text/plain|no\r\nlength--b\r\n) P(|) cut");
    expectReads(kOk + kMixed
            + "b\r\n\r\nwhat is\nthis?\n--b\r\ncontent-length: 0\r\n\r\njunk without "
              "end--b\r\ncontent-length: 1\r\n\r\nx",
        "H200 S P(|) P(|x) cut");
    expectReads(kOk + "transfer-encoding: chunked\r\n" + kMixed
            + "b\r\n\r\n7\r\n--b\r\nco\r\n15\r\nntent-length: 3\r\n\r\nab\r\n"
            + "f\r\nc\r\n--b\r\ncontent\r\n10\r\n-length: 1\r\n\r\nz\r\n0\r\n\r\n",
        "H200 P(|abc) P(|z) E cut");
    g_nPlaced = 0;
    const QByteArray part = "--b\r\ncontent-length: 30\r\n\r\n0123456789abcdefghijklmnopqrst\r\n";
    expectReads(kOk + "content-length: 118\r\n" + kMixed + "b\r\n\r\n" + part + part,
        "H200 P(|0123456789abcdefghijklmnopqrst) P(|0123456789abcdefghijklmnopqrst) E cut");
    EXPECT_GT(g_nPlaced, 500);
}

TEST(HttpMessageReader, RefusesWhatIsHostile)
{
    const QByteArray chunked = kOk + "transfer-encoding: chunked\r\n\r\n";
    for (const char* bad :
        {"\r\n", "g\r\n", "-1\r\n", "80000000\r\n", "ffffffffffffffffff\r\n", "1\r\nab\r\n"})
        EXPECT_TRUE(readAll({chunked + bad}).contains("F ")) << bad;
    EXPECT_TRUE(readAll({chunked + QByteArray(5000, '1')}).endsWith("F "))
        << "a chunk-size line that never ends";
    EXPECT_TRUE(readAll({kOk + QByteArray(1100000, 'x')}).endsWith("F ")) << "a head over its limit";
    const QByteArray mixed = kOk + kMixed + "b\r\n\r\n--b\r\n";
    for (const char* bad : {"content-length: -1\r\n", "content-length: 1x\r\n",
             "content-length: 99999999999999999999\r\n", "content-length: 67108865\r\n"})
        EXPECT_TRUE(readAll({mixed + bad + "\r\n"}).endsWith("F ")) << bad;
    EXPECT_TRUE(readAll({mixed + QByteArray(1100000, 'h')}).endsWith("F ")) << "a part head over its limit";
    for (const char* bad : {"-1", "2147483648", "12a", "", "+5"}) {
        HttpResponseHeader header(200);
        header.setValue(QStringLiteral("content-length"), QString::fromLatin1(bad));
        EXPECT_TRUE(HttpBody::fromFields(header, HttpBody::None).bInvalid) << bad;
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
    const char whole[] = "1234";
    content.begin(4, 10);
    EXPECT_TRUE(content.add(whole, 4) && content.data() == whole) << "what comes whole is not copied";
}

TEST(PlacedContent, AReaderThatWasResetClaimsNothingForTheBodyBefore)
{
    HttpMessageReader reader;
    reader.setBody(HttpBody{HttpBody::UntilEnd, 0, true, "b", false, false});
    const QByteArray half = "--b\r\ncontent-length: 100\r\n\r\nhalf";
    reader.feed(half.constData(), half.size());
    ASSERT_EQ(reader.next(), HttpMessageReader::Event::NeedMore);
    ASSERT_EQ(reader.partTarget().iov_len, 96U);
    reader.reset();
    reader.setBody(HttpBody{HttpBody::Length, 50, false, {}, false, false});
    EXPECT_EQ(reader.partTarget().iov_len, 0U);
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
