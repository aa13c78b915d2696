#include "DigestGuard.h"

#include <QtCore/QRandomGenerator>

namespace
{
QByteArray hex(QCryptographicHash::Algorithm algorithm, const QByteArray& text)
{
    return QCryptographicHash::hash(text, algorithm).toHex();
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
    : m_realm(realm), m_user(user), m_nonce(QByteArray::number(QRandomGenerator::system()->generate64(), 16)),
      m_algorithms{{{"SHA-256", QCryptographicHash::Sha256, QByteArray()},
          {"MD5", QCryptographicHash::Md5, QByteArray()}}}
{
    for (Algorithm& algorithm : m_algorithms)
        algorithm.ha1 = hex(algorithm.hash, user + ':' + realm + ':' + password);
}

QStringList DigestGuard::challenges() const
{
    QStringList challenges;
    for (const Algorithm& algorithm : m_algorithms)
        challenges += QStringLiteral("Digest realm=\"%1\", nonce=\"%2\", algorithm=%3, qop=\"auth\"")
                          .arg(QString::fromLatin1(m_realm), QString::fromLatin1(m_nonce),
                              QLatin1String(algorithm.name));
    return challenges;
}

bool DigestGuard::admits(const QString& method, const QString& uri, const QString& field) const
{
    const QByteArray credentials = field.toLatin1();
    if (!credentials.startsWith("Digest ") || parameter(credentials, "username") != m_user
        || parameter(credentials, "nonce") != m_nonce || parameter(credentials, "uri") != uri.toLatin1())
        return false;
    const QByteArray named = parameter(credentials, "algorithm");
    const QByteArray qop = parameter(credentials, "qop");
    for (const Algorithm& algorithm : m_algorithms) {
        if (named.isEmpty() ? algorithm.hash != QCryptographicHash::Md5 : named != algorithm.name)
            continue;
        const QByteArray ha2 = hex(algorithm.hash, method.toLatin1() + ':' + uri.toLatin1());
        const QByteArray once = qop.isEmpty() ? m_nonce
                                              : m_nonce + ':' + parameter(credentials, "nc") + ':'
                + parameter(credentials, "cnonce") + ':' + qop;
        return parameter(credentials, "response")
            == hex(algorithm.hash, algorithm.ha1 + ':' + once + ':' + ha2);
    }
    return false;
}
