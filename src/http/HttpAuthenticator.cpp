#include <KepNuvikaUtil/HttpAuthenticator.h>

#include "core/Log_p.h"
#include "http/HttpChallenge_p.h"

#include <QtCore/QCryptographicHash>
#include <QtCore/QRandomGenerator>

using namespace Nuvika;

namespace
{
constexpr char kTag[] = "digest";

QByteArray md5(const QByteArray& text) { return QCryptographicHash::hash(text, QCryptographicHash::Md5); }

QByteArray hexMd5(const QByteArray& text) { return md5(text).toHex(); }

// The text of a quoted-string.
QByteArray quoted(const QByteArray& text)
{
    QByteArray result;
    result.reserve(text.size() + 2);
    result += '"';
    for (const char c : text) {
        if (c == '"' || c == '\\')
            result += '\\';
        result += c;
    }
    result += '"';
    return result;
}

QString chooseQop(const QByteArray& list)
{
    QString chosen;
    for (const QByteArray& item : list.split(',')) {
        const QByteArray token = item.trimmed().toLower();
        if (token == "auth")
            return QStringLiteral("auth");
        if (token == "auth-int")
            chosen = QStringLiteral("auth-int");
        else if (chosen != QLatin1String("auth-int"))
            chosen = QString::fromLatin1(token);
    }
    return chosen;
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
            parsed.m_qop = chooseQop(parameter.second);
    }
    if (!parsed.m_qop.isEmpty() && parsed.m_qop != QLatin1String("auth")
        && parsed.m_qop != QLatin1String("auth-int")) {
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
    NUVIKA_DEBUG(lcHttp, "HttpAuthenticator::digestMd5Response: [%s] challenge:\n%s\n", kTag, challenge.constData());
    if (!parseChallenge(challenge))
        return QByteArray();
    const QByteArray response = nextDigestMd5Response(method, path, user, password, body);
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

    QByteArray ha1 = hexMd5(user + ':' + realm + ':' + password);
    if (m_algorithm.compare(QLatin1String("md5-sess"), Qt::CaseInsensitive) == 0)
        ha1 = hexMd5(ha1 + ':' + nonce + ':' + m_clientNonce);
    QByteArray a2 = method + ':' + path;
    if (qop == "auth-int")
        a2 += ':' + hexMd5(body);
    QByteArray input = ha1 + ':' + nonce + ':';
    if (!qop.isEmpty())
        input += nc + ':' + m_clientNonce + ':' + qop + ':';
    const QByteArray digest = hexMd5(input + hexMd5(a2));

    QByteArray value = "Digest username=" + quoted(user) + ", realm=" + quoted(realm) + ", nonce=" + quoted(nonce)
        + ", uri=" + quoted(path) + ", ";
    if (!m_opaque.isEmpty())
        value += "opaque=" + quoted(m_opaque.toLatin1()) + ", ";
    value += "response=" + quoted(digest);
    if (!m_algorithm.isEmpty())
        value += ", algorithm=" + m_algorithm.toLatin1();
    if (!qop.isEmpty())
        value += ", qop=" + qop + ", nc=" + nc + ", cnonce=" + quoted(m_clientNonce);
    return value;
}
