// Every message whole, cut at every byte, and byte by byte: the same outcome each time.
#include "http/HttpMessageReader_p.h"

#include <KepNuvikaUtil/HttpResponseHeader.h>

#include <gtest/gtest.h>
#include <vector>

using namespace Nuvika;

namespace
{
// What a stream of answers is read as.
QByteArray readAll(const std::vector<QByteArray>& pieces, bool bEnd = true)
{
    using Event = HttpMessageReader::Event;
    HttpMessageReader reader;
    QByteArray log;
    QByteArray content;
    for (const QByteArray& piece : pieces) {
        reader.feed(piece.constData(), piece.size());
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
    if (bEnd)
        log += reader.endOfStream() ? "end" : "cut";
    return log;
}

void expectReads(const QByteArray& stream, const QByteArray& expected)
{
    EXPECT_EQ(readAll({stream}), expected) << stream.constData();
    for (int cut = 1; cut < stream.size(); ++cut)
        ASSERT_EQ(readAll({stream.left(cut), stream.mid(cut)}), expected)
            << "cut at " << cut << " of " << stream.constData();
    std::vector<QByteArray> bytes;
    for (int i = 0; i < stream.size(); ++i)
        bytes.push_back(stream.mid(i, 1));
    EXPECT_EQ(readAll(bytes), expected) << "byte by byte: " << stream.constData();
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
    HttpResponseHeader twice(200);
    twice.addValue(QStringLiteral("content-length"), QStringLiteral("1"));
    twice.addValue(QStringLiteral("content-length"), QStringLiteral("2"));
    EXPECT_TRUE(HttpBody::fromFields(twice, HttpBody::None).bInvalid);
}
