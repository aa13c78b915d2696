#include <KepNuvikaUtil/CreateDbId.h>
#include <KepNuvikaUtil/HMatrix2D.h>
#include <KepNuvikaUtil/NUVIKA_SIZE.h>

#include "support/Values.h"

#include <QtCore/QSet>

#include <gtest/gtest.h>

TEST(Values, GeometryAndIdentifiersPrint)
{
    static_assert(moveFreely<CreateDbId, HMatrix2D, HVector2D, NUVIKA_RECT, NUVIKA_SIZE>(), "they move");
    EXPECT_EQ(shown(HVector2D(1.5, -2)), "HVector2D(1.5, -2)");
    EXPECT_EQ(shown(HMatrix2D(2, 3, 4, 5)), "HMatrix2D(2, 0, 0, 3, 4, 5)");
    EXPECT_EQ(shown(NUVIKA_RECT(1, 2, 3, -4)), "NUVIKA_RECT(1, 2, 3, -4)");
    EXPECT_EQ(shown(NUVIKA_SIZE(640, 480)), "NUVIKA_SIZE(640, 480)");
    EXPECT_EQ(shown(KepNuvikaUtil::RECT{1, 2, 3, 4}), "RECT(1, 2, 3, 4)");
    EXPECT_EQ(shown(KepNuvikaUtil::SIZE{1, 2}), "SIZE(1, 2)");
    EXPECT_EQ(shown(CreateDbId(QStringLiteral("Door"), 3, DbIdType::eCAM)), "CreateDbId(\"cam_door_0003\")");
}

// Equal values are one key, and a difference in any part is another.
TEST(Values, GeometryAndIdentifiersAreKeys)
{
    const auto id = [](const char* name, int number, const char* kind) {
        return CreateDbId(QString::fromLatin1(name), number, QString::fromLatin1(kind));
    };
    const QSet<CreateDbId> ids{
        id("a", 1, "X"), id("b", 1, "X"), id("a", 2, "X"), id("a", 1, "Y"), id("a", 1, "X")};
    EXPECT_EQ(ids.size(), 4);
    EXPECT_TRUE(
        QSet<CreateDbId>({id("a", 1, "CAM")}).contains(CreateDbId(QStringLiteral("a"), 1, DbIdType::eCAM)));
    EXPECT_EQ((QSet<HVector2D>{{0.0, 1}, {-0.0, 1}, {1, 0}}.size()), 2) << "both zeros are equal";
    EXPECT_EQ((QSet<NUVIKA_RECT>{{1, 2, 3, 4}, {2, 1, 3, 4}, {1, 2, 4, 3}, {1, 2, 3, 4}}.size()), 3);
    EXPECT_EQ((QSet<NUVIKA_SIZE>{{1, 2}, {2, 1}, {1, 2}}.size()), 2);
    using KepNuvikaUtil::RECT;
    using KepNuvikaUtil::SIZE;
    EXPECT_TRUE((RECT{1, 2, 3, 4} == RECT{1, 2, 3, 4} && SIZE{1, 2} == SIZE{1, 2}));
    for (const RECT& other : {RECT{0, 2, 3, 4}, RECT{1, 0, 3, 4}, RECT{1, 2, 0, 4}, RECT{1, 2, 3, 0}})
        EXPECT_TRUE((other != RECT{1, 2, 3, 4}));
    EXPECT_TRUE((SIZE{1, 0} != SIZE{1, 2} && SIZE{0, 2} != SIZE{1, 2}));
}
