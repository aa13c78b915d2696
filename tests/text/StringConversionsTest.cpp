#include <KepNuvikaUtil/StringConversions.h>

#include <gtest/gtest.h>

namespace
{
struct Parsed {
    long long value;
    bool ok;
    bool operator==(const Parsed& other) const { return value == other.value && ok == other.ok; }
};

Parsed toInt(const char* text)
{
    const QString s = QString::fromUtf8(text);
    bool ok = false;
    const int value = QStringRefToInt32(QStringRef(&s), &ok);
    return {value, ok};
}

Parsed toUInt(const char* text)
{
    const QString s = QString::fromUtf8(text);
    bool ok = false;
    const unsigned int value = QStringRefToUInt32(QStringRef(&s), &ok);
    return {value, ok};
}
} // namespace

TEST(StringConversions, ReadsPlainDecimalsOnly)
{
    EXPECT_EQ(toInt(""), (Parsed{0, true}));
    EXPECT_EQ(toInt("-"), (Parsed{0, true}));
    EXPECT_EQ(toInt("-12"), (Parsed{-12, true}));
    for (const char* text : {" 12", "+12", "12a", "--1", "0x1"}) {
        EXPECT_EQ(toInt(text), (Parsed{0, false})) << text;
        EXPECT_EQ(toUInt(text), (Parsed{0, false})) << text;
    }
    EXPECT_EQ(toUInt("-12"), (Parsed{0, false}));
    EXPECT_EQ(toUInt("4294967296"), (Parsed{0, true})) << "wraps";
    EXPECT_EQ(toInt("2147483648"), (Parsed{-2147483648LL, true})) << "wraps";
    EXPECT_EQ(toInt("٣٤"), (Parsed{34, true})) << "digits of any script";
    const QString s = QStringLiteral("7");
    EXPECT_EQ(QStringRefToInt32(QStringRef(&s), nullptr), 7);
}

TEST(StringConversions, CopiesUnitsOneToOne)
{
    const QString smile = QString::fromUtf8("\xF0\x9F\x98\x80!");
    const std::wstring wide = QStringToStd(smile);
    ASSERT_EQ(wide.size(), 3U);
    EXPECT_EQ(wide[0], 0xD83D);
    EXPECT_EQ(QStringFromWChar(wide.c_str(), -1), smile);
    const wchar_t whole[] = {0x1F600, L'!', 0};
    EXPECT_EQ(QStringFromWChar(whole, 2), smile) << "a unit above the basic plane becomes a pair";
    const wchar_t mark[] = {0xFEFF, L'a', 0};
    EXPECT_EQ(QStringFromWChar(mark, -1).size(), 2) << "a byte order mark is text";
    EXPECT_TRUE(QStringFromWChar(nullptr, 5).isEmpty());
    std::vector<std::wstring> list{L"old"};
    QStringListToStd({QStringLiteral("a"), QString()}, &list);
    EXPECT_EQ(list, (std::vector<std::wstring>{L"a", L""}));
}
