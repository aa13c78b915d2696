// Private: the head of a JPEG picture (ITU-T T.81, annex B) of what RTP says of it (RFC 2435, appendices A
// and B).
#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QSize>

namespace Nuvika
{
struct JpegHead {
    QSize size;
    int sampling = 0; // the type of RFC 2435: 0 is 4:2:2, 1 is 4:2:0
    quint32 restartInterval = 0; // in blocks; 0: none
    QByteArray tables; // quantization, luma and chroma in zigzag order
    quint32 wideTables = 0; // a bit for each table with values of 16 bits
};

// Up to where the scan begins.
QByteArray jpegHead(const JpegHead& head);
// The two tables of a quality from 1 to 99; others are taken for the nearest.
QByteArray jpegTables(unsigned int quality);
} // namespace Nuvika
