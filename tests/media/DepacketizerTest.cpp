// Packets that are written by hand, in tables: what a camera sends, and the units that come of it.
#include "media/UnitBuffer_p.h"
#include "support/Seams.h"
#include "support/Table.h"

#include <KepNuvikaUtil/RTPPacket.h>
#include <KepNuvikaUtil/RtpDepacketizer.h>

#include <QtCore/QRegularExpression>
#include <QtCore/QStringList>

#include <cerrno>
#include <gtest/gtest.h>
#include <numeric>
#include <set>
#include <vector>

namespace
{
// A stream of packets as text, `10! 6588` for each: timestamp, `!` for the marker, `-2` for losses before it,
// payload. The units come as text, too: timestamp, flags (K key, R recovery, L references lost, D droppable,
// P parameters changed), packets lost, and what stands between start codes. A `+` parts units, `.` ends those
// of one packet.
class Stream
{
public:
    explicit Stream(
        const RtpPayloadFormat& payload, const RtpUnitFormat& format = RtpUnitFormat::forDecoders())
        : m_depacketizer(RtpDepacketizer::create(payload, format))
    {
    }

    void packet(quint32 timestamp, bool bMarked, quint32 lost, const QByteArray& payload)
    {
        QByteArray bytes
            = QByteArray::fromHex(bMarked ? "80e0000000000000" : "8060000000000000") + "\1\1\1\1" + payload;
        qToBigEndian<quint32>(timestamp, bytes.data() + 4);
        push(bytes, lost);
    }
    void push(const QByteArray& bytes, quint32 lost)
    {
        m_depacketizer->push(RTPPacket(reinterpret_cast<const unsigned char*>(bytes.constData()),
                                 static_cast<unsigned int>(bytes.size())),
            lost);
        take();
    }

    Stream& packets(const QByteArray& text)
    {
        static const QRegularExpression s_form(QStringLiteral("(\\d+)(?:-(\\d+))?(!?) ([0-9a-f_]+)"));
        for (auto all = s_form.globalMatch(QString::fromLatin1(text)); all.hasNext();) {
            const auto one = all.next();
            packet(one.captured(1).toUInt(), !one.captured(3).isEmpty(), one.captured(2).toUInt(),
                QByteArray::fromHex(one.captured(4).toLatin1()));
            m_units += QLatin1Char('.');
        }
        return *this;
    }

    // Each of the packets, cut at every byte; its end is the end of the memory.
    void cutPackets(const QByteArray& text)
    {
        for (const QByteArray& each : QByteArray(text).replace('_', "").split(' ')) {
            const QByteArray whole = "\x80\x60" + QByteArray(10, '\1') + QByteArray::fromHex(each);
            for (int size = 0; size <= whole.size(); ++size) {
                const std::vector<unsigned char> bytes(whole.begin(), whole.begin() + size);
                m_depacketizer->push(RTPPacket(bytes.data(), static_cast<unsigned int>(size)));
                take();
            }
        }
    }

    Stream& flush()
    {
        m_depacketizer->flush();
        take();
        return *this;
    }

    const RtpDepacketizer& depacketizer() const { return *m_depacketizer; }
    // The heads of JPEG pictures are `~`.
    std::string units() const
    {
        static const QRegularExpression s_head(QStringLiteral("ffd8[^ ]*?003f00"));
        return QString(m_units)
            .remove(QLatin1Char('.'))
            .replace(s_head, QStringLiteral("~"))
            .trimmed()
            .toStdString();
    }
    // With a `.` behind each packet's.
    std::string unitsByPacket() const { return m_units.toStdString(); }

private:
    void take()
    {
        RtpAccessUnit unit;
        while (m_depacketizer->next(&unit)) {
            QByteArray bytes(reinterpret_cast<const char*>(unit.pData), static_cast<int>(unit.nSize));
            EXPECT_GT(unit.nSize, 0U);
            bytes = bytes.toHex().replace("00000001", "|");
            m_units += QLatin1Char(' ') + QString::number(unit.nTimestamp);
            const char* key = unit.bKeyFrame ? "K" : unit.bRecoveryPoint ? "R" : "";
            m_units += QLatin1String(key) + QLatin1String(unit.bReferencesLost ? "L" : "")
                + QLatin1String(unit.bDroppable ? "D" : "")
                + QLatin1String(unit.bParametersChanged ? "P" : "");
            m_units += unit.nPacketsLost > 0 ? QStringLiteral("-%1").arg(unit.nPacketsLost) : QString();
            m_units += QLatin1Char(' ') + QString::fromLatin1(bytes);
        }
    }

    std::unique_ptr<RtpDepacketizer> m_depacketizer;
    QString m_units;
};

RtpPayloadFormat payload(const char* name, quint32 clock = 90000, const QByteArray& fmtp = {})
{
    return {QString::fromLatin1(name), clock, QString::fromLatin1(fmtp), {}, 0, {}};
}

// Of x264 and x265, 1920x1080, and what ffprobe says of them.
const QByteArray kSps = "67640028acd940780227e5c044000003000400000300c83c60c658";
const QByteArray kPps = "68ebe3cb22c0";
const QByteArray kSps5
    = "420101016000000300900000030000030078a003c08010e596566924e578734040000003004000000642";

const QByteArray kTables(128, '1'); // of quantization

QByteArray base64(const QByteArray& hex) { return QByteArray::fromHex(hex).toBase64(); }

// A line for each row: situation; packets; units; units lost, if any.
void check(const RtpPayloadFormat& payload, QByteArray lines,
    const RtpUnitFormat& format = RtpUnitFormat::forDecoders())
{
    lines.replace("SPS", kSps).replace("PPS", kPps).replace("TABLES", kTables);
    for (const QList<QByteArray>& row : rowsOf(lines)) {
        Stream stream(payload, format);
        EXPECT_EQ(stream.packets(row[1]).flush().units(), row[2].toStdString()) << row[0].constData();
        EXPECT_EQ(stream.depacketizer().unitsLost(), row.value(3).toULongLong()) << row[0].constData();
        Stream(payload, format).cutPackets(row[1]);
    }
}
void checkForFiles(const RtpPayloadFormat& payload, const QByteArray& lines)
{
    check(payload, lines, RtpUnitFormat::forFiles());
}
} // namespace

// Slices: 6588 key, first; 6542 key, not first; 419a first; 4146 not first; 019a droppable.
TEST(RtpH264, MakesPicturesOfWhatCamerasSend)
{
    check(payload("h264"), R"(
single units, markers; 1! 658801 2! 419a02 3! 019a03; 1K |658801 2 |419a02 3D |019a03
no markers at all; 1 658801 1 654202 2 419a03; 1K |658801|654202 2 |419a03
a marker on each slice; 1! 658801 1! 654202 2! 419a03 2! 414604; 1K |658801|654202 2 |419a03|414604
two pictures with one timestamp, markers; 1! 658801 1! 419a02 1! 419a03; 1K |658801 1 |419a02 1 |419a03
aggregated (STAP-A), zeros behind; 1! 180003658801000365420200000000; 1K |658801|654202
aggregated, a size beyond the end; 1! 1800036588010009654202 2! 658801; 2K |658801; 1
fragments (FU-A); 1 7c8588 1 7c0501 1! 7c4502; 1K |65880102
start and end in one fragment; 1! 7cc58801; 1K |658801
empty fragments; 1 7c85 1 7c05 1 7c058801 1! 7c45 1! 7c45; 1K |658801
the type changes inside: the first holds; 1 7c8588 1! 7c4101; 1K |658801
an end is missing at a new timestamp; 1 7c8588 1 7c0501 2 419a02; 1K |658801 2 |419a02
an end is missing at a new unit; 1 7c8588 1 7c0501 1! 654202; 1K |658801|654202
a fragment without its start; 1 7c0501 1! 7c4502 2! 658803; 2K |658803; 1
supplements of the time before; 1! 658801 1 06aa01 2! 419a02 2! 06aa02 3! 419a03; 1K |658801 2 |06aa01|419a02 3 |06aa02|419a03
the same between slices; 1 658801 1! 06aa01 1 654202 2! 419a03; 1K |658801|06aa01|654202 2 |419a03
delimiters and filler are not handed on; 1 09f0 1 658801 1! 0cffff80 2! 419a02; 1K |658801 2 |419a02
a whole stream in a single unit; 1! 00000001_658801_000001_654202_0000; 1K |658801|654202
start codes behind a first unit; 1! 06aa80_00000001_658801_000001_654202; 1K |06aa80|658801|654202
start codes in an aggregate; 1! 18000d_000000016588010000016542ff; 1K |658801|6542ff
start codes between fragments; 1 1c80_0000 1 1c00_01658801_00 1 1c00_00 1 1c00_00 1 1c00_01 1! 1c40_6542; 1K |658801|6542
zeros inside stay, zeros behind go; 1! 6588000000ff02000000 2! 419a0000; 1K |6588000000ff02 2 |419a
a recovery point; 1! 658801 2 0606018480 2! 419a02 3! 41b003; 1K |658801 2R |0606018480|419a02 3R |41b003
an intra slice in a picture of others; 1! 658801 2-1 41b002 2! 414603; 1K |658801 2L-1 |41b002|414603
not to be read: MTAP; 1! 658801 2! 1a0001 3! 419a02; 1K |658801 3L |419a02; 1)");
}

TEST(RtpH264, LosesOneUnitForALostPacket)
{
    check(payload("H264"), R"(
the beginning; 1! 658801 2-1 7c0101 2! 7c4102 3! 419a03 4! 658804; 1K |658801 3L-1 |419a03 4K |658804; 1
the middle; 1! 658801 2 7c819a 2-1 7c0102 2! 7c4102 3! 419a03; 1K |658801 3L-1 |419a03; 1
the end; 1! 658801 2 419a02 3-1 419a03 3! 414604; 1K |658801 3L-1 |419a03|414604; 1
a slice in the middle; 1! 658801 2 419a02 2-1! 414603 3! 419a04; 1K |658801 3L-1 |419a04; 1
a whole picture; 1! 658801 3-1! 419a02; 1K |658801 3L-1 |419a02
the end, markers on each slice; 1! 658801 1! 654202 2! 419a03 3-1! 419a04 4! 419a05; 1K |658801|654202 3L-1 |419a04 4L |419a05; 1
the beginning, no markers; 1 658801 2 419a02 3-1 414603 4 419a04; 1K |658801 2 |419a02 4L-1 |419a04; 1
many, over two pictures; 1! 658801 2 419a02 5-7 414603 6! 419a04; 1K |658801 6L-7 |419a04; 2
joined in the middle of a picture; 1 654201 1! 654202 2! 419a03 3! 658804; 2L |419a03 3K |658804; 1
nobody refers to it, and so on; 1! 658801 2-1! 019a02 3! 419a03; 1K |658801 2LD-1 |019a02 3L |419a03)");
}

TEST(RtpH264, GivesAPictureWithItsMarkerOnceMarkersAreTrusted)
{
    Stream stream(payload("H264"));
    EXPECT_EQ(stream.packets("1! 658801 2! 419a02 3! 419a03 3! 414604 4! 419a05 5! 419a06").unitsByPacket(),
        ". 1K |658801 2 |419a02. 3 |419a03... 4L |419a05.")
        << "the first one waits; who stops to mean the marker costs a picture, and is not trusted again";
    EXPECT_EQ(stream.depacketizer().unitsLost(), 1U);
}

TEST(RtpH264, PutsParameterSetsWhereTheFormatSays)
{
    const QByteArray packets = "; 1! SPS 1! PPS 2! 658801 2! PPS 3! 658802 3! 68eb00ff 4! 419a03 5! 658804; ";
    for (const auto& [where, units] :
        {std::make_pair(RtpUnitFormat::eAtKeyFrames,
             "2KP |SPS|PPS|658801 3K |SPS|PPS|658802 4P |SPS|68eb00ff|419a03 5K |SPS|68eb00ff|658804"),
            std::make_pair(RtpUnitFormat::eOnChange,
                "2KP |SPS|PPS|658801 3K |658802 4P |SPS|68eb00ff|419a03 5K |658804"),
            std::make_pair(RtpUnitFormat::eApart, "2KP |658801 3K |658802 4P |419a03 5K |658804")}) {
        RtpUnitFormat format;
        format.parameterSets = where;
        check(payload("H264"), QByteArray::number(where) + packets + units, format);
    }
    checkForFiles(payload("H264"),
        "lengths in front" + packets
            + "2KP 00000003658801 3K 00000003658802 4P 00000003419a03 5K 00000003658804");
}

TEST(RtpH264, BelievesTheStreamBeforeTheDescription)
{
    const QByteArray good = base64(kSps) + ',' + base64(kPps);
    const QByteArray otherSps = "6742c01ed900b4126c1040000003004000000c83c58b92"; // 720x576, pixels of 16:11
    const char* silent = "; 1! 658801; 1K |SPS|PPS|658801";
    const char* repeated = "; 1 SPS 1 PPS 1! 658801; 1K |SPS|PPS|658801";
    const char* changed = "; 1 SPS 1 PPS 1! 658801; 1KP |SPS|PPS|658801";
    const struct {
        const char* situation;
        QByteArray sets;
        const char* row;
    } rows[] = {
        {"only in the description", good, silent},
        {"repeated by the stream: no change", good, repeated},
        {"a comma at the end, keys of old", good + ',', silent},
        {"with start codes", base64("00000001" + kSps + "00000001" + kPps), silent},
        {"more than two of them", good + ',' + base64("68420a"), "; 1! 658801; 1K |SPS|PPS|68420a|658801"},
        {"one of them is no base64", "Z0IA*," + good, silent},
        {"wrong, right in the stream", base64(otherSps) + ',' + base64(kPps), changed},
        {"wrong under another id", base64("6742c01e44b4126c10") + ',' + base64(kPps), changed},
        {"no word", "", "; 1! 658801; 1K |658801"},
    };
    for (const auto& row : rows)
        check(payload("H264", 90000, "96 Packetization-Mode=1; SPROP-parameter-sets=" + row.sets + ';'),
            QByteArray(row.situation) + row.row);
    const auto described = RtpDepacketizer::create(
        payload("H264", 90000, "profile-level-id=42E01F; sprop-parameter-sets=AAAA"), RtpUnitFormat());
    EXPECT_EQ(described->parameters().codec, "avc1.42e01f") << "the description's word until there is a set";
}

TEST(RtpH265, MakesPicturesOfWhatCamerasSend)
{
    // Slices: 2601a0 key, first; 260120 key, not first; 0201d0 first; 020150 not first; 0001d0 no reference;
    // 1001d0 RASL.
    check(payload("H265"), R"(
single units; 1! 2601a001 2! 0201d002; 1K |2601a001 2 |0201d002
aggregated; 1! 600100042601a001_0004_26012002_0000; 1K |2601a001|26012002
fragments; 1 620193a0 1 62011301 1! 62015302; 1K |2601a00102
start and end in one fragment; 1! 6201d3a001; 1K |2601a001
an end is missing; 1 620193a0 1 62011301 2! 0201d002; 1K |2601a001 2 |0201d002
a marker on each slice; 1! 2601a001 1! 26012002 2! 0201d003; 1K |2601a001|26012002 2 |0201d003
supplements before and behind; 1! 4e010401 1 2601a002 1! 50018403 2! 0201d004; 1K |4e010401|2601a002|50018403 2 |0201d004
a whole stream in fragments; 1 620180_0000 1 62010001_2601a001_00 1! 620140_0001_26012002; 1K |2601a001|26012002
a lost fragment; 1! 2601a001 2 620181d0 2-1! 62014102 3! 0201d004; 1K |2601a001 3L-1 |0201d004; 1
leading pictures; 1! 2a01a001 2! 1001d002 3! 2a01a003 4! 1001d004; 1K |2a01a001 2L |1001d002 3K |2a01a003 4 |1001d004
not to be read: PACI; 1! 64010001 2! 2601a001; 2K |2601a001; 1)");
    check(payload("H265", 90000, "sprop-max-don-diff=1"), R"(
two bytes of order in each; 1! 6001aaaa_0004_2601a001_00_0004_26012002; 1K |2601a001|26012002
and in a fragment's start; 1 620193aaaaa0 1! 62015301; 1K |2601a001
and in a single unit; 1! 2601aaaaa001; 1K |2601a001)");
    checkForFiles(payload("H265", 90000, "sprop-sps=" + base64(kSps5)),
        "nobody refers to it; 1! 2601a001 2! 0001d002 3! 0201d003; 1K 000000042601a001 2D 000000040001d002 3 "
        "000000040201d003");
}

TEST(RtpVideo, ReadsParameterSets)
{
    const QByteArray wide = "6742c01ed900b4126c1040000003004000000c83c58b92";
    const QByteArray deep
        = "4201010408000003009d0800000300003fb005120171c93b65959a4932bc05a02000000300200000030321";
    const struct {
        const char* name;
        const char* codec;
        QByteArray sets;
        const char* told; // codec, coded and shown size, aspect
        QByteArray record;
    } rows[] = {
        {"high, cropped", "H264", base64(kSps) + ',' + base64(kPps), "avc1.640028 1920x1088 1920x1080 1x1",
            "01640028ffe1001b" + kSps + "010006" + kPps + "fdf8f800"},
        {"baseline, wide pixels", "H264", base64(wide), "avc1.42c01e 720x576 720x576 16x11",
            "0142c01effe10017" + wide + "00"},
        {"main, scaling lists, cropped", "H265", base64(kSps5), "hvc1.1.6.L120.90 1920x1080 1920x1080 4x3",
            "01016000000090000000000078f000fcfdf8f800000f03a00000a10001002a" + kSps5 + "a20000"},
        {"4:2:2 of 10 bits, sub-layers", "H265", base64(deep), "hvc1.4.10.L63.9D.8 648x368 642x362 1x1",
            "0104080000009d08000000003ff000fcfefafa00000f03a00000a10001002b" + deep + "a20000"},
        {"cut off: what was read", "H264", base64("67640028ac"), "avc1.640028 -1x-1 -1x-1 -1x-1",
            "01640028ffe1000567640028ac00fdf8f800"},
    };
    for (const auto& row : rows) {
        const char* key = *row.codec == 'H' && row.codec[3] == '4' ? "sprop-parameter-sets=" : "sprop-sps=";
        const auto made = RtpDepacketizer::create(payload(row.codec, 90000, key + row.sets), RtpUnitFormat());
        const RtpMediaParameters& read = made->parameters();
        QByteArray told = read.codec;
        for (const QSize& size : {read.codedSize, read.shownSize, read.pixelAspect})
            told += ' ' + QByteArray::number(size.width()) + 'x' + QByteArray::number(size.height());
        EXPECT_EQ(told, row.told) << row.name;
        EXPECT_EQ(read.configuration.toHex(), row.record) << row.name;
    }
}

TEST(RtpVideo, LosesWhatGoesOverABound)
{
    RtpUnitFormat format;
    format.nMaxUnitBytes = 24;
    format.nMaxNalUnits = 3;
    format.nMaxParameterSets = 2;
    format.nMaxParameterSetBytes = 8;
    check(payload("H264"), R"(
bytes; 1 7c8588 1 7c050102030405060708090a 1 7c050102030405060708090a 1! 7c4501 2! 658802; 2K |658802; 1
zeros; 1 7c8588 1 7c05000000000000000000000000000000000000000000 1! 7c4502 2! 658802; 2K |658802; 1
units; 1! 658801 2 06aa 2 06aa 2 06aa 2! 419a02 3! 658803; 1K |658801 3K |658803; 1
units of a picture; 1 6588 1 6542 1 6542 1 6542 2! 658802; 2K |658802; 1
parameter sets; 1 68c0 1 6840 1 6860 1! 6588 2! 658802; 2K |68c0|6840|658802; 1
bytes of a parameter set; 1 68c0a0a0a0a0a0a0a0 1! 6588 2! 658802; 2K |658802; 1)",
        format);
}

TEST(RtpVideo, RepeatsLargeParameterSetsNoMoreThanTheStreamPaysFor)
{
    Stream stream(payload("H264"));
    std::size_t before = 0;
    const auto given = [&stream, &before](quint32 timestamp, const QByteArray& hex, int more) {
        stream.packet(timestamp, true, 0, QByteArray::fromHex(hex) + QByteArray(more, '\1'));
        const std::size_t now = stream.unitsByPacket().size() / 2; // of two digits each
        return now - std::exchange(before, now);
    };
    given(0, kSps, 0);
    given(0, kPps, 60000);
    std::size_t all = 0;
    for (quint32 timestamp = 1; timestamp < 100; ++timestamp)
        all += given(timestamp, "6588010203040506", 0);
    EXPECT_GT(all, 60000U);
    EXPECT_LT(all, 2 * 60000U) << "pictures of eight bytes";
    EXPECT_GT(given(200, "6588", 61000), 61000U);
    EXPECT_GT(given(201, "658801", 0), 60000U) << "the large picture has paid for another time";
}

TEST(RtpVideo, LosesAUnitWithoutMemory)
{
    seams::growing.arm(1, ENOMEM);
    check(payload("H264"), "once; 1! 658801 2! 658802; 2K |658802; 1");
}

TEST(RtpVideo, AUnitGrowsByDoubling)
{
    constexpr std::size_t kMost = 1 << 16;
    Nuvika::UnitBuffer buffer(kMost);
    std::size_t grown = 0;
    std::size_t capacity = 0;
    const unsigned char byte = 7;
    while (buffer.append(&byte, 1)) {
        grown += buffer.capacity() != capacity ? 1 : 0;
        capacity = buffer.capacity();
    }
    EXPECT_EQ(buffer.size(), kMost);
    EXPECT_LE(grown, 6U) << "not by what a packet brings";
    EXPECT_EQ(capacity, kMost) << "and no further than its bound";
    buffer.clear();
    EXPECT_EQ(buffer.capacity(), kMost) << "it is kept";
}

TEST(RtpJpeg, MakesPicturesThatStandAlone)
{
    check(payload("JPEG"), R"(
fragments; 1 0000000001320201aabb 1! 0000000201320201cc; 1KP ~aabbccffd9
an end of its own; 1! 0000000001320201aaffd9; 1KP ~aaffd9
no markers; 1 0000000001320201aa 2 0000000001320201bb; 1KP ~aaffd9 2K ~bbffd9
fragments that do not join; 1 0000000001320201aabb 1! 0000000101320201cc 2! 0000000001320201dd; 2KP ~ddffd9; 1
a lost fragment; 1 0000000001320201aabb 1-1! 0000000401320201cc 2! 0000000001320201dd; 2KP-1 ~ddffd9; 1
a lost beginning; 1-1 0000000201320201bb 1! 0000000301320201cc 2! 0000000001320201dd; 2KP-1 ~ddffd9; 1
and no markers; 1 0000000001320201aa 2-1 0000000101320201bb 3 0000000001320201cc; 1KP ~aaffd9 3K-1 ~ccffd9; 1
restarts; 1 000000004132020100100001aa 1! 000000014132020100107fffbb; 1KP ~aabbffd9
tables sent once; 1! 000000000180020100000040TABLESaa 2! 000000000180020100000000bb; 1KP ~aaffd9 2K ~bbffd9
tables never sent; 1! 000000000180020100000000bb; ; 1
tables beyond the packet; 1! 000000000180020100000080bb; ; 1
another size; 1! 0000000001320201aa 2! 0000000001320202bb; 1KP ~aaffd9 2KP ~bbffd9
no size anywhere; 1! 0000000001320000aa; ; 1
a type that we do not know; 1! 0000000005320201aa; ; 1
too short; 1! 0000 2! 0000000001320201aa; 2KP ~aaffd9; 1)");

    Stream once(payload("JPEG"));
    const std::string text
        = once.packets("1! 000000000180020100000040" + kTables + "aa 2! 00000000418002010010000000000000bb")
              .unitsByPacket();
    const QByteArray both = QByteArray(text.c_str()).replace('|', "00000001"); // tables are full of these
    const QByteArray quantization = "ffd8ffdb008400" + kTables + "01" + kTables;
    EXPECT_TRUE(both.startsWith(" 1KP " + quantization + "ffc00011080008001003012200021101031101ffc401a2"))
        << both.left(400).constData();
    EXPECT_TRUE(both.contains(" 2K " + quantization + "ffdd00040010ffc0"))
        << "the interval stands in the head";
    // Tables for the entropy coder: each value of one has one code.
    QByteArray codes = QByteArray::fromHex(both.mid(both.indexOf("ffc401a2") + 8, 2 * 416));
    for (int table = 0; table < 4; ++table) {
        const int count = std::accumulate(codes.begin() + 1, codes.begin() + 17, 0);
        const std::set<char> values(codes.begin() + 17, codes.begin() + 17 + count);
        EXPECT_EQ(values.size(), table % 2 == 0 ? 12U : 162U) << table;
        codes.remove(0, 17 + count);
    }
    EXPECT_TRUE(codes.isEmpty());
    RtpPayloadFormat sized = payload("JPEG");
    sized.pictureSize = QSize(2592, 1944);
    EXPECT_NE(Stream(sized).packets("1! 0000000001320000aa").unitsByPacket().find("ffc000110807980a20"),
        std::string::npos);
    sized.pictureSize = QSize(0, 0);
    EXPECT_FALSE(RtpDepacketizer::create(sized)->parameters().shownSize.isValid()) << "not known";
}

TEST(RtpJpeg, TakesTheSizeFromTheHeaderExtension)
{
    const QByteArray frame = "ffc000110807980a200301220002110103110100"; // 20 bytes: 5 words
    const QByteArray behindAnother = "ffd80007ffdb00040000ffff" + frame; // with a fill byte
    for (const QByteArray& extension :
        {"ffd80005" + frame, behindAnother, "abac0009" + QByteArray(24, '0') + "ffd80005" + frame}) {
        const QByteArray bytes
            = QByteArray::fromHex("90e000000000000100000001" + extension + "0000000001320000aa");
        Stream stream(payload("JPEG"));
        stream.push(bytes, 0);
        EXPECT_EQ(stream.units().empty(), extension == behindAnother) << extension.constData();
        EXPECT_EQ(stream.depacketizer().parameters().shownSize,
            extension == behindAnother ? QSize() : QSize(2592, 1944));
    }
}

TEST(RtpAac, GivesEachFrameForItself)
{
    const auto aac = [](const char* fmtp) { return payload("MPEG4-generic", 48000, fmtp); };
    const RtpPayloadFormat hbr
        = aac("mode=AAC-hbr; sizelength=13; indexlength=3; indexdeltalength=3; config=1190"); // 48000, 2
    checkForFiles(hbr, R"(
one; 1! 00100018aabbcc; 1K aabbcc
three: the frame's length each; 1! 0030000800100018_aa_bbbb_cccccc; 1K aa 1025K bbbb 2049K cccccc
interleaved: gaps count; 1! 002000080009aabb; 1K aa 2049K bb
no marker: known by the next; 1 00100008aa 1025 00100008bb; 1K aa 1025K bb
fragments with the whole size; 1 00100020aabb 1! 00100020ccdd; 1K aabbccdd
fragments with their own size; 1 00100010aabb 1! 00100010ccdd; 1K aabbccdd
a lost fragment; 1 00100030aabb 1-1! 00100030eeff 2! 00100008aa; 2K-1 aa; 1
an end that never comes; 1 00100030aabb 2! 00100008cc; 2K cc; 1
a lost packet; 1! 00100008aa 2-1! 00100008bb; 1K aa 2K-1 bb
empty; 1! 0010 2! 00100000 3! 0010000800 4! 0020000000_08aa; 3K 00 1028K aa
beyond the end; 1! 002000080010aabb; 1K aa; 1
heads beyond the end; 1! 0fff0008aabb; ; 1
in ADTS; 1! 00100048fff14c80013ffcaabb; 1K aabb
two of ADTS in one; 1! 00100080fff14c80011ffcaa_fff14c80011ffcbb; 1K aa 1025K bb
ADTS without heads; 1! fff14c80013ffcaabb; 1K aabb)");
    checkForFiles(aac("mode=AAC-hbr;sizelength=13;config=1190;"), R"(
no indexlength, sent all the same; 1! 00100018aabbcc; 1K aabbcc
no indexlength, none sent; 1! 000d0018aabbcc; 1K aabbcc)");
    checkForFiles(aac("mode=AAC-lbr;config=1190;"), "low rate; 1! 0008_0c_aabbcc; 1K aabbcc");
    checkForFiles(
        aac("config=2b118800"), "extended by a band: the core's frames; 1! 002000080008aabb; 1K aa 2049K bb");
    check(hbr, R"(
to ADTS; 1! 00100010aabb; 1K fff14c80013ffcaabb
from ADTS to ADTS; 1! 00100048fff14c80013ffcaabb; 1K fff14c80013ffcaabb)");
    Stream told(payload("MPEG4-GENERIC", 16000), RtpUnitFormat::forFiles());
    EXPECT_EQ(told.packets("1! 00100048fff14c80013ffcaabb 2! 00100048fff14c80013ffcaabb").units(),
        "1KP aabb 2K aabb")
        << "the description said nothing";
    EXPECT_EQ(told.depacketizer().parameters().configuration.toHex(), "1190");
    EXPECT_EQ(told.depacketizer().parameters().nSampleRate, 48000U);
    EXPECT_EQ(told.depacketizer().parameters().codec, "mp4a.40.2");
}

TEST(RtpLatm, GivesEachFrameForItself)
{
    const RtpPayloadFormat latm = payload("MP4A-LATM", 48000, "cpresent=0; config=400023203fc0");
    checkForFiles(latm, R"(
one; 1! 02aabb; 1K aabb
two; 1! 01aa02bbbb; 1K aa 1025K bbbb
fragments; 1 03aa 1! bbcc; 1K aabbcc
a lost fragment; 1 03aa 1-1! cc 2! 01dd; 2K-1 dd; 1
a lost packet; 1! 01aa 2-1! 01bb; 1K aa 2K-1 bb
an end that never comes; 1 03aa 2! 01bb; 2K bb; 1)");
    EXPECT_EQ(RtpDepacketizer::create(latm, RtpUnitFormat())->parameters().configuration.toHex(), "1190");
}

TEST(RtpAudio, TakesPacketsForUnitsInPlace)
{
    const unsigned char bytes[] = {0x80, 0, 0, 1, 0, 0, 0, 9, 0, 0, 0, 1, 0xAA, 0xBB};
    const struct {
        const char* name;
        quint32 clock;
        const char* told; // codec, rate, channels
    } rows[] = {{"PCMU", 8000, "ulaw 8000 1"}, {"pcma", 0, "alaw 8000 1"}, {"G722", 8000, "g722 16000 1"},
        {"L16", 44100, "twos 44100 1"}, {"opus", 48000, "opus 48000 2"}, {"G726-32", 8000, "g726-32 8000 1"}};
    for (const auto& row : rows) {
        RtpPayloadFormat format = payload(row.name, row.clock);
        format.media = QStringLiteral("audio");
        auto made = RtpDepacketizer::create(format);
        made->push(RTPPacket(bytes, sizeof bytes), 3);
        RtpAccessUnit unit;
        ASSERT_TRUE(made->next(&unit)) << row.name;
        EXPECT_EQ(unit.pData, bytes + 12) << row.name << ": not copied";
        EXPECT_TRUE(unit.nSize == 2 && unit.nTimestamp == 9 && unit.nPacketsLost == 3 && unit.bKeyFrame);
        EXPECT_FALSE(made->next(&unit));
        const RtpMediaParameters& told = made->parameters();
        EXPECT_EQ(std::string(told.codec.begin(), told.codec.end()) + ' ' + std::to_string(told.nSampleRate)
                + ' ' + std::to_string(told.nChannels),
            row.told);
    }
}

TEST(RtpOther, EndsUnitsByMarkerAndVideoByTimestamp)
{
    RtpPayloadFormat other = payload("vnd.onvif.metadata");
    other.media = QStringLiteral("application");
    check(other, R"(
up to the marker, whatever the timestamp; 1 aa 2 bb 3! cc 4! dd; 1K aabbcc 4K dd
a loss costs what it may be in; 1 aa 1-1 bb 1! cc 2! dd; 2K-1 dd; 1
between two; 1! aa 2-1! bb 3! cc; 1K aa 3K-1 cc; 1)");
    other = payload("MP4V-ES");
    other.media = QStringLiteral("video");
    check(other, R"(
markers; 1 aa 1! bb 2! cc; 1K aabb 2K cc
no markers; 1 aa 1 bb 2 cc; 1K aabb 2K cc
a lost end; 1 aa 2-1 bb 2! cc; 2K-1 bbcc; 1
two lost, an end and perhaps a beginning; 1 aa 2-2 bb 2! cc 3! dd; 3K-2 dd; 2)");
}
