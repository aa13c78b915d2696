#include <KepNuvikaUtil/CreateDbId.h>

#include <gtest/gtest.h>

TEST(CreateDbId, MakesStableIdentifiers)
{
    const struct {
        const char* name;
        int number;
        int kind;
        const char* id;
    } rows[] = {{"Entrance Hall", 7, 0, "cam_entrancehall_0007"}, {"Gate A||old", 12, 1, "ws_gatea_0012"},
        {"||x", 12, 1, "ws_x_0012"}, {"a||x", 12, 1, "ws_ax_0012"}, // bars at place 1 are no separator either
        {"ab||x", 12, 1, "ws_ab_0012"}, {"Tor (Süd)/Nord & Ost", 12345, 3, "svc_torsued_nord_ost_12345"},
        {"x", -5, 2, "dsp_x_-005"}, {"Größe [1] {2} ÄÖÜ.a-b é", 0, 4, "mot_groesse12aeoeue.a-bé_0000"},
        {"ﬁ Ａ u\xCC\x88", 1, 5, "seq_fiaue_0001"}, // compatibility forms are composed first
        {"%1 %04d", 1, 6, "scn_%1%04d_0001"}, {"tab\there", 1, 7, "srv_tab\there_0001"}, // only blanks go
        {"", 1, 8, "evl__0001"}, {"", 1, 9, "gen__0001"}, {"", 1, 10, "evt__0001"}, {"", 1, 11, "fld__0001"},
        {"", 1, 12, "gen__0001"}, {"", 1, -1, "gen__0001"}};
    for (const auto& row : rows) {
        const CreateDbId made(
            QString::fromUtf8(row.name), row.number, static_cast<DbIdType::enuKeyTypes>(row.kind));
        EXPECT_EQ(made.getDbId().toStdString(), row.id);
    }
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
