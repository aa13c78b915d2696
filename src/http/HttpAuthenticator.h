#pragma once

#include <KepNuvikaUtil/Export.h>

#include <QtCore/QByteArray>
#include <QtCore/QString>

/// The state of HTTP Digest authentication (RFC 2617: MD5 and MD5-sess, qop auth and auth-int) for one
/// client connection: holds a server's challenge and computes the Authorization value of each request.
///
/// Challenge and realm are Latin-1 throughout. Copyable. Threads: one at a time.
/// Errors: an empty result; a qop that is not supported is also warned of.
class KEPNUVIKAUTIL_EXPORT HttpAuthenticator
{
public:
    /// Takes the value of a WWW-Authenticate field and returns the credentials for one request, with nonce
    /// count 1; empty when the challenge cannot be answered.
    QByteArray digestMd5Response(const QByteArray& challenge, const QByteArray& method,
        const QByteArray& path, const QByteArray& user, const QByteArray& password, const QByteArray& body);
    /// The credentials for the next request under the held challenge; empty when none is held.
    QByteArray nextDigestMd5Response(const QByteArray& method, const QByteArray& path, const QByteArray& user,
        const QByteArray& password, const QByteArray& body);
    void reset();
    /// No challenge is held.
    bool isNull() const { return m_clientNonce.isEmpty(); }

private:
    bool parseChallenge(const QByteArray& challenge);

    QByteArray m_clientNonce;
    qint32 m_nNonceCount = 0;
    QString m_nonce;
    QString m_opaque;
    QString m_algorithm;
    QString m_qop;
    QString m_realm;
};
