#include "DigestGuard.h"

#include <QtCore/QCryptographicHash>
#include <QtCore/QRandomGenerator>

namespace
{
QByteArray hexMd5(const QByteArray& text)
{
    return QCryptographicHash::hash(text, QCryptographicHash::Md5).toHex();
}

// The value of a parameter of our own form: name="value" or name=value.
QByteArray parameter(const QByteArray& credentials, const QByteArray& name)
{
    for (const char* lead : {" ", ","}) {
        int at = credentials.indexOf(lead + name + '=');
        if (at < 0)
            continue;
        at += name.size() + 2;
        const bool bQuoted = at < credentials.size() && credentials.at(at) == '"';
        const int start = bQuoted ? at + 1 : at;
        int end = credentials.indexOf(bQuoted ? '"' : ',', start);
        end = end < 0 ? credentials.size() : end;
        return credentials.mid(start, end - start).trimmed();
    }
    return QByteArray();
}
} // namespace

DigestGuard::DigestGuard(const QByteArray& realm, const QByteArray& user, const QByteArray& password)
    : m_realm(realm), m_user(user), m_ha1(hexMd5(user + ':' + realm + ':' + password)),
      m_nonce(QByteArray::number(QRandomGenerator::system()->generate64(), 16))
{
}

QString DigestGuard::challenge() const
{
    return QStringLiteral("Digest realm=\"%1\", nonce=\"%2\", algorithm=MD5, qop=\"auth\"")
        .arg(QString::fromLatin1(m_realm), QString::fromLatin1(m_nonce));
}

bool DigestGuard::admits(const HttpRequestHeader& request) const
{
    const QByteArray credentials = request.value(QStringLiteral("Authorization")).toLatin1();
    if (!credentials.startsWith("Digest ") || parameter(credentials, "username") != m_user
        || parameter(credentials, "nonce") != m_nonce
        || parameter(credentials, "uri") != request.path().toLatin1())
        return false;
    const QByteArray ha2 = hexMd5(request.method().toLatin1() + ':' + parameter(credentials, "uri"));
    const QByteArray expected = hexMd5(m_ha1 + ':' + m_nonce + ':' + parameter(credentials, "nc") + ':'
        + parameter(credentials, "cnonce") + ':' + parameter(credentials, "qop") + ':' + ha2);
    return parameter(credentials, "response") == expected;
}
