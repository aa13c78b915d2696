#include "support/Table.h"

#include <KepNuvikaUtil/SdpDescription.h>

#include <QtCore/QFile>
#include <QtCore/QTextStream>

#include <gtest/gtest.h>

namespace
{
QString text(const char* latin) { return QString::fromLatin1(latin); }

QString told(const SdpMedia& media)
{
    QString out;
    QTextStream stream(&out);
    stream << media.type << ' ' << media.port << ' ' << media.transport;
    for (const SdpFormat& format : media.formats) {
        stream << ' ' << format.payloadType << ':' << format.encoding << '/' << format.clockRate << '/'
               << format.channels;
        for (const SdpParameter& parameter : format.parameters)
            stream << ';' << parameter.key << '=' << parameter.value;
        if (format.width > 0)
            stream << ' ' << format.width << 'x' << format.height;
    }
    return out;
}
} // namespace

TEST(SdpDescription, SaysWhatPayloadTypesMean)
{
    for (const auto& row : rowsOf(R"(
as it should be | m=video 0 RTP/AVP 96\na=rtpmap:96 H264/90000\na=fmtp:96 packetization-mode=1; profile-level-id=4D0029;sprop-parameter-sets=Z00A==,aO4= | video 0 RTP/AVP 96:H264/90000/1;packetization-mode=1;profile-level-id=4D0029;sprop-parameter-sets=Z00A==,aO4=
lower case, blanks around | m=video 0 RTP/AVP 96 \na=rtpmap: 96   h264/90000   | video 0 RTP/AVP 96:H264/90000/1
no clock rate | m=video 0 RTP/AVP 96\na=rtpmap:96 H265 | video 0 RTP/AVP 96:H265/90000/1
no clock rate of a known sound | m=audio 0 RTP/AVP 97 98\na=rtpmap:97 opus\na=rtpmap:98 x/ | audio 0 RTP/AVP 97:OPUS/48000/1 98:X/8000/1
static types | m=audio 5 RTP/AVP 0 8 9 10 26 | audio 5 RTP/AVP 0:PCMU/8000/1 8:PCMA/8000/1 9:G722/8000/1 10:L16/44100/2 26:JPEG/90000/1
rtpmap wins over the static table | m=video 0 RTP/AVP 35 0\na=rtpmap:35 H264/90000\na=rtpmap:0 MPEG4-GENERIC/16000/2 | video 0 RTP/AVP 35:H264/90000/1 0:MPEG4-GENERIC/16000/2
a type that nobody explains | m=video 0 RTP/AVP 99 | video 0 RTP/AVP 99:/0/1
parameters: keys in any case, empty ones, a trailing semicolon, before the rtpmap | m=audio 0 RTP/AVP 97\na=fmtp:97 ;SizeLength = 13;;Mode=AAC-hbr; cbr ;\na=fmtp:97\na=rtpmap:97 mpeg4-generic/8000/1 | audio 0 RTP/AVP 97:MPEG4-GENERIC/8000/1;sizelength=13;mode=AAC-hbr;cbr=
sizes | m=video 0 RTP/AVP 96 97\na=framesize:96 1280-720\na=framesize:97 0-7 | video 0 RTP/AVP 96:/0/1 1280x720 97:/0/1
sizes of another maker | m=video 0 RTP/AVP 26\na=x-dimensions:640, 480 | video 0 RTP/AVP 26:JPEG/90000/1 640x480
a format that is no payload type | m=application/TP-LINK 0 RTP/AVP smart/1/90000 | application/TP-LINK 0 RTP/AVP -1:/0/1
other media | m=metadata 0 RTP/AVP 107\na=rtpmap:107 vnd.onvif.metadata/90000 | metadata 0 RTP/AVP 107:VND.ONVIF.METADATA/90000/1
formats only in the attributes | m=video\na=rtpmap:96 H264/90000\na=fmtp:96 a=b | video 0  96:H264/90000/1;a=b
attributes of types that are not listed | m=video 0 RTP/AVP 96\na=rtpmap:97 H264/90000\na=rtpmap:96 H265/90000\na=rtpmap:96 JPEG/1 | video 0 RTP/AVP 96:H265/90000/1
numbers out of range | m=audio 99999999999 RTP/AVP 128 1234567890123\na=rtpmap:128 a/99999999999/0 | audio 0 RTP/AVP -1:/0/1 -1:/0/1
a port and a count | m=video 49170/2 RTP/AVP 31 | video 49170 RTP/AVP 31:H261/90000/1)",
             '|')) {
        for (const char* end : {"\n", "\r\n", "\r"}) {
            const QByteArray text = "v=0\\n" + row[1];
            const SdpDescription read = SdpDescription::read(QByteArray(text).replace("\\n", end));
            ASSERT_EQ(read.media.size(), 1) << row[0].constData();
            EXPECT_EQ(told(read.media[0]).toStdString(), row[2].toStdString()) << row[0].constData();
            EXPECT_FALSE(read.bCut);
        }
    }
}

TEST(SdpDescription, ReadsAddressesOfEveryForm)
{
    // Lines; address, time to live, whether it is a group.
    for (const auto& row : rowsOf(R"(
c=IN IP4 10.0.0.1 | 10.0.0.1 -1 0
c=IN | -1 0
c=In IP4 239.1.2.3/127 | 239.1.2.3 127 1
c=IN 10.0.0.1 | 10.0.0.1 -1 0
c=IN IPV4 | IPV4 -1 0
c=IN\nc=IN IP4 224.0.1.9/1/3 | 224.0.1.9 1 1
c=IN IP4 10.0.0.1 10.0.0.2\nc=IN IP4 10.0.0.3 | 10.0.0.1 -1 0
c=IN IP6 FF15::101/3 | FF15::101 -1 1
c=IN IP4 240.0.0.1/5 | 240.0.0.1 -1 0
c=IN IP4 camera.example | camera.example -1 0)",
             '|')) {
        const QByteArray media("m=video 0 RTP/AVP 96\n");
        const QByteArray lines = QByteArray(row[0]).replace("\\n", "\n") + " \n";
        for (const QByteArray& whole : {lines + media, media + lines}) {
            const SdpConnection c = SdpDescription::read(whole).media[0].connection;
            const QString told = text("%1 %2 %3").arg(c.address).arg(c.ttl).arg(int(c.bMulticast)).trimmed();
            EXPECT_EQ(told.toStdString(), row[1].toStdString()) << whole.constData();
        }
    }
}

TEST(SdpDescription, KeepsEveryLineInItsOrderAndNeedsNone)
{
    const SdpDescription read = SdpDescription::read(
        "a=tool:x\nnonsense\nt=now-\no=- 0x1f -2 1/3 IN IPV4 0\n=\na=range:npt=0-\na=control:*\nv=0\n"
        "m=video 0 RTP/AVP 96\na=Control:track1\na=framerate:25.5\nb=AS:0\na=recvonly\na=range:clock=x\n"
        "m=audio 0 RTP/AVP 0\n");
    QString order;
    for (const SdpLine& line : read.lines)
        order += QLatin1Char(line.type);
    EXPECT_EQ(order, text("atoaav")) << "the session's";
    EXPECT_EQ(read.lines[1].value, text("now-"));
    EXPECT_EQ(read.attribute(text("range")), text("npt=0-"));
    EXPECT_EQ(read.attribute(text("rang")), QString());
    ASSERT_EQ(read.media.size(), 2);
    EXPECT_EQ(read.media[0].lines.size(), 6);
    EXPECT_EQ(read.media[0].attribute(text("Range")), text("clock=x"));
    EXPECT_EQ(read.media[0].control, text("track1"));
    EXPECT_EQ(read.media[0].frameRate, 25.5);
    EXPECT_EQ(read.media[1].format(0)->encoding, text("PCMU"));
    EXPECT_EQ(read.media[1].format(-1), nullptr);
    EXPECT_TRUE(SdpDescription::read(QByteArray()).media.isEmpty());
    EXPECT_TRUE(SdpDescription::read(QByteArray("\0\xFF=\n\xC3\xA4=a\nm", 10)).lines.isEmpty());
}

TEST(SdpDescription, TellsDirectionsAndUrls)
{
    const auto tracks = [](const char* lines) {
        const SdpDescription read = SdpDescription::read(lines);
        QString out;
        for (int i = -1; i <= read.media.size(); ++i)
            out += read.isForClient(i) ? QLatin1Char('+') : QLatin1Char('-');
        return out;
    };
    EXPECT_EQ(tracks("m=video 0\na=recvonly\nm=audio 0\na=sendonly\nm=audio 0"), text("-+-+-"));
    EXPECT_EQ(tracks("a=SendOnly\nm=video 0\nm=audio 0"), text("-++-")) << "all say so";
    EXPECT_EQ(tracks("a=sendonly\nm=video 0\na=inactive\nm=audio 0"), text("-+--"));

    // Base | session's control | track's control | URL.
    for (const auto& row : rowsOf(R"(
rtsp://h/live | * | track1 | rtsp://h/live/track1
rtsp://h/live/ | | track1 | rtsp://h/live/track1
rtsp://h/live/ | * | /track1 | rtsp://h/live/track1
rtsp://h/live | | ?track=1 | rtsp://h/live?track=1
rtsp://h/live?ch=1 | * | trackID=0 | rtsp://h/live?ch=1/trackID=0
rtsp://h/live | rtsp://h/other/ | track1 | rtsp://h/other/track1
rtsp://h/live | * | RTSP://localhost/x | RTSP://localhost/x
rtsp://h/live | * | x?u=rtsp://y | rtsp://h/live/x?u=rtsp://y
rtsp://h/live | session | | rtsp://h/live/session
rtsp://h/live | | * | rtsp://h/live)",
             '|')) {
        const QByteArray lines = "a=control:" + row[1] + "\nm=video 0 RTP/AVP 96\na=control:" + row[2];
        EXPECT_EQ(SdpDescription::read(lines).trackUrl(0, text(row[0])), text(row[3])) << row[3].constData();
    }
}

TEST(SdpDescription, StaysWithinItsBounds)
{
    struct Row {
        const char* what;
        QByteArray head;
        QByteArray repeated;
    };
    for (const Row& row : {Row{"lines", "", "a=b\n"}, Row{"sections", "", "m=v 0 R 96\n"},
             Row{"formats", "m=v 0 R", " 96 x97"}, Row{"parameters", "m=v 0 R 96\na=fmtp:96 ", "a=b;"},
             Row{"separators", "m=v 0 R 96\na=fmtp:96 ", ";"}, Row{"line ends", "", "\r\n"},
             Row{"types of attributes", "m=v 0\n", "a=rtpmap:x\n"}}) {
        const SdpDescription read
            = SdpDescription::read(row.head + row.repeated.repeated((2 << 20) / row.repeated.size()));
        EXPECT_TRUE(read.bCut) << row.what;
        int lines = read.lines.size();
        EXPECT_LE(read.media.size(), 32);
        for (const SdpMedia& media : read.media) {
            lines += media.lines.size();
            EXPECT_LE(media.formats.size(), 128) << row.what;
            for (const SdpFormat& format : media.formats)
                EXPECT_LE(format.parameters.size(), 256) << row.what;
        }
        EXPECT_LE(lines, 4096) << row.what;
    }
    EXPECT_FALSE(SdpDescription::read(QByteArray("a=b\n").repeated(4096)).bCut);
    EXPECT_TRUE(SdpDescription::read(QByteArray("a=b\n").repeated(4097)).bCut);
}

TEST(SdpDescription, ReadsWhatPeersDescribe)
{
    for (const char* name : {"ffmpeg.sdp", "gstreamer.sdp"}) {
        QFile file(QStringLiteral(NUVIKA_TEST_DATA "/../../fuzz/sdp/") + text(name));
        ASSERT_TRUE(file.open(QIODevice::ReadOnly));
        const SdpDescription read = SdpDescription::read(file.readAll());
        ASSERT_EQ(read.media.size(), 2) << name;
        EXPECT_EQ(read.media[0].formats[0].encoding, text("H264")) << name;
        EXPECT_EQ(read.media[1].formats[0].encoding, text("PCMU")) << name;
        EXPECT_EQ(read.media[0].connection.address, text("127.0.0.1")) << name;
    }
}
