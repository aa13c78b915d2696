#include <KepNuvikaUtil/CreateDbId.h>

#include <gtest/gtest.h>

namespace
{
std::string idOf(const char* name, int number, int kind)
{
    return CreateDbId(QString::fromUtf8(name), number, static_cast<DbIdType::enuKeyTypes>(kind))
        .getDbId()
        .toStdString();
}
} // namespace

TEST(CreateDbId, MakesStableIdentifiers)
{
    EXPECT_EQ(idOf("Entrance Hall", 7, 0), "cam_entrancehall_0007");
    EXPECT_EQ(idOf("Gate A||old", 12, 1), "ws_gatea_0012");
    EXPECT_EQ(idOf("||x", 12, 1), "ws_x_0012");
    EXPECT_EQ(idOf("a||x", 12, 1), "ws_ax_0012") << "bars at place 1 are no separator either";
    EXPECT_EQ(idOf("ab||x", 12, 1), "ws_ab_0012");
    EXPECT_EQ(idOf("Tor (Süd)/Nord & Ost", 12345, 3), "svc_torsued_nord_ost_12345");
    EXPECT_EQ(idOf("x", -5, 2), "dsp_x_-005");
    EXPECT_EQ(idOf("Größe [1] {2} ÄÖÜ.a-b é", 0, 4), "mot_groesse12aeoeue.a-bé_0000");
    EXPECT_EQ(idOf("ﬁ Ａ u\xCC\x88", 1, 5), "seq_fiaue_0001") << "compatibility forms are composed first";
    EXPECT_EQ(idOf("%1 %04d", 1, 6), "scn_%1%04d_0001");
    EXPECT_EQ(idOf("tab\there", 1, 7), "srv_tab\there_0001") << "only blanks go";
    const char* codes[] = {"cam", "ws", "dsp", "svc", "mot", "seq", "scn", "srv", "evl", "gen", "evt", "fld"};
    for (int kind = 0; kind < 12; ++kind)
        EXPECT_EQ(idOf("", 1, kind), std::string(codes[kind]) + "__0001");
    EXPECT_EQ(idOf("", 1, 12), "gen__0001");
    EXPECT_EQ(idOf("", 1, -1), "gen__0001");
}

TEST(CreateDbId, DerivesNames)
{
    const CreateDbId door(QStringLiteral("Door"), 3, QStringLiteral("CAM"));
    EXPECT_EQ(door.getDbId(), QStringLiteral("cam_door_0003"));
    EXPECT_EQ(door.getEntryName(), QStringLiteral("Door (3)"));
    EXPECT_EQ(door.getFolderName(), QStringLiteral("Door3"));
    EXPECT_EQ(door.getStreamName(), QStringLiteral("Stream 3"));
    EXPECT_EQ(door.getStreamNamePart(), QStringLiteral("Stream "));
    EXPECT_EQ(CreateDbId().getDbId(), QStringLiteral("__0000"));
    CreateDbId copy;
    copy = door;
    EXPECT_EQ(copy.getDbId(), door.getDbId());
}
