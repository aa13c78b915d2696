#include "media/JpegHead_p.h"

#include <algorithm>
#include <iterator>

using Nuvika::JpegHead;

namespace
{
// T.81, tables K.1 and K.2 in zigzag order. Of the second one all that is missing is 99.
constexpr unsigned char kLuma[] = {16, 11, 12, 14, 12, 10, 16, 14, 13, 14, 18, 17, 16, 19, 24, 40, 26, 24, 22,
    22, 24, 49, 35, 37, 29, 40, 58, 51, 61, 60, 57, 51, 56, 55, 64, 72, 92, 78, 64, 68, 87, 69, 55, 56, 80,
    109, 81, 87, 95, 98, 103, 104, 103, 62, 77, 113, 121, 112, 100, 120, 92, 101, 103, 99};
constexpr unsigned char kChroma[] = {17, 18, 18, 24, 21, 24, 47, 26, 26, 47, 99, 66, 56, 66};
constexpr unsigned char kChromaRest = 99;
constexpr int kTable = 64;

// T.81, tables K.3 to K.6: class and number, how many codes there are of each length, and their values.
constexpr const char* kHuffman[] = {
    "0000010501010101010100000000000000"
    "000102030405060708090a0b",
    "100002010303020403050504040000017d"
    "0102030004110512213141061351610722711432"
    "8191a1082342b1c11552d1f02433627282090a161718191a25262728292a3435"
    "363738393a434445464748494a535455565758595a636465666768696a737475767778797a838485868788898a92939495969798"
    "999aa2a3a4a5a6a7a8a9aab2b3b4b5b6b7b8b9bac2c3c4c5c6c7c8c9cad2d3d4d5d6d7d8d9dae1e2e3e4e5e6e7e8e9eaf1f2f3f4"
    "f5f6f7f8f9fa",
    "0100030101010101010101010000000000"
    "000102030405060708090a0b",
    "1100020102040403040705040400010277"
    "0001020311040521310612415107617113223281081442"
    "91a1b1c109233352f0156272d10a162434e125f11718191a262728292a"
    "35363738393a434445464748494a535455565758595a636465666768696a737475767778797a82838485868788898a9293949596"
    "9798999aa2a3a4a5a6a7a8a9aab2b3b4b5b6b7b8b9bac2c3c4c5c6c7c8c9cad2d3d4d5d6d7d8d9dae2e3e4e5e6e7e8e9eaf2f3f4"
    "f5f6f7f8f9fa",
};

void segment(QByteArray* out, unsigned char marker, const QByteArray& content)
{
    const int length = content.size() + 2;
    out->append('\xFF').append(static_cast<char>(marker));
    out->append(static_cast<char>(length >> 8)).append(static_cast<char>(length));
    out->append(content);
}

QByteArray huffmanTables()
{
    QByteArray tables;
    for (const char* table : kHuffman)
        tables += QByteArray::fromHex(table);
    return tables;
}

// One table serves both where only one came.
QByteArray quantization(const JpegHead& head)
{
    QByteArray content;
    int from = 0;
    for (int i = 0; i < 2; ++i) {
        const bool bWide = ((head.wideTables >> i) & 1U) != 0;
        const int size = bWide ? 2 * kTable : kTable;
        from = from + size > head.tables.size() ? 0 : from;
        content.append(static_cast<char>((bWide ? 0x10 : 0) | i));
        content.append(head.tables.mid(from, size).leftJustified(size, 1));
        from += size;
    }
    return content;
}
} // namespace

QByteArray Nuvika::jpegTables(unsigned int quality)
{
    const unsigned int q = std::clamp(quality, 1U, 99U);
    const unsigned int scale = q < 50 ? 5000 / q : 200 - 2 * q;
    QByteArray tables;
    for (int i = 0; i < 2 * kTable; ++i) {
        const int at = i % kTable;
        const int chroma = at < static_cast<int>(std::size(kChroma)) ? kChroma[at] : kChromaRest;
        const auto base = static_cast<unsigned int>(i < kTable ? kLuma[at] : chroma);
        tables.append(static_cast<char>(std::clamp((base * scale + 50) / 100, 1U, 255U)));
    }
    return tables;
}

QByteArray Nuvika::jpegHead(const JpegHead& head)
{
    static const QByteArray s_huffman = huffmanTables();
    const char interval[]
        = {static_cast<char>(head.restartInterval >> 8), static_cast<char>(head.restartInterval)};
    const char size[] = {static_cast<char>(head.size.height() >> 8), static_cast<char>(head.size.height()),
        static_cast<char>(head.size.width() >> 8), static_cast<char>(head.size.width())};
    QByteArray out("\xFF\xD8", 2);
    segment(&out, 0xDB, quantization(head));
    if (head.restartInterval != 0)
        segment(&out, 0xDD, QByteArray(interval, 2));
    segment(&out, 0xC0,
        QByteArray(1, 8) + QByteArray(size, 4) + QByteArray("\x03\x01", 2)
            + (head.sampling == 0 ? '\x21' : '\x22') + QByteArray("\0\x02\x11\x01\x03\x11\x01", 7));
    segment(&out, 0xC4, s_huffman);
    segment(&out, 0xDA, QByteArray("\x03\x01\0\x02\x11\x03\x11\0\x3F\0", 10));
    return out;
}
