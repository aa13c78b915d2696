#include "JpegPayload.h"

#include <QtCore/QtEndian>

#include <algorithm>
#include <array>

namespace
{
constexpr int kTableSize = 64;
constexpr char kTypeYuv420 = 1;
constexpr char kTablesInBand = static_cast<char>(255);

struct Picture {
    QByteArray tables; // luma, chroma; in zigzag order, as the file has them
    int width = 0;
    int height = 0;
    QByteArray scan; // entropy-coded, without the end marker
};

// Reads the segments that matter; the codes of the entropy coder are the standard's own.
bool read(const QByteArray& jpeg, Picture* picture)
{
    const auto* data = reinterpret_cast<const unsigned char*>(jpeg.constData());
    const int size = jpeg.size();
    std::array<QByteArray, 2> tables;
    for (int at = 2; at + 4 <= size && data[at] == 0xFF;) {
        const int marker = data[at + 1];
        const int length = qFromBigEndian<quint16>(data + at + 2);
        const unsigned char* body = data + at + 4;
        if (length < 2 || at + 2 + length > size)
            return false;
        if (marker == 0xDB) { // quantisation tables
            for (int i = 0; i + 1 + kTableSize <= length - 2; i += 1 + kTableSize) {
                if (body[i] > 1)
                    return false;
                tables[body[i]] = jpeg.mid(at + 4 + i + 1, kTableSize);
            }
        } else if (marker == 0xC0 && length >= 17) { // baseline, three components
            picture->height = qFromBigEndian<quint16>(body + 1);
            picture->width = qFromBigEndian<quint16>(body + 3);
            if (body[5] != 3 || body[7] != 0x22)
                return false;
        } else if (marker == 0xDA) {
            picture->scan = jpeg.mid(at + 2 + length, size - (at + 2 + length) - 2);
            picture->tables = tables[0] + tables[1];
            return picture->tables.size() == 2 * kTableSize && picture->width > 0;
        }
        at += 2 + length;
    }
    return false;
}
} // namespace

std::vector<QByteArray> jpegPayloads(const QByteArray& jpeg, int maxSize)
{
    Picture picture;
    if (!read(jpeg, &picture))
        return {};
    std::vector<QByteArray> payloads;
    for (int offset = 0; offset < picture.scan.size();) {
        QByteArray payload(4, '\0');
        qToBigEndian<quint32>(static_cast<quint32>(offset), payload.data()); // 24 bits, behind a type of 0
        payload += kTypeYuv420;
        payload += kTablesInBand;
        payload += static_cast<char>(picture.width / 8);
        payload += static_cast<char>(picture.height / 8);
        if (offset == 0) {
            const char tableHead[] = {0, 0, 0, static_cast<char>(picture.tables.size())};
            payload += QByteArray(tableHead, sizeof tableHead) + picture.tables;
        }
        const int step = std::min(maxSize - payload.size(), picture.scan.size() - offset);
        payload += picture.scan.mid(offset, step);
        payloads.push_back(payload);
        offset += step;
    }
    return payloads;
}
