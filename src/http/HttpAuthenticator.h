#pragma once

#include <KepNuvikaUtil/Export.h>

#include <QtCore/QByteArray>
#include <QtCore/QString>

namespace Nuvika
{
struct DigestAlgorithm;
}

/// The state of HTTP Digest authentication (RFC 7616, RFC 2617: qop auth and auth-int) for one client
/// connection: holds a server's challenge and computes the Authorization value of each request.
///
/// digestMd5Response() and nextDigestMd5Response() hash with MD5 whatever the challenge asks for;
/// digestResponse() and nextDigestResponse() do what it asks for. Challenge and realm are Latin-1 throughout.
/// Copyable. Threads: one at a time.
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
    /// As digestMd5Response(), with the algorithm that the challenge names: MD5, MD5-sess, SHA-256 or
    /// SHA-256-sess; MD5 when it names none. User and password are sent in UTF-8 where the challenge asks for
    /// it (charset) or Latin-1 has not their characters, and in Latin-1 else. Empty as well when the
    /// challenge names another algorithm, or holds a byte that would end a line of the request.
    QByteArray digestResponse(const QByteArray& challenge, const QByteArray& method, const QByteArray& path,
        const QString& user, const QString& password, const QByteArray& body);
    /// The credentials for the next request under the challenge that digestResponse() took; empty when none
    /// is held.
    QByteArray nextDigestResponse(const QByteArray& method, const QByteArray& path, const QString& user,
        const QString& password, const QByteArray& body);

private:
    bool parseChallenge(const QByteArray& challenge);
    QByteArray credentials(const Nuvika::DigestAlgorithm& algorithm, const QByteArray& method,
        const QByteArray& path, const QByteArray& user, const QByteArray& password, const QByteArray& body);
    QByteArray nextNonceCount();

    QByteArray m_clientNonce;
    qint32 m_nNonceCount = 0;
    QByteArray m_nonce;
    QByteArray m_opaque;
    QByteArray m_algorithm;
    QByteArray m_qop;
    QByteArray m_realm;
    const Nuvika::DigestAlgorithm* m_pAlgorithm = nullptr; // of m_algorithm; null when it is not known
    bool m_bUtf8 = false;
};
