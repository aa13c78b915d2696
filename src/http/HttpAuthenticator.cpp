#include <KepNuvikaUtil/HttpAuthenticator.h>

#include "core/Log_p.h"
#include "http/HttpChallenge_p.h"

#include <QtCore/QCryptographicHash>
#include <QtCore/QRandomGenerator>

#include <initializer_list>

using namespace Nuvika;

namespace
{
constexpr char kTag[] = "digest";

QByteArray hexMd5(const QByteArray& text)
{
    return QCryptographicHash::hash(text, QCryptographicHash::Md5).toHex();
}

// The hexadecimal hash of the parts, joined by colons.
QByteArray hexMd5(QCryptographicHash& hash, std::initializer_list<const QByteArray*> parts)
{
    hash.reset();
    bool bFirst = true;
    for (const QByteArray* part : parts) {
        if (!bFirst)
            hash.addData(":", 1);
        hash.addData(part->constData(), part->size());
        bFirst = false;
    }
    return hash.result().toHex();
}

// As a quoted-string.
void appendQuoted(QByteArray* target, const QByteArray& text)
{
    *target += '"';
    if (!text.contains('"') && !text.contains('\\')) {
        *target += text;
    } else {
        for (const char c : text) {
            if (c == '"' || c == '\\')
                *target += '\\';
            *target += c;
        }
    }
    *target += '"';
}
} // namespace

void HttpAuthenticator::reset() { *this = HttpAuthenticator(); }

bool HttpAuthenticator::parseChallenge(const QByteArray& challenge)
{
    reset();
    int at = 0;
    if (!isDigestChallenge(challenge, &at))
        return false;
    HttpAuthenticator parsed;
    for (const auto& parameter : parseChallengeParameters(challenge.mid(at))) {
        const QString value = QString::fromLatin1(parameter.second);
        if (parameter.first == "nonce")
            parsed.m_nonce = value;
        else if (parameter.first == "opaque")
            parsed.m_opaque = value;
        else if (parameter.first == "algorithm")
            parsed.m_algorithm = value;
        else if (parameter.first == "realm")
            parsed.m_realm = value;
        else if (parameter.first == "qop")
            parsed.m_qop = QString::fromLatin1(chooseQop(parameter.second));
    }
    if (!isSupportedQop(parsed.m_qop.toLatin1())) {
        NUVIKA_WARNING(lcHttp, "HttpAuthenticator::parseChallenge: [%s] unsupported qop '%s'!", kTag,
            qUtf8Printable(parsed.m_qop));
        return false;
    }
    QRandomGenerator& random = *QRandomGenerator::global();
    parsed.m_clientNonce
        = hexMd5(QByteArray::number(random.generate(), 16) + QByteArray::number(random.generate(), 16));
    *this = parsed;
    return true;
}

QByteArray HttpAuthenticator::digestMd5Response(const QByteArray& challenge, const QByteArray& method,
    const QByteArray& path, const QByteArray& user, const QByteArray& password, const QByteArray& body)
{
    NUVIKA_DEBUG(
        lcHttp, "HttpAuthenticator::digestMd5Response: [%s] challenge:\n%s\n", kTag, challenge.constData());
    if (!parseChallenge(challenge))
        return QByteArray();
    QByteArray response = nextDigestMd5Response(method, path, user, password, body);
    if (response.isEmpty())
        reset();
    return response;
}

QByteArray HttpAuthenticator::nextDigestMd5Response(const QByteArray& method, const QByteArray& path,
    const QByteArray& user, const QByteArray& password, const QByteArray& body)
{
    if (isNull())
        return QByteArray();
    ++m_nNonceCount;
    const QByteArray nc = QByteArray::number(m_nNonceCount, 16).rightJustified(8, '0');
    const QByteArray nonce = m_nonce.toLatin1();
    const QByteArray realm = m_realm.toLatin1();
    const QByteArray qop = m_qop.toLatin1();

    QCryptographicHash hash(QCryptographicHash::Md5);
    QByteArray ha1 = hexMd5(hash, {&user, &realm, &password});
    if (m_algorithm.compare(QLatin1String("md5-sess"), Qt::CaseInsensitive) == 0)
        ha1 = hexMd5(hash, {&ha1, &nonce, &m_clientNonce});
    const QByteArray entity = qop == "auth-int" ? hexMd5(body) : QByteArray();
    const QByteArray ha2
        = entity.isEmpty() ? hexMd5(hash, {&method, &path}) : hexMd5(hash, {&method, &path, &entity});
    const QByteArray digest = qop.isEmpty() ? hexMd5(hash, {&ha1, &nonce, &ha2})
                                            : hexMd5(hash, {&ha1, &nonce, &nc, &m_clientNonce, &qop, &ha2});

    QByteArray value;
    value.reserve(200 + user.size() + realm.size() + nonce.size() + path.size() + m_opaque.size());
    value += "Digest username=";
    appendQuoted(&value, user);
    value += ", realm=";
    appendQuoted(&value, realm);
    value += ", nonce=";
    appendQuoted(&value, nonce);
    value += ", uri=";
    appendQuoted(&value, path);
    value += ", ";
    if (!m_opaque.isEmpty()) {
        value += "opaque=";
        appendQuoted(&value, m_opaque.toLatin1());
        value += ", ";
    }
    value += "response=";
    appendQuoted(&value, digest);
    if (!m_algorithm.isEmpty())
        value += ", algorithm=" + m_algorithm.toLatin1();
    if (!qop.isEmpty()) {
        value += ", qop=" + qop + ", nc=" + nc + ", cnonce=";
        appendQuoted(&value, m_clientNonce);
    }
    return value;
}
