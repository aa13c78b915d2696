#include <KepNuvikaUtil/HttpAuthenticator.h>

#include "core/Log_p.h"
#include "http/HttpChallenge_p.h"
#include "http/HttpDigest_p.h"

#include <QtCore/QCryptographicHash>
#include <QtCore/QRandomGenerator>

#include <algorithm>
#include <string_view>

using namespace Nuvika;

namespace
{
constexpr char kTag[] = "digest";

bool isBeyondLatin1(const QString& text)
{
    return std::any_of(text.begin(), text.end(), [](QChar c) { return c.unicode() > 0xFF; });
}

// Unknown to the server until it is sent.
QByteArray makeClientNonce()
{
    QRandomGenerator& random = *QRandomGenerator::system();
    return QCryptographicHash::hash(
        QByteArray::number(random.generate(), 16) + QByteArray::number(random.generate(), 16),
        QCryptographicHash::Md5)
        .toHex();
}

// The value as a quoted-string.
void appendQuoted(QByteArray* target, const char* name, const QByteArray& value)
{
    const std::string_view text(value.constData(), static_cast<std::size_t>(value.size()));
    target->append(name).append('"');
    if (text.find('"') == text.npos && text.find('\\') == text.npos) { // QByteArray looks at each byte
        target->append(value);
    } else {
        for (const char c : value) {
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
    NUVIKA_DEBUG(
        lcHttp, "HttpAuthenticator::digestMd5Response: [%s] challenge:\n%s\n", kTag, challenge.constData());
    reset();
    int at = 0;
    if (!isDigestChallenge(challenge, &at))
        return false;
    HttpAuthenticator parsed;
    for (const auto& parameter : parseChallengeParameters(challenge.mid(at))) {
        const QByteArray& value = parameter.second;
        if (parameter.first == "nonce")
            parsed.m_nonce = value;
        else if (parameter.first == "opaque")
            parsed.m_opaque = value;
        else if (parameter.first == "algorithm")
            parsed.m_algorithm = value;
        else if (parameter.first == "realm")
            parsed.m_realm = value;
        else if (parameter.first == "qop")
            parsed.m_qop = chooseQop(value);
        else if (parameter.first == "charset")
            parsed.m_bUtf8 = value.toLower() == "utf-8";
    }
    parsed.m_pAlgorithm
        = parsed.m_algorithm.isEmpty() ? &defaultDigestAlgorithm() : findDigestAlgorithm(parsed.m_algorithm);
    if (!isSupportedQop(parsed.m_qop)) {
        NUVIKA_WARNING(lcHttp, "HttpAuthenticator::parseChallenge: [%s] unsupported qop '%s'!", kTag,
            qUtf8Printable(QString::fromLatin1(parsed.m_qop)));
        return false;
    }
    parsed.m_clientNonce = makeClientNonce();
    *this = parsed;
    return true;
}

QByteArray HttpAuthenticator::digestMd5Response(const QByteArray& challenge, const QByteArray& method,
    const QByteArray& path, const QByteArray& user, const QByteArray& password, const QByteArray& body)
{
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
    const bool bMd5 = m_pAlgorithm != nullptr && m_pAlgorithm->hash == DigestAlgorithm::Md5;
    return credentials(bMd5 ? *m_pAlgorithm : defaultDigestAlgorithm(), method, path, user, password, body);
}

QByteArray HttpAuthenticator::digestResponse(const QByteArray& challenge, const QByteArray& method,
    const QByteArray& path, const QString& user, const QString& password, const QByteArray& body)
{
    reset();
    if (!isLine(challenge) || !parseChallenge(challenge))
        return QByteArray();
    QByteArray response = nextDigestResponse(method, path, user, password, body);
    if (response.isEmpty())
        reset();
    return response;
}

QByteArray HttpAuthenticator::nextDigestResponse(const QByteArray& method, const QByteArray& path,
    const QString& user, const QString& password, const QByteArray& body)
{
    if (isNull() || m_pAlgorithm == nullptr)
        return QByteArray();
    const bool bUtf8 = m_bUtf8 || isBeyondLatin1(user) || isBeyondLatin1(password);
    return credentials(*m_pAlgorithm, method, path, bUtf8 ? user.toUtf8() : user.toLatin1(),
        bUtf8 ? password.toUtf8() : password.toLatin1(), body);
}

QByteArray HttpAuthenticator::credentials(const DigestAlgorithm& algorithm, const QByteArray& method,
    const QByteArray& path, const QByteArray& user, const QByteArray& password, const QByteArray& body)
{
    const QByteArray nc = nextNonceCount();
    const QByteArray response = Nuvika::digestResponse(
        algorithm, {user, m_realm, password, m_nonce, m_clientNonce, nc, m_qop, method, path, body});
    if (response.isEmpty()) {
        NUVIKA_WARNING(lcHttp, "HttpAuthenticator: [%s] OpenSSL made no %s hash!", kTag,
            algorithm.hash == DigestAlgorithm::Md5 ? "MD5" : "SHA-256");
        return QByteArray();
    }
    QByteArray value;
    value.reserve(300 + user.size() + m_realm.size() + m_nonce.size() + path.size() + m_opaque.size());
    appendQuoted(&value, "Digest username=", user);
    appendQuoted(&value, ", realm=", m_realm);
    appendQuoted(&value, ", nonce=", m_nonce);
    appendQuoted(&value, ", uri=", path);
    if (!m_opaque.isEmpty())
        appendQuoted(&value, ", opaque=", m_opaque);
    appendQuoted(&value, ", response=", response);
    if (!m_algorithm.isEmpty())
        value.append(", algorithm=").append(m_algorithm);
    if (!m_qop.isEmpty()) {
        value.append(", qop=").append(m_qop).append(", nc=").append(nc);
        appendQuoted(&value, ", cnonce=", m_clientNonce);
    }
    return value;
}

QByteArray HttpAuthenticator::nextNonceCount()
{
    auto count = static_cast<quint32>(m_nNonceCount) + 1; // a nonce may serve for months
    m_nNonceCount = static_cast<qint32>(count);
    QByteArray text(8, '0');
    for (int i = text.size(); count > 0; count >>= 4)
        text[--i] = "0123456789abcdef"[count & 15];
    return text;
}
