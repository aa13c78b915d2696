#include "http/MultipartReader_p.h"

#include <gtest/gtest.h>

using namespace Nuvika;

namespace
{
struct Reading {
    QByteArray log;
    unsigned long long nLookedAt = 0;
    int nInPlace = 0; // parts handed out where they were received
};

Reading read(const QByteArray& boundary, const QByteArray& stream, int piece)
{
    using Event = MultipartReader::Event;
    MultipartReader reader;
    reader.start(boundary, HttpReadLimits());
    Reading result;
    for (int at = 0; at < stream.size(); at += piece) {
        const int size = qMin(piece, stream.size() - at);
        reader.feed(stream.constData() + at, std::size_t(size));
        for (Event event = reader.next(); event != Event::NeedMore; event = reader.next()) {
            if (event == Event::Failed)
                return result.log += "F", result;
            result.log
                += event == Event::Skipped ? "S " : "P(" + QByteArray(reader.data(), reader.size()) + ") ";
            result.nInPlace += reader.data() >= stream.constData() + at
                && reader.data() + reader.size() <= stream.constData() + at + size;
        }
    }
    result.nLookedAt = reader.bytesLookedAt();
    return result;
}
} // namespace

// Twice the input is twice the work at most, and no byte is looked at more often than a few times.
TEST(MultipartReader, LooksAtEachByteAFewTimesOnlyWhateverAPeerSends)
{
    const QByteArray part = "--b\r\n\r\n";
    const QByteArray longest(70, 'a');
    const struct {
        const char* what;
        QByteArray boundary, head, repeated;
    } inputs[] = {
        {"dashes", "b", "", "-"},
        {"dashes in a part", "b", part, "-"},
        {"lines of dashes in a part", "b", part, "--\n"},
        {"almost boundaries in a part", "b", part, "\r\n--a--"},
        {"almost the longest boundary", longest, "--" + longest + "\r\n\r\n", "--" + longest.left(69) + "\n"},
        {"a part of the longest boundary's character", longest, "--" + longest + "\r\n\r\n", "a"},
        {"short lines and the longest boundary", longest, "", "x\n"},
        {"empty lines", "b", "", "\r\n"},
        {"blanks in a part's head", "b", "--b\r\n", " "},
        {"short lines in a part's head", "b", "--b\r\n", "x:\n"},
        {"small parts without a length", "b", "", "--b\r\n\r\nx\r\n"},
        {"small parts with a length", "b", "", "--b\r\ncontent-length: 1\r\n\r\nx\r\n"},
        {"lines behind the last part", "b", "--b--\r\n", "--x\r\n"},
        {"boundaries of many dashes", "b", "", QByteArray(500, '-') + "b\r\n\r\n"},
        {"boundaries behind junk", "b", part + "--b--\r\n", "junk--b\r\n\r\n"},
    };
    constexpr int kSize = 1 << 16;
    for (const auto& input : inputs) {
        const QByteArray once = input.repeated.repeated(kSize / input.repeated.size());
        for (const int piece : {1, 7, 1500, 1 << 20}) {
            const Reading one = read(input.boundary, input.head + once, piece);
            const Reading two = read(input.boundary, input.head + once + once, piece);
            ASSERT_EQ(one.log.count('F'), 0) << input.what;
            EXPECT_GT(one.nLookedAt, unsigned(kSize) / 2) << input.what;
            EXPECT_LT(one.nLookedAt, 6U * kSize) << input.what << " in pieces of " << piece;
            EXPECT_LT(two.nLookedAt, one.nLookedAt * 21 / 10) << input.what << " in pieces of " << piece;
        }
    }
}

TEST(MultipartReader, RefusesBoundariesThatNobodyMayUse)
{
    for (const QByteArray& bad :
        {QByteArray(), QByteArray("--"), QByteArray(71, 'b'), QByteArray(1 << 20, '-')})
        EXPECT_EQ(read(bad, QByteArray(1000, '-') + "\r\n\r\n", 100).log, "F") << bad.left(80).constData();
    const QByteArray longest(70, 'b');
    EXPECT_EQ(read("----" + longest, "--" + longest + "\r\ncontent-length: 1\r\n\r\nx", 100).log, "P(x) ");
}

TEST(MultipartReader, ReadsPartsWithoutALengthHoweverTheyAreCut)
{
    const QByteArray stream
        = "--b\r\n\r\none\r\n--b\r\n\r\n-\r\n--\r\n--a\r\n\r\n-----b\r\n\r\n\r\n--b\r\n\r\nfour\n--b--\r\n";
    const QByteArray parts = "P(one) P(-\r\n--\r\n--a\r\n) P() P(four) ";
    for (int piece = 1; piece <= stream.size(); ++piece)
        EXPECT_EQ(read("b", stream, piece).log, parts) << "pieces of " << piece;
    EXPECT_EQ(read("b", stream, stream.size()).nInPlace, 4) << "nothing is copied that lies whole";
}

TEST(MultipartReader, FindsABoundaryBehindALongLineHoweverItIsCut)
{
    const QByteArray stream = QByteArray(5000, 'j') + "--b\r\ncontent-length: 1\r\n\r\nx";
    for (const int piece : {1, 2, 3, 999, 1000, 1027, 1028, 1029, 9000})
        EXPECT_TRUE(read("b", stream, piece).log.endsWith("P(x) ")) << "pieces of " << piece;
}
