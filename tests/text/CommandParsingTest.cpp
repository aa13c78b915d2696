#include <KepNuvikaUtil/CommandParsing.h>
#include <KepNuvikaUtil/StrHlp.h>

#include "support/CpuTime.h"

#include <gtest/gtest.h>
#include <random>

namespace
{
QString q(const char* text) { return QString::fromUtf8(text); }

std::string tokens(const char* text, const char* separators, bool bStrip)
{
    QStringList out{q("x")};
    parseSubStrings(q(text), &out, q(separators), bStrip, false);
    EXPECT_EQ(out.takeFirst(), q("x")) << "the list is added to";
    for (QString& token : out)
        token = QLatin1Char('[') + token + QLatin1Char(']');
    return out.join(QString()).toStdString();
}

QString randomText(std::mt19937* random, unsigned int most, const char* letters)
{
    QString text;
    for (unsigned int i = (*random)() % most; i > 0; --i)
        text += QLatin1Char(letters[(*random)() % qstrlen(letters)]);
    return text;
}

QMap<QString, QVariant> parameters(const char* text, QString* command = nullptr)
{
    QMap<QString, QVariant> params{{q("old"), 1}};
    QString name = q("old");
    EXPECT_TRUE(parseCommand(q(text), name, params));
    if (command != nullptr)
        *command = name;
    return params;
}
} // namespace

TEST(CommandParsing, Tokenises)
{
    const struct {
        const char* text;
        const char* tokens;
        const char* separators = " ";
        bool bStrip = true;
    } rows[] = {
        {"a  b", "[a][b]"}, {R"("a b" c)", "[a b][c]"}, {R"("a b" c)", R"(["a b"][c])", " ", false},
        {R"(x\ty)", "[x\ty]"}, {R"(x\ty)", R"([x\ty])", " ", false}, {"", ""}, {"   ", ""},
        {R"("")", "[]"}, // a quoted empty string is a token
        {R"(a "" b)", "[a][][b]"}, {R"(;" a ";)", "[a]", ";"}, // trimmed, quoted or not
        {R"("open ; end)", "[open ; end]", ";"}, {R"(a\)", "[a]"}, {R"(a\;b;c)", "[a;b][c]", ";"},
        {R"(a"b"c)", "[abc]"}, {R"(a"b)", "[a][b]", "\""}, // a separator first, whatever else it is
        {R"(a\b)", "[a][b]", "\\"}, {R"(\x\n\\)", "[x\n\\]", "x"},
        {R"("a\"b\n;" c\" d)", "[a\"b\n;][c\"][d]"}, // escapes in and out of quotes
        {R"("a\"b\n;" c)", R"(["a\"b\n;"][c])", " ", false}, // and nothing is taken away
        {R"(one\ two" three"four)", "[one two threefour]"}, // quotes inside a token
    };
    for (const auto& row : rows)
        EXPECT_EQ(tokens(row.text, row.separators, row.bStrip), row.tokens) << row.text;
}

TEST(CommandParsing, EscapesAndTakesItBack)
{
    EXPECT_EQ(escapeString(q("a\r\n\t\"\\;b"), q(";")), q("a\\r\\n\\t\\\"\\\\\\;b"));
    std::mt19937 random(9);
    for (int round = 0; round < 5000; ++round) {
        const QString text = q("x") + randomText(&random, 12, "ab \"\\\r\n\t;") + q("x");
        ASSERT_EQ(deEscapeString(escapeString(text, QString())), text);
    }
    EXPECT_EQ(deEscapeString(QString()), QString());
    EXPECT_EQ(deEscapeString(q("\"  blanks go  \"")), q("blanks go"));
    EXPECT_EQ(deEscapeString(StrHlp::toHex(q("secret"))), q("secret"));
    EXPECT_EQ(getDefaultEscapeChars(), q("\"\r\n\t\\"));
    EXPECT_EQ(getDefaultSeparatorChars(), QString::fromLatin1("\t\v\f \0", 5));
    EXPECT_EQ(getWhitespaceChars(), QString::fromLatin1("\t\n\v\f\r \0", 7));
}

TEST(CommandParsing, ParsesCommands)
{
    const std::string hex = StrHlp::toHex(q("geheim")).toStdString();
    const struct {
        std::string text;
        const char* told; // command, and key=value in order; a key without value is without =
    } rows[] = {
        {"set:Name=Cam1;Mode", "set Mode name=Cam1"}, // the case of a key without value is kept
        {"a=1;b=2", " a=1 b=2"},
        {"cmd:url=rtsp://h:554/x?a=b=c", "cmd url=rtsp://h:554/x?a=b=c"},
        {"", ""},
        {":;;", ""},
        {"c:a=1;A=2", "c a=2"}, // a later one replaces
        {"c:==", "c"},
        {"c:k=\"\"", "c k"}, // quotes protect one level of splitting only
        {"login:user=u;password=" + hex, "login password=geheim user=u"},
    };
    for (const auto& row : rows) {
        QString told;
        const auto params = parameters(row.text.c_str(), &told);
        for (auto each = params.begin(); each != params.end(); ++each)
            told += q(" ") + each.key() + (each->isValid() ? q("=") + each->toString() : QString());
        EXPECT_EQ(told, q(row.told)) << row.text;
    }
}

TEST(CommandParsing, ParsesDefinitions)
{
    QMap<QString, QVariant> params{{q("old"), 1}};
    EXPECT_TRUE(parseDefinition(q("Name=Cam1;Mode;x=a=b"), params, false));
    EXPECT_EQ(params.keys(), QStringList({q("Mode"), q("Name"), q("x")})) << "keys keep their case";
    EXPECT_EQ(params.value(q("x")), QVariant(q("a=b")));
    const QString hex = StrHlp::toHex(q("p"));
    parseDefinition(q("password=") + hex, params, false);
    EXPECT_EQ(params.value(q("password")), QVariant(hex));
    parseDefinition(q("password=") + hex, params, true);
    EXPECT_EQ(params.value(q("password")), QVariant(q("p")));
}

TEST(CommandParsing, SplitsAsItsThreeStepsSay)
{
    const auto split = [](const QString& text, const char* separator) {
        QStringList parts;
        parseSubStrings(text, &parts, q(separator), true, true);
        while (parts.size() > 2) {
            const QString third = parts.takeAt(2);
            parts[1] += q(separator) + third;
        }
        return parts;
    };
    std::mt19937 random(5);
    for (int round = 0; round < 20000; ++round) {
        // Half of the texts without quotes and backslashes.
        const QString text = randomText(&random, 24, round % 2 == 0 ? "aB :;==\t:;" : "aB :;==\t:;\"\\");
        const QStringList parts = split(text, ":");
        QMap<QString, QVariant> expected;
        QStringList items;
        parseSubStrings(parts.isEmpty() ? QString() : parts.last(), &items, q(";"), true, true);
        for (const QString& item : items) {
            const QStringList pair = split(item, "=");
            if (pair.size() == 2)
                expected[pair[0].toLower()] = pair[1];
            else if (pair.size() == 1)
                expected[pair[0]] = QVariant();
        }
        QString command;
        QMap<QString, QVariant> params;
        parseCommand(text, command, params);
        ASSERT_EQ(params, expected) << text.toStdString();
        ASSERT_EQ(command, parts.size() == 2 ? parts[0] : QString()) << text.toStdString();
    }
}

TEST(CommandParsing, ValuesThatWereEscapedForEachSplitComeBack)
{
    EXPECT_EQ(
        parameters("command:key=value;other=\"\\\"va;lue\\\"\"").value(q("other")), QVariant(q("va;lue")));
    const auto guarded = [](const QString& s) { return escapeString(s, q(":;=")); };
    std::mt19937 random(6);
    for (int round = 0; round < 3000; ++round) {
        const QString value
            = q(round == 0 ? "x;role=admin" : "x") + randomText(&random, 12, "a \"\\\r\n\t;:=") + q("x");
        const QString twice = guarded(guarded(value));
        const QString line = q("login:role=guest;password=");
        for (const QString& text : {guarded(twice), StrHlp::toHex(guarded(twice))}) {
            const auto params = parameters((line + text).toUtf8().constData());
            ASSERT_EQ(params.value(q("password")), QVariant(value));
            ASSERT_EQ(params.value(q("role")), QVariant(q("guest")));
        }
        QMap<QString, QVariant> params;
        parseDefinition(q("a=1;password=") + twice, params, false);
        ASSERT_EQ(params.value(q("password")), QVariant(value));
    }
}

TEST(CommandParsing, TakesItsOwnResultsAsArguments)
{
    QStringList list{q("first"), q("a b c d e f g h i j k l m n o p q r s t u v w x y z")};
    parseSubStrings(list.last(), &list, q(" "), true, true);
    EXPECT_EQ(list.mid(2).join(QString()), q("abcdefghijklmnopqrstuvwxyz"));
    QString text = q("set:name=Cam1");
    QMap<QString, QVariant> params;
    parseCommand(text, text, params);
    EXPECT_EQ(text, q("set"));
    EXPECT_EQ(params.value(q("name")), QVariant(q("Cam1")));
    for (const bool bDefinition : {true, false}) {
        params = {{q("go:a=1;b=2"), QVariant()}};
        const QString& key = params.firstKey();
        bDefinition ? parseDefinition(key, params, true) : parseCommand(key, text, params);
        EXPECT_EQ(params.value(q("b")), QVariant(q("2")));
    }
}

TEST(CommandParsing, TakesAMillionParametersInLinearTime)
{
    const auto measure = [](int count) {
        QString text = q("c:");
        for (int i = 0; i < count; ++i)
            text += q("k%1=v;").arg(i);
        text += QString(count, QLatin1Char(':')) + q("x=") + q("=y").repeated(count);
        QString command;
        QMap<QString, QVariant> params;
        const qint64 begin = cpuTimeNs();
        parseCommand(text, command, params);
        EXPECT_EQ(params.size(), count + 1);
        return (cpuTimeNs() - begin) / 1000000;
    };
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    constexpr int kMany = 100000;
#else
    constexpr int kMany = 1000000;
#endif
    const qint64 small = measure(kMany / 10);
    EXPECT_LT(measure(kMany), 60 * std::max<qint64>(small, 10));
}
