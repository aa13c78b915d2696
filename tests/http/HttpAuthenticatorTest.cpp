#include "http/HttpChallenge_p.h"
#include "support/LogCapture.h"
#include "support/Seams.h"

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

QByteArray sha256(const QByteArray& text)
{
    return QCryptographicHash::hash(text, QCryptographicHash::Sha256).toHex();
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

TEST(HttpAuthenticator, AnswersInTheWordsOfRfc2617)
{
    HttpAuthenticator a;
    EXPECT_TRUE(a.isNull());
    const QByteArray opaque = "opaque=\"5ccc069c403ebaf9f0171e9517f40e41\"";
    const QByteArray credentials = answer(
        a, "dIgEsT realm=\"testrealm@host.com\",qop=\"auth,auth-int\" , nonce=\"" + kNonce + "\", " + opaque);
    const QByteArray cnonce = field(credentials, "cnonce");
    const QByteArray expected = md5(kHa1 + ':' + kNonce + ":00000001:" + cnonce + ":auth:" + kHa2);
    EXPECT_EQ(credentials,
        "Digest username=\"Mufasa\", realm=\"testrealm@host.com\", nonce=\"" + kNonce
            + "\", uri=\"/dir/index.html\", " + opaque + ", response=\"" + expected
            + "\", qop=auth, nc=00000001, cnonce=\"" + cnonce + "\"");
    const QByteArray next = a.nextDigestMd5Response("GET", "/dir/index.html", "Mufasa", "Circle Of Life", "");
    EXPECT_EQ(field(next, "nc"), "00000002");
    EXPECT_EQ(field(next, "cnonce"), cnonce);
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

TEST(HttpAuthenticator, HashesAsTheChallengeAsks)
{
    const QByteArray start = "Digest realm=\"r\", nonce=\"n\"";
    const struct {
        QByteArray parameters;
        QByteArray (*hash)(const QByteArray&);
        bool bSession;
        const char* qop;
    } cases[] = {{"", md5, false, ""}, {", algorithm=MD5, qop=auth", md5, false, "auth"},
        {", qop=\"other, auth-int\"", md5, false, "auth-int"},
        {", algorithm=md5-SESS, qop=auth", md5, true, "auth"}, {", algorithm=SHA-256", sha256, false, ""},
        {", algorithm=\"sha-256\", qop=\"auth-int, auth\"", sha256, false, "auth"},
        {", algorithm=SHA-256-sess, qop=auth-int", sha256, true, "auth-int"}};
    const QString user = QStringLiteral("u");
    const QString password = QStringLiteral("p");
    for (const auto& c : cases) {
        HttpAuthenticator a;
        QByteArray firstNonce;
        for (const char* nc : {"00000001", "00000002"}) {
            const QByteArray credentials = firstNonce.isEmpty()
                ? a.digestResponse(start + c.parameters, "PUT", "/1", user, password, "body")
                : a.nextDigestResponse("PUT", "/1", user, password, "body");
            const QByteArray cnonce = field(credentials, "cnonce");
            firstNonce = firstNonce.isEmpty() ? cnonce : firstNonce;
            QByteArray key = c.hash("u:r:p");
            if (c.bSession)
                key = c.hash(key + ":n:" + firstNonce);
            const QByteArray qop = c.qop;
            const QByteArray request
                = c.hash(qop == "auth-int" ? "PUT:/1:" + c.hash("body") : QByteArray("PUT:/1"));
            const QByteArray count = qop.isEmpty() ? "" : nc + (':' + cnonce) + ':' + qop + ':';
            EXPECT_EQ(field(credentials, "response"), c.hash(key + ":n:" + count + request))
                << nc << c.parameters.constData();
            EXPECT_EQ(field(credentials, "nc"), qop.isEmpty() ? "" : nc) << c.parameters.constData();
            EXPECT_EQ(credentials.contains("algorithm="), c.parameters.contains("algorithm="))
                << "only what the challenge names: " << credentials.constData();
        }
        const QByteArray again = a.digestResponse(start + c.parameters, "PUT", "/1", user, password, "body");
        EXPECT_NE(field(again, "cnonce"), firstNonce.isEmpty() ? "none" : firstNonce);
        EXPECT_EQ(field(again, "nc"), field(again, "qop").isEmpty() ? "" : "00000001");
    }
}

TEST(HttpAuthenticator, RefusesWhatItCannotAnswerAndNeverHashesWithMd5Instead)
{
    HttpAuthenticator a;
    const QString user = QStringLiteral("u");
    const QByteArray start = "Digest realm=\"r\", nonce=\"n\"";
    for (const QByteArray& challenge : {start + ", algorithm=SHA-512-256", start + ", algorithm=SHA-256-",
             start + ", algorithm=token", start + ", qop=Token", start + ", opaque=\"a\r\nX: y\"",
             QByteArray("Basic realm=\"r\""), QByteArray("Digest")}) {
        LogCapture log;
        a.digestResponse(start, "GET", "/", user, user, "");
        EXPECT_TRUE(a.digestResponse(challenge, "GET", "/", user, user, "").isEmpty())
            << challenge.constData();
        EXPECT_TRUE(a.isNull() && a.nextDigestResponse("GET", "/", user, user, "").isEmpty())
            << challenge.constData();
        EXPECT_EQ(log.has("unsupported qop 'token'!", QtWarningMsg), challenge.contains("Token"));
    }
    const QByteArray told = answer(a, start + ", algorithm=SHA-256-sess");
    EXPECT_EQ(field(told, "response"), md5(md5("Mufasa:r:Circle Of Life") + ":n:" + kHa2)) << "by its name";

    for (const char* step : {"EVP_DigestInit_ex", "EVP_DigestUpdate", "EVP_DigestFinal_ex"}) {
        LogCapture log;
        seams::crypto(step).arm(1, 0);
        EXPECT_TRUE(a.digestResponse(start + ", algorithm=SHA-256", "GET", "/", user, user, "").isEmpty())
            << step;
        EXPECT_TRUE(a.isNull() && log.has("OpenSSL made no SHA-256 hash!", QtWarningMsg)) << step;
    }
}

TEST(HttpAuthenticator, SendsUserAndPasswordInTheChallengesCharset)
{
    const QString name = QString::fromUtf8("J\xC3\xA4s\xC3\xB8n");
    const QString euro = QString::fromUtf8("\xE2\x82\xAC");
    const QByteArray start = "Digest realm=\"r\", nonce=\"n\", algorithm=SHA-256";
    const struct {
        QByteArray challenge;
        QString password;
        QByteArray user; // as it is sent
        QByteArray secret;
    } cases[] = {{start, name, name.toLatin1(), name.toLatin1()},
        {start + ", charset=utf-8", name, name.toUtf8(), name.toUtf8()},
        {start + ", charset=\"UTF-8\", userhash=true", name, name.toUtf8(), name.toUtf8()},
        {start + ", userhash=false, charset=latin", name, name.toLatin1(), name.toLatin1()},
        {start, euro, name.toUtf8(), euro.toUtf8()}};
    for (const auto& c : cases) {
        HttpAuthenticator a;
        const QByteArray credentials = a.digestResponse(c.challenge, "GET", "/", name, c.password, "");
        EXPECT_EQ(field(credentials, "username"), c.user) << c.challenge.constData();
        EXPECT_EQ(field(credentials, "response"),
            sha256(sha256(c.user + ":r:" + c.secret) + ":n:" + sha256("GET:/")))
            << c.challenge.constData();
        EXPECT_FALSE(credentials.contains("userhash")) << "the name stands in the clear";
    }
}

TEST(HttpChallenge, ChoosesTheOneThatCanBeAnswered)
{
    const QByteArray basic = "Basic realm=\"x, y\"";
    const QByteArray md5Line = "Digest realm=\"r\", algorithm=MD5, nonce=\"n\"";
    const QByteArray sha = "Digest realm=\"r\", algorithm=\"sha-256\", nonce=\"n\"";
    const QByteArray session = "Digest realm=\"r\", algorithm=SHA-256-sess, nonce=\"n\"";
    const QByteArray truncated = "Digest realm=\"r\", algorithm=SHA-512-256, nonce=\"n\"";
    const QByteArray bare = "Digest realm=\"r\", nonce=\"n\"";
    const QByteArray token = "Digest realm=\"r\", nonce=\"n\", qop=\"token\"";
    const QByteArray control = "Digest realm=\"r\rX: y\", nonce=\"n\"";
    const QByteArray other = "Negotiate";
    const struct {
        QList<QByteArray> fields;
        QByteArray chosen;
    } cases[] = {{{basic, md5Line, sha}, sha}, {{sha, basic, md5Line}, sha}, {{md5Line, basic}, md5Line},
        {{truncated, bare, basic}, bare}, {{bare, md5Line}, md5Line}, {{basic}, basic},
        {{basic + ", " + bare}, bare}, {{bare + ", " + basic}, bare}, {{truncated, basic}, basic},
        {{truncated + ", " + basic}, basic}, {{sha + "," + session}, sha}, {{session, sha}, session},
        {{other + ", " + truncated + ", " + md5Line + ", " + sha + ", " + basic}, sha},
        {{truncated + ", Unknown a=\"Digest b, c\", " + md5Line, basic, other}, md5Line},
        {{token, basic}, basic}, {{control, basic}, basic}, {{other, basic}, basic}, {{truncated}, ""},
        {{token}, ""}, {{other}, ""}, {{"Basically x=y"}, ""}, {{}, ""}};
    for (const auto& c : cases)
        EXPECT_EQ(Nuvika::chooseChallenge(c.fields).trimmed(), c.chosen) << c.fields.join(" | ").constData();
}
