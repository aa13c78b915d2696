#include <KepNuvikaUtil/StringConversions.h>

#include <gtest/gtest.h>

namespace
{
template <class Number>
std::string parsed(Number (*parse)(const QStringRef&, bool*), const char* text)
{
    const QString s = QString::fromUtf8(text);
    bool ok = false;
    const Number value = parse(QStringRef(&s), &ok);
    return ok ? std::to_string(value) : "no";
}
} // namespace

TEST(StringConversions, ReadsPlainDecimalsOnly)
{
    const struct {
        const char* text;
        const char* asInt;
        const char* asUInt;
    } rows[]
        = {{"", "0", "0"}, {"-", "0", "no"}, {"-12", "-12", "no"}, {" 12", "no", "no"}, {"+12", "no", "no"},
            {"12a", "no", "no"}, {"--1", "no", "no"}, {"0x1", "no", "no"}, {"4294967296", "0", "0"},
            {"2147483648", "-2147483648", "2147483648"}, {"٣٤", "34", "34"}}; // wraps; digits of any script
    for (const auto& row : rows) {
        EXPECT_EQ(parsed(QStringRefToInt32, row.text), row.asInt) << row.text;
        EXPECT_EQ(parsed(QStringRefToUInt32, row.text), row.asUInt) << row.text;
    }
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
