#include "rtsp/RtspMessageReader_p.h"
#include "rtsp/ScriptedCamera.h"
#include "support/CpuTime.h"

using namespace Nuvika;

namespace
{
QByteArray packet(int channel, int size)
{
    return framed(channel, QByteArray(1, '\x80') + QByteArray(size - 1, 'x'));
}

struct Reading {
    QByteArray log; // P<channel>:<size> | M<status>:<body> | F
    quint64 strays = 0;
    int inPlace = 0;
    bool bWhole = true; // every packet ended as it was sent
};

// In pieces of that size, with the first `cut` bytes by themselves.
Reading readAll(const QByteArray& stream, int cut, int piece, bool bDescription = false)
{
    using Event = RtspMessageReader::Event;
    RtspMessageReader reader;
    RtspMessageReader::Channels channels;
    channels.set(0).set(1);
    reader.setChannels(channels);
    reader.awaitDescription(bDescription);
    Reading reading;
    for (int at = 0; at < stream.size();) {
        const int n = at < cut ? cut : piece;
        const QByteArray bytes = stream.mid(at, n);
        at += bytes.size();
        reader.feed(bytes.constData(), bytes.size());
        for (Event event = reader.next(); event != Event::NeedMore; event = reader.next()) {
            if (event == Event::Failed) {
                reading.log += "F " + reader.problem().toLatin1();
                return reading;
            }
            if (event == Event::Packet) {
                reading.log += 'P' + QByteArray::number(reader.channel()) + ':'
                    + QByteArray::number(reader.size()) + ' ';
                reading.bWhole = reading.bWhole
                    && QByteArray(reader.data(), reader.size()).endsWith(reader.size() > 1 ? "x" : "");
                reading.inPlace += reader.memory().isNull() ? 1 : 0;
                EXPECT_TRUE(reader.memory().isNull() || reader.memory().capacity() <= reader.size() + 64)
                    << "joined in memory of its size";
            } else {
                const RtspHead& head = reader.head();
                reading.log += 'M' + QByteArray::number(head.status()) + '#' + QByteArray::number(head.cseq())
                    + ':' + reader.body() + ' ';
            }
        }
    }
    reading.strays = reader.strayBytes();
    return reading;
}

const QByteArray kOk = "RTSP/1.0 200 OK\r\nCSeq: 1\r\n\r\n";
} // namespace

TEST(RtspReader, ReadsTheSameHoweverItIsCut)
{
    struct Row {
        const char* name;
        QByteArray stream;
        const char* log;
        quint64 strays = 0;
    };
    const Row rows[] = {
        {"an answer and packets", kOk + packet(0, 100) + packet(1, 8), "M200#1: P0:100 P1:8 "},
        {"small packets", packet(0, 1) + packet(0, 2) + packet(1, 30) + kOk, "P0:1 P0:2 P1:30 M200#1: "},
        {"an empty packet", QByteArray("$\0\0\0", 4) + kOk, "P0:0 M200#1: "},
        {"channels that nobody set up", packet(9, 40) + packet(0, 12), "P9:40 P0:12 "},
        {"a body", "RTSP/1.0 200 OK\r\nCSeq: 2\r\nContent-Length: 5\r\n\r\nv=0\r\n" + kOk,
            "M200#2:v=0\r\n M200#1: "},
        {"bare line feeds", "RTSP/1.0 200 OK\nCSeq: 3\nContent-Length: 2\n\nab" + packet(0, 12),
            "M200#3:ab P0:12 "},
        {"no reason phrase", "RTSP/1.0 200\r\nCSeq:4\r\n\r\n", "M200#4: "},
        {"names in any case and blanks behind them",
            "RTSP/1.0 404 Not Found\r\nCseq : 5 \r\ncontent-length : 1\r\n\r\nx", "M404#5:x "},
        {"a number that is missing", "RTSP/1.0 200 OK\r\n\r\n", "M200#-1: "},
        {"lines that are no field", "RTSP/1.0 200 OK\r\nwhat is this\r\nCSeq: 6\r\n\r\n", "M200#6: "},
        {"line ends in front of packets and answers", "\r\n" + packet(0, 12) + "\r\n\n" + kOk + "\r\n",
            "P0:12 M200#1: "},
        {"packets between the lines of an answer",
            "RTSP/1.0 200 OK\r\n" + packet(0, 50) + packet(1, 8) + "CSeq: 7\r\n" + packet(0, 12) + "\r\n"
                + packet(0, 13),
            "P0:50 P1:8 P0:12 M200#7: P0:13 "},
        {"strays in front of an answer", "hello" + kOk, "M200#1: ", 5},
        {"strays behind a packet that lies about its length", packet(0, 20) + "zz\x01\xFF" + kOk,
            "P0:20 M200#1: ", 4},
        {"a '$' among strays that begins nothing", "~$\x05\x01\x01~$" + kOk, "M200#1: ", 7},
        {"a packet among strays", "~~~" + packet(1, 12) + kOk, "P1:12 M200#1: ", 3},
        {"a first line that is none", "RTSP/x\r\n\r\n" + kOk, "M200#1: ", 10},
        {"a length that is none",
            "RTSP/1.0 200 OK\r\nCSeq: 1\r\nContent-Length: many\r\n\r\n" + packet(0, 12), "M200#1: P0:12 "},
    };
    for (const Row& row : rows) {
        const QByteArray& stream = row.stream;
        const auto check = [&row](const Reading& reading, int cut) {
            EXPECT_EQ(reading.log, row.log) << row.name << ", cut at " << cut;
            EXPECT_TRUE(reading.bWhole) << row.name;
            EXPECT_EQ(reading.strays, row.strays) << row.name << ", cut at " << cut;
        };
        for (int cut = 1; cut <= stream.size(); ++cut)
            check(readAll(stream, cut, stream.size()), cut);
        check(readAll(stream, 1, 1), 0);
    }
}

TEST(RtspReader, ShowsWholePacketsWhereTheyLie)
{
    const QByteArray two = packet(0, 1400) + packet(0, 1400);
    EXPECT_EQ(readAll(two, two.size(), 1).inPlace, 2);
    EXPECT_EQ(readAll(two, 1500, two.size()).inPlace, 1) << "only the one that is cut is copied";
}

TEST(RtspReader, GivesADescriptionWhatStandsBehindItsBody)
{
    const QByteArray description
        = "RTSP/1.0 200 OK\r\nCSeq: 1\r\nContent-Length: 5\r\n\r\nv=0\r\nm=audio 0 RTP/AVP 0\r\n";
    EXPECT_EQ(readAll(description + packet(0, 12), 1000, 1, true).log,
        "M200#1:v=0\r\nm=audio 0 RTP/AVP 0\r\n P0:12 ");
    EXPECT_EQ(
        readAll(description + kOk, 1000, 1, true).log, "M200#1:v=0\r\nm=audio 0 RTP/AVP 0\r\n M200#1: ");
    EXPECT_EQ(readAll(description, 1000, 1, false).log, "M200#1:v=0\r\n ") << "no other answer";
}

TEST(RtspReader, FailsAtItsBoundsAndSaysWhere)
{
    struct Row {
        const char* name;
        QByteArray stream;
        const char* problem;
    };
    const Row rows[] = {
        {"endless head", "RTSP/1.0 200 OK\r\n" + QByteArray("X: y\r\n").repeated(20000),
            "F a head of more than 65536 bytes (byte 65"},
        {"endless line", "RTSP/1.0 200 OK\r\nX: " + QByteArray(100000, 'y'),
            "F a head of more than 65536 bytes"},
        {"a body too large", "RTSP/1.0 200 OK\r\nContent-Length: 1048577\r\n\r\n",
            "F a body of 1048577 bytes, of which 1048576 may be"},
        {"a body of any size", "RTSP/1.0 200 OK\r\nContent-Length: 99999999999999999999\r\n\r\n",
            "F a body of 999999999999999 bytes"},
        {"strays without end", QByteArray((1 << 20) + 10, 'z'),
            "F more than 1048576 bytes that are neither RTSP nor packets (byte 1048577)"},
        {"heads that are none, without end", QByteArray("RTSP/x\r\n\r\n").repeated(105000),
            "F more than 1048576 bytes"},
    };
    for (const Row& row : rows) {
        for (const int piece : {1 << 21, 1000})
            EXPECT_TRUE(readAll(row.stream, piece, piece).log.startsWith(row.problem))
                << row.name << ": " << readAll(row.stream, piece, piece).log.constData();
    }
}

TEST(RtspReader, IsLinearWhateverComes)
{
    const QByteArray rows[] = {QByteArray("$\0\0\x04x$$R", 8).repeated(130000),
        QByteArray("RTSP").repeated(250000), QByteArray("~$\0\xFF\xFF\x80", 6).repeated(170000),
        QByteArray("RTSP/1.0 2\n\n").repeated(80000), QByteArray("ABCDEFGHIJKLMNOPQRSTUVW").repeated(40000)};
    for (const QByteArray& stream : rows) {
        const qint64 begin = cpuTimeNs();
        readAll(stream, stream.size(), stream.size());
        readAll(stream, 1, 1);
        EXPECT_LT(cpuTimeNs() - begin, 3000000000) << stream.left(12).toHex().constData();
    }
}
