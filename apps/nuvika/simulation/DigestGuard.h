// The server side of Digest authentication (RFC 7616, SHA-256 and MD5, qop auth; also without qop, as RFC
// 2069 had it and some viewers still do), as a camera has it.
#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QCryptographicHash>
#include <QtCore/QStringList>

#include <array>

class DigestGuard
{
public:
    DigestGuard(const QByteArray& realm, const QByteArray& user, const QByteArray& password);

    // `uri` as the request line has it, `credentials` as the Authorization field.
    bool admits(const QString& method, const QString& uri, const QString& credentials) const;
    // One field for each algorithm, the preferred one first.
    QStringList challenges() const;

private:
    struct Algorithm {
        const char* name;
        QCryptographicHash::Algorithm hash;
        QByteArray ha1;
    };

    QByteArray m_realm;
    QByteArray m_user;
    QByteArray m_nonce;
    std::array<Algorithm, 2> m_algorithms;
};
