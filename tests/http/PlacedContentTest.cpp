// Parts that are received right into their own memory: the same outcome as from a buffer, however they are
// cut.
#include "http/ContentMemory_p.h"
#include "http/HttpMessageReader_p.h"

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
} // namespace

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
