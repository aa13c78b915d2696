#include "rtsp/RtspTrackInput_p.h"
#include "support/Table.h"

#include <gtest/gtest.h>

#include <vector>

using namespace Nuvika;

TEST(RtspTrackInput, AnotherSourceReplacesOneThatHasFallenSilent)
{
    // Situation; t for TCP, ms that the first source plays, ms between its packets; packets behind that: ms,
    // source and number; of each whether it is dropped, taken, or the new source's (N; R, and the one
    // before).
    for (const auto& row : rowsOf(R"(
the first one flows; t 3000 40; 20 b1, 30 a1, 40 b2, 50 b3; . T . .
it is silent, and two in sequence come; t 3000 40; 120 b1, 130 b2, 140 b3, 150 a1; . R T .
one comes alone; t 3000 40; 120 b1, 300 a1, 310 b2, 320 b3; . T . .
two that are not in sequence; t 3000 40; 120 b1, 130 b3, 140 b2, 150 b1; . . . .
of two sources; t 3000 40; 120 b1, 130 c2, 140 b2; . . .
before it is silent for long enough; t 3000 40; 80 b1, 90 b2, 100 b3; . . R
it pauses for a second as a rule; t 9000 1000; 1500 b1, 1510 b2, 1999 b3, 2000 b4; . . . R
it is too young to have a pace; t 1500 40; 500 b1, 510 b2, 2000 b9; . . N
over UDP; u 3000 40; 500 b1, 510 b2, 1999 b3, 2000 b4; . . . N)")) {
        RtspTrack track;
        track.description.formats.append(SdpFormat());
        track.description.formats.first().payloadType = 96;
        RtspOptions options;
        options.bUnits = false;
        RtspTrackInput input(track, options);
        const QList<QByteArray> play = row[1].split(' ');
        if (play[0] == "t")
            input.setInterleaved();
        const auto admit = [&input](qint64 ms, char source, int number) {
            const unsigned char bytes[] = {0x80, 96, 0, static_cast<unsigned char>(number), 0, 0, 0, 0, 0, 0,
                0, static_cast<unsigned char>(source), 1};
            const auto verdict = input.admit(RTPPacket(bytes, sizeof bytes), ms * 1000);
            if (verdict != RtspTrackInput::Verdict::NewSource)
                return verdict == RtspTrackInput::Verdict::Taken ? 'T' : '.';
            input.beginSource(static_cast<quint32>(source));
            const QByteArray before = input.takeRival();
            return before.isEmpty() ? 'N' : before.at(3) == number - 1 ? 'R' : '!';
        };
        const qint64 end = play[1].toInt();
        for (qint64 ms = 0; ms <= end; ms += play[2].toInt())
            admit(ms, 'a', 0);
        QByteArray verdicts;
        for (const QByteArray& packet : row[2].split(',')) {
            const QList<QByteArray> each = packet.trimmed().split(' ');
            verdicts += admit(end + each[0].toInt(), each[1][0], each[1].mid(1).toInt());
            verdicts += ' ';
        }
        EXPECT_EQ(verdicts.trimmed().toStdString(), row[3].toStdString()) << row[0].constData();
    }
}
