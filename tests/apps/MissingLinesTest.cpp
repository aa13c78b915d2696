#include "commands/MissingLines.h"

#include <QtCore/QString>

#include <gtest/gtest.h>

namespace
{
unsigned long s_nLooks = 0;

// A line that counts how often lines are looked at.
struct Line {
    int value = 0;
    bool operator==(const Line& other) const { return ++s_nLooks > 0 && value == other.value; }
};
uint qHash(const Line& line, uint seed) { return ++s_nLooks > 0 ? ::qHash(line.value, seed) : 0; }

unsigned long looksAt(int count, bool bAlike)
{
    std::vector<Line> given;
    std::vector<Line> kept;
    for (int i = 0; i < count; ++i) {
        given.push_back({bAlike ? 1 : i});
        if (i % 2 == 0)
            kept.push_back(given.back());
    }
    s_nLooks = 0;
    EXPECT_EQ(missingLines(given, kept).size(), std::size_t(count) / 2);
    return s_nLooks;
}
} // namespace

TEST(MissingLines, CountAsOftenAsTheyStandThere)
{
    const std::vector<QString> given{
        QStringLiteral("a"), QStringLiteral("b"), QStringLiteral("a"), QStringLiteral("c")};
    EXPECT_EQ(missingLines(given, {QStringLiteral("a"), QStringLiteral("c"), QStringLiteral("d")}),
        (std::vector<std::size_t>{1, 2}));
    EXPECT_TRUE(missingLines(given, given).empty());
}

TEST(MissingLines, AreFoundInAFewLooksAtEachLine)
{
    for (const bool bAlike : {false, true}) {
        const unsigned long once = looksAt(32000, bAlike);
        EXPECT_LT(once, 32000UL * 12) << bAlike;
        EXPECT_LT(looksAt(64000, bAlike), once * 22 / 10) << bAlike;
    }
}
