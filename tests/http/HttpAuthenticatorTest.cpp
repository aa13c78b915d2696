#include "http/HttpChallenge_p.h"
#include "support/LogCapture.h"

#include <KepNuvikaUtil/HttpAuthenticator.h>

#include <QtCore/QCryptographicHash>
#include <QtCore/QRegularExpression>

#include <gtest/gtest.h>

namespace
{
QByteArray md5(const QByteArray& text)
{
    return QCryptographicHash::hash(text, QCryptographicHash::Md5).toHex();
}

QByteArray field(const QByteArray& credentials, const char* name)
{
    const QRegularExpression expression(
        QStringLiteral("[ ,]%1=\"?((?:[^\",\\\\]|\\\\.)*)").arg(QLatin1String(name)));
    return expression.match(QString::fromLatin1(credentials)).captured(1).toLatin1();
}

QByteArray answer(HttpAuthenticator& a, const QByteArray& challenge, const QByteArray& body = QByteArray())
{
    return a.digestMd5Response(challenge, "GET", "/dir/index.html", "Mufasa", "Circle Of Life", body);
}

const QByteArray kRealm = "testrealm@host.com";
const QByteArray kNonce = "dcd98b7102dd2f0e8b11d0f600bfb0c093";
const QByteArray kHa1 = md5("Mufasa:" + kRealm + ":Circle Of Life");
const QByteArray kHa2 = md5("GET:/dir/index.html");
} // namespace

TEST(HttpAuthenticator, AnswersTheChallengeOfRfc2617)
{
    HttpAuthenticator a;
    EXPECT_TRUE(a.isNull());
    const QByteArray credentials = answer(a,
        "Digest realm=\"testrealm@host.com\", qop=\"auth,auth-int\", "
        "nonce=\"dcd98b7102dd2f0e8b11d0f600bfb0c093\", "
        "opaque=\"5ccc069c403ebaf9f0171e9517f40e41\"");
    const QByteArray cnonce = field(credentials, "cnonce");
    const QByteArray expected = md5(kHa1 + ':' + kNonce + ":00000001:" + cnonce + ":auth:" + kHa2);
    EXPECT_EQ(credentials,
        "Digest username=\"Mufasa\", realm=\"testrealm@host.com\", nonce=\"" + kNonce
            + "\", uri=\"/dir/index.html\", opaque=\"5ccc069c403ebaf9f0171e9517f40e41\", response=\""
            + expected + "\", qop=auth, nc=00000001, cnonce=\"" + cnonce + "\"");
    const QByteArray second
        = a.nextDigestMd5Response("GET", "/dir/index.html", "Mufasa", "Circle Of Life", "");
    EXPECT_EQ(field(second, "nc"), "00000002");
    EXPECT_EQ(field(second, "cnonce"), cnonce);
}

TEST(HttpAuthenticator, KnowsItsVariants)
{
    HttpAuthenticator a;
    const QByteArray start = "dIgEsT realm=\"testrealm@host.com\",nonce=\"" + kNonce + "\"";
    const QByteArray plain = answer(a, start);
    EXPECT_EQ(field(plain, "response"), md5(kHa1 + ':' + kNonce + ':' + kHa2));
    EXPECT_FALSE(plain.contains("qop") || plain.contains("cnonce") || plain.contains("nc="));

    const QByteArray session = answer(a, start + ",algorithm=MD5-sess , qop=auth");
    const QByteArray cnonce = field(session, "cnonce");
    const QByteArray ha1 = md5(kHa1 + ':' + kNonce + ':' + cnonce);
    EXPECT_EQ(field(session, "response"), md5(ha1 + ':' + kNonce + ":00000001:" + cnonce + ":auth:" + kHa2));
    EXPECT_EQ(field(session, "algorithm"), "MD5-sess");

    const QByteArray integrity = answer(a, start + ", qop=\"auth-int\"", "body");
    EXPECT_EQ(field(integrity, "qop"), "auth-int");
    EXPECT_EQ(field(integrity, "response"),
        md5(kHa1 + ':' + kNonce + ":00000001:" + field(integrity, "cnonce")
            + ":auth-int:" + md5("GET:/dir/index.html:" + md5("body"))));
    EXPECT_EQ(field(answer(a, start + ", qop=\"auth-int, auth\""), "qop"), "auth");
    EXPECT_EQ(field(answer(a, start + ", qop=\"other, auth-int\""), "qop"), "auth-int");

    LogCapture log;
    EXPECT_TRUE(answer(a, start + ", qop=\"Token\"").isEmpty());
    EXPECT_TRUE(a.isNull());
    EXPECT_TRUE(log.has("unsupported qop 'token'!", QtWarningMsg));
    EXPECT_TRUE(answer(a, "Basic realm=\"x\"").isEmpty());
    EXPECT_TRUE(answer(a, "Digest").isEmpty());
}

TEST(HttpAuthenticator, ReadsChallengesAsTheyAreSent)
{
    HttpAuthenticator a;
    const QByteArray escaped
        = answer(a, R"(Digest realm="a \"quoted\", \\realm", nonce=kx=:5b17==, stale=TRUE ,algorithm=md5)");
    EXPECT_TRUE(escaped.contains(R"(realm="a \"quoted\", \\realm")")) << escaped.constData();
    EXPECT_EQ(field(escaped, "nonce"), "kx=:5b17==");
    const QByteArray ha1 = md5(R"(Mufasa:a "quoted", \realm:Circle Of Life)");
    EXPECT_EQ(field(escaped, "response"), md5(ha1 + ":kx=:5b17==:" + kHa2));
    EXPECT_EQ(field(answer(a, "Digest   realm = \"r\" ,  nonce = \"n\"  , junk, =, \"odd"), "nonce"), "n");
}

TEST(HttpChallenge, ChoosesTheOneThatCanBeAnswered)
{
    const QByteArray basic = "Basic realm=\"x, y\"";
    const QByteArray md5Line = "Digest realm=\"r\", algorithm=MD5, nonce=\"n\"";
    const QByteArray sha = "Digest realm=\"r\", algorithm=SHA-256, nonce=\"n\"";
    const QByteArray bare = "Digest realm=\"r\", nonce=\"n\"";
    const QByteArray token = "Digest realm=\"r\", nonce=\"n\", qop=\"token\"";
    const QByteArray control = "Digest realm=\"r\rX: y\", nonce=\"n\"";
    const QByteArray other = "Negotiate";
    const struct {
        QList<QByteArray> fields;
        QByteArray chosen;
    } cases[] = {{{basic, sha, md5Line}, md5Line}, {{md5Line, basic}, md5Line}, {{sha, bare, basic}, bare},
        {{basic}, basic}, {{basic + ", " + bare}, bare}, {{bare + ", " + basic}, bare}, {{sha, basic}, basic},
        {{sha + ", " + basic}, basic}, {{token, basic}, basic}, {{control, basic}, basic},
        {{other, basic}, basic}, {{sha}, ""}, {{token}, ""}, {{other}, ""}, {{"Basically x=y"}, ""},
        {{}, ""}};
    for (const auto& c : cases)
        EXPECT_EQ(Nuvika::chooseChallenge(c.fields).trimmed(), c.chosen) << c.fields.join(" | ").constData();
}
