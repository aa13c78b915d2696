#include <KepNuvikaUtil/ClockToNtpMapper32.h>
#include <KepNuvikaUtil/NTPRange.h>
#include <KepNuvikaUtil/RtcpCompound.h>
#include <KepNuvikaUtil/RtpDepacketizer.h>
#include <KepNuvikaUtil/RtpReception.h>
#include <KepNuvikaUtil/RtpReorderBuffer.h>
#include <KepNuvikaUtil/RtpTimeline.h>
#include <KepNuvikaUtil/SDP.h>
#include <KepNuvikaUtil/SdpDescription.h>
#include <KepNuvikaUtil/VariableBuffer.h>

#include "support/Values.h"

#include <QtCore/QSet>

#include <gtest/gtest.h>

static_assert(
    moveFreely<NTPTimestamp, NTPRange, ClockToNtpMapper32, RTPPacket, RTCPPacket, RtcpCompound,
        RtpMediaParameters, RtpPayloadFormat, RtpOrderedPacket, RtpReorderBuffer, RtpReception, RtpTimeline,
        SDP, SdpLine, SdpParameter, SdpConnection, SdpFormat, SdpMedia, SdpDescription>(),
    "what is copied at a cost moves without one");

namespace
{
const NTPTimestamp kOneSecond = NTPTimestamp::fromRawHostByteOrder(0x83AA7E8100000000); // 1970-01-01 00:00:01
} // namespace

TEST(Values, TimesAndPacketsPrint)
{
    VariableBuffer bytes;
    VariableBuffer rtcp;
    const RTPPacket packet(&bytes, 0xABC, 7, 90000, eRtp26, nullptr, 100, 1);
    const RTCPPacket report(&rtcp, 0xABC, 90000, kOneSecond);
    const std::pair<std::string, const char*> rows[] = {{shown(NTPTimestamp()), "NTPTimestamp(null)"},
        {shown(kOneSecond), "NTPTimestamp(1970-01-01T00:00:01.000, 0x83aa7e8100000000)"},
        {shown(RtpTime{90000, 40000, 0, true, true}),
            "RtpTime(timestamp 90000, presentation 0.040000 s, wall 1970-01-01T00:00:00.000Z, by sender, new "
            "run)"},
        {shown(RTPPacket()), "RTPPacket(not valid)"},
        {shown(packet),
            "RTPPacket(type 26, sequence 7, timestamp 90000, ssrc 0xabc, marked, payload 100, bytes 112)"},
        {shown(RTCPPacket()), "RTCPPacket(not valid)"},
        {shown(report),
            "RTCPPacket(type 200, ssrc 0xabc, ntp NTPTimestamp(1970-01-01T00:00:01.000, 0x83aa7e8100000000), "
            "timestamp 90000, bytes 28)"},
        {shown(RtcpCompound()), "RtcpCompound()"},
        {shown(RtcpSdesItem{1, eSdesCNAME, "a\nb"}), "RtcpSdesItem(ssrc 0x1, type 1, \"a\\nb\")"},
        {shown(RtpAccessUnit{nullptr, 1, 2, 3, true, true, true, true, true}),
            "RtpAccessUnit(bytes 1, timestamp 2, lost 3, key frame, references lost, droppable, parameters "
            "changed)"},
        {shown(RtpMediaParameters{"mp4a.40.2", "\x12\x10", QSize(8, 6), QSize(), QSize(), 48000, 2}),
            "RtpMediaParameters(\"mp4a.40.2\", configuration bytes 2, coded 8x6, Hz 48000, channels 2)"}};
    for (const auto& [text, expected] : rows)
        EXPECT_EQ(text, expected);
}

TEST(Values, DescriptionsPrintWithoutKeys)
{
    const QString text
        = QStringLiteral("v=0\r\no=- 1 1 IN IP4 0\r\ns=x\r\nt=0 0\r\nk=clear:hidden\r\n"
                         "m=video 0 RTP/AVP 26\r\na=crypto:1 AES inline:hidden\r\n"
                         "a=key-mgmt:mikey hidden\r\na=control:rtsp://u:hidden@h/t?hidden\r\n");
    const SDP sdp = SDP::fromSDPString(text);
    EXPECT_EQ(shown(sdp),
        "SDP(\"v=0\", \"o=- 1 1 IN IP4 0\", \"s=x\", \"k=...\", \"m=video 0 RTP/AVP 26\", \"a=crypto:...\", "
        "\"a=key-mgmt:...\", \"a=control:rtsp://...@h/t?...\")");
    EXPECT_EQ(shown(SdpLine{'k', QStringLiteral("clear:hidden")}), "SdpLine(\"k=...\")");
    EXPECT_EQ(shown(SdpParameter{QStringLiteral("a"), QStringLiteral("b")}), "SdpParameter(\"a=b\")");
    EXPECT_EQ(shown(SdpDescription::read(text.toUtf8())),
        "SdpDescription(control \"\", sendrecv, SdpConnection(\"\", ttl -1), lines 5, SdpMedia(\"video\", "
        "port 0, "
        "\"RTP/AVP\", control \"rtsp://...@h/t?...\", sendrecv, SdpConnection(\"\", ttl -1), lines 4, "
        "SdpFormat(\"26\", \"JPEG\", clock 90000, channels 1)))");
}

TEST(Values, TimesAreKeysAndDescriptionsMove)
{
    const NTPTimestamp next = kOneSecond + NTPTimestamp::fromRawHostByteOrder(1);
    EXPECT_EQ((QSet<NTPTimestamp>{kOneSecond, next, kOneSecond}.size()), 2);
    EXPECT_EQ((QSet<NTPRange>{{kOneSecond, next}, {next, kOneSecond}, {kOneSecond, next}}.size()), 2);
    RtpMediaParameters parameters;
    EXPECT_TRUE(parameters == RtpMediaParameters());
    parameters.nChannels = 2;
    EXPECT_TRUE(parameters != RtpMediaParameters());
    SDP sdp = SDP::fromSDPString(QStringLiteral("v=0\r\no=-\r\ns=x\r\nt=0 0\r\nm=video 0 RTP/AVP 26\r\n"));
    const SDP copy = sdp;
    const SDP moved = std::move(sdp);
    EXPECT_EQ(moved, copy);
    EXPECT_EQ(sdp.getNumMediaDesc(), 0); // NOLINT(bugprone-use-after-move)
}
