#include "support/LogCapture.h"
#include "support/Seams.h"

#include <KepNuvikaUtil/StrHlp.h>
#include <KepNuvikaUtil/VariableBuffer.h>

#include "msg/CryptoUtil_p.h"

#include <functional>
#include <gtest/gtest.h>
#include <random>
#include <vector>

namespace
{
const QString kMarker = QStringLiteral("ffb0b80b");
constexpr char kInvalid[] = "StrHlp::fromHex(): invalid input data";

// With the eight digits at that place replaced.
QString withDigits(QString text, int at, const char* digits)
{
    return text.replace(at, 8, QLatin1String(digits));
}
// A leading U+FEFF included, which Qt takes away.
QString utf8(const char* text) { return QString::fromUtf8(QByteArray("x") + text).mid(1); }

QString hexNumber(int value) { return QStringLiteral("%1").arg(value, 8, 16, QLatin1Char('0')); }
} // namespace

TEST(StrHlp, EncodesAndDecodes)
{
    EXPECT_EQ(StrHlp::toHex(QString()), QString());
    EXPECT_EQ(StrHlp::fromHex(QString()), QString());
    for (const char* text : {"abc", "a", "\xC3\xA4\xE2\x82\xAC\xF0\x9F\x94\x91", "with;=:\"\\",
             "0123456789abcdef", "\xEF\xBB\xBF", "\xEF\xBB\xBFmarked", "\xEF\xBB\xBF\xEF\xBB\xBF twice"}) {
        const QString plain = utf8(text);
        const QString hex = StrHlp::toHex(plain);
        EXPECT_TRUE(hex.startsWith(kMarker)) << "in lower case";
        EXPECT_EQ(hex.mid(8, 8).toInt(nullptr, 16), hex.size());
        EXPECT_EQ(StrHlp::getLength(hex, 0), hex.size());
        EXPECT_EQ(hex.mid(16, 8).toInt(nullptr, 16) * 2 + 24, hex.size());
        EXPECT_EQ(hex.mid(24, 16), QStringLiteral("fffeefef00000010"));
        EXPECT_EQ(StrHlp::fromHex(hex), plain);
        EXPECT_EQ(StrHlp::fromHex(hex.toUpper()), plain);
        for (const char* behind : {"0123", "0", "fff", " tail", "\n"})
            EXPECT_EQ(StrHlp::fromHex(hex + QLatin1String(behind)), plain) << "what stands behind is ignored";
        EXPECT_NE(StrHlp::toHex(plain), hex) << "never twice the same";
    }
    EXPECT_EQ(StrHlp::fromHex(QStringLiteral("plain")), QStringLiteral("plain"));
    for (const int size : {8, 12, 13, 28, 29, 32, 33, 45, 61, 4096, 100000}) {
        const QString plain = QString(size, QLatin1Char('p')) + QChar(0xFEFF);
        EXPECT_EQ(StrHlp::fromHexAll(QStringLiteral("<") + StrHlp::toHex(plain) + QStringLiteral(">")),
            QStringLiteral("<") + plain + QStringLiteral(">"));
    }
}

TEST(StrHlp, FindsItsMarkerInAnyCase)
{
    const QString mixed = QStringLiteral("xyFfB0b80B");
    EXPECT_EQ(StrHlp::indexOfMk(mixed, 3), -1);
    EXPECT_TRUE(StrHlp::containsMk(mixed));
    EXPECT_FALSE(StrHlp::hasMk(mixed));
    EXPECT_TRUE(StrHlp::hasMk(mixed.mid(2)));
    EXPECT_EQ(StrHlp::getLength(mixed, 2), 0);
    EXPECT_EQ(StrHlp::getLength(mixed, 0), 0);
    EXPECT_EQ(StrHlp::getLength(mixed + QStringLiteral("FFFFFFFE"), 2), -2) << "signed";
    std::mt19937 random(3);
    for (int round = 0; round < 20000; ++round) { // against Qt's own search, on texts full of near misses
        QString text;
        for (unsigned int i = 0; i < 30; ++i)
            text += QLatin1Char("FfBb08"[random() % 6]);
        if (round % 2 == 0)
            text.replace(static_cast<int>(random() % 22), 8, kMarker);
        ASSERT_EQ(StrHlp::indexOfMk(text, 0), text.indexOf(kMarker, 0, Qt::CaseInsensitive))
            << text.toStdString();
    }
}

TEST(StrHlp, ReplacesEveryMarkedStringInAText)
{
    const QString one = StrHlp::toHex(QStringLiteral("one"));
    const QString two = StrHlp::toHex(QStringLiteral("zwei; \u00E4"));
    EXPECT_EQ(StrHlp::fromHexAll(QStringLiteral("a ") + one + two.toUpper() + QStringLiteral(" b")),
        QStringLiteral("a onezwei; \u00E4 b"));
    EXPECT_EQ(StrHlp::fromHexAll(QStringLiteral("nothing")), QStringLiteral("nothing"));
    EXPECT_EQ(StrHlp::fromHexAll(QString()), QString());
    EXPECT_EQ(StrHlp::fromHexAll(StrHlp::toHex(QStringLiteral("in ") + one + QStringLiteral(" out"))),
        QStringLiteral("in one out"))
        << "a replacement that is marked itself";
    EXPECT_EQ(StrHlp::fromHexAll(StrHlp::toHex(QStringLiteral("ffb0")) + one.mid(4)), QStringLiteral("one"))
        << "one that is made by a replacement and what follows";
}

TEST(StrHlp, LeavesWhatIsDamagedAndEnds)
{
    const QString good = StrHlp::toHex(QStringLiteral("abc"));
    const QString tail = QStringLiteral(" tail");
    const std::vector<QString> damaged
        = {kMarker, kMarker + QStringLiteral("xyz"), kMarker + kMarker, withDigits(good, 8, "00000000"),
            withDigits(good, 8, "ffffffff"), withDigits(good, 8, "80000000"), withDigits(good, 8, "00000008"),
            withDigits(good, 8, "00000017"), good.left(40), withDigits(good, 16, "7fffffff"),
            withDigits(good, 16, "00000030"), QString(good).replace(30, 4, QStringLiteral("zzzz"))};
    for (const QString& text : damaged) {
        LogCapture log;
        EXPECT_EQ(StrHlp::fromHexAll(text + tail), text + tail);
        EXPECT_GE(log.records().size(), 1U) << text.toStdString();
        EXPECT_EQ(StrHlp::fromHexAll(text + tail + good), text + tail + QStringLiteral("abc"))
            << "and goes on behind it: " << text.toStdString();
    }
    LogCapture log;
    EXPECT_EQ(StrHlp::fromHexAll(withDigits(good, 8, "7fffffff")), QStringLiteral("abc"))
        << "a length beyond the text is cut there";
    EXPECT_EQ(StrHlp::fromHex(kMarker + QStringLiteral("xyz")), QString());
    EXPECT_TRUE(log.has(kInvalid, QtWarningMsg));
    const QString wrongVersion = withDigits(good, 24, "fffeefee");
    EXPECT_EQ(StrHlp::fromHex(wrongVersion), wrongVersion);
    EXPECT_TRUE(
        log.has("PwdDecrypter::decrypt(): crypto token version 4294897646 not supported in this release",
            QtWarningMsg));
    const QString none = withDigits(good, 16, "ffffffff");
    const QString empty = kMarker + QStringLiteral("0000001800000000");
    EXPECT_EQ(StrHlp::fromHex(none), none) << "a size that stands for none";
    EXPECT_EQ(StrHlp::fromHex(empty), empty);
    EXPECT_EQ(log.count("PwdDecrypter::decrypt(): invalid input data", QtWarningMsg), 2);
    const QString shortIv = kMarker + QStringLiteral("0000004c0000001afffeefef00000002ababffffffff");
    StrHlp::fromHex(shortIv + QString(32, QLatin1Char('0')));
    EXPECT_TRUE(log.has("PwdDecrypter::decrypt(): invalid input data, key size mismatch", QtWarningMsg));
}

// Marked strings of a stranger that overlap: each covers all that follows.
TEST(StrHlp, LooksAtEachCharacterAFewTimesOnly)
{
    const QString good = StrHlp::toHex(QString(300, QLatin1Char('x')));
    const QString end = good.right(64); // a last block whose padding is right, and the one before it
    const QString begin = kMarker + QStringLiteral("7fffffff");
    const auto whole = [&](int left) { // 96 characters, 48 bytes, behind which cipher text is left
        const int cipher = 48 * (left - 1) + 32;
        return begin + hexNumber(cipher + 28 + 8) + QStringLiteral("fffeefef00000010") + good.mid(40, 32)
            + hexNumber(cipher) + QStringLiteral("ffffffffffffffff");
    };
    const struct {
        const char* name;
        std::function<QString(int left)> unit; // to stand before so many like it
        QString tail;
    } texts[] = {
        {"short tokens", [&](int) { return begin + QStringLiteral("00000001"); }, {}},
        {"long tokens of nothing", [&](int left) { return begin + hexNumber(12 * (left - 1)); }, {}},
        {"tokens with a wrong end", whole, QString(64, QLatin1Char('0'))},
        {"tokens with a good end", whole, end},
        {"tokens with a good end and no digit before it",
            [&](int left) { return left == 1 ? whole(1).replace(90, 1, QLatin1Char('z')) : whole(left); },
            end},
        {"good ones", [&](int) { return good + QLatin1Char(' '); }, {}},
    };
    for (const auto& hostile : texts) {
        double read[2];
        for (const int i : {0, 1}) {
            QString text;
            for (int left = 2000 * (i + 1); left > 0; --left)
                text += hostile.unit(left);
            text += hostile.tail;
            LogCapture log;
            seams::hexDigitsRead = 0;
            StrHlp::fromHexAll(text);
            EXPECT_LT(seams::hexDigitsRead, 10 * text.size()) << hostile.name;
            read[i] = double(seams::hexDigitsRead);
        }
        EXPECT_NEAR(read[1] / read[0], 2.0, 0.2) << hostile.name;
    }
}

TEST(StrHlp, ReportsWhatTheCryptoLibraryRefuses)
{
    const QString good = StrHlp::toHex(QStringLiteral("abc"));
    LogCapture log;
    seams::crypto("EVP_EncryptFinal_ex").arm(1, 0);
    EXPECT_EQ(StrHlp::toHex(QStringLiteral("abc")), kMarker + QStringLiteral("0000001800000000"))
        << "an empty token";
    EXPECT_TRUE(log.has("PwdEncrypter::encrypt(): EVP_EncryptFinal_ex failed", QtCriticalMsg));
    seams::crypto("EVP_DecryptFinal_ex").arm(1, 0);
    EXPECT_EQ(StrHlp::fromHex(good), good);
    EXPECT_TRUE(log.has("PwdDecrypter::decrypt(): EVP_DecryptFinal_ex failed", QtWarningMsg));
    VariableBuffer in, out;
    in.setData("abc", 3);
    for (const char* function : {"EVP_DigestInit_ex", "EVP_DigestUpdate", "EVP_DigestFinal_ex"}) {
        out.setData("old", 3);
        seams::crypto(function).arm(1, 0);
        EXPECT_FALSE(CryptoUtil::sha256(in, &out));
        EXPECT_TRUE(out.isEmpty());
        EXPECT_TRUE(log.has(qPrintable(QStringLiteral("CryptoUtil::%1: ") + QLatin1String(function)
                                + QStringLiteral(" failed")),
            QtCriticalMsg));
    }
}

TEST(CryptoUtil, ComputesDigests)
{
    VariableBuffer in, out;
    in.setData("abc", 3);
    ASSERT_TRUE(CryptoUtil::sha1(in, &out));
    EXPECT_EQ(CryptoUtil::sha1("abc").toHex(), QByteArray("a9993e364706816aba3e25717850c26c9cd0d89d"));
    EXPECT_EQ(QByteArray(out.constData(), static_cast<int>(out.getSize())), CryptoUtil::sha1("abc"));
    ASSERT_TRUE(CryptoUtil::sha256(in, &out));
    EXPECT_EQ(QByteArray(out.constData(), static_cast<int>(out.getSize())), CryptoUtil::sha256("abc"));
    EXPECT_EQ(CryptoUtil::sha256("").toHex(),
        QByteArray("e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"));
}
