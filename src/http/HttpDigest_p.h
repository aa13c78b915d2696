// Private: what Digest authentication hashes (RFC 7616, RFC 2617), the same for every algorithm.
#pragma once

#include <QtCore/QByteArray>

#include <string_view>

namespace Nuvika
{
struct DigestAlgorithm {
    enum Hash { Md5, Sha256 }; // the stronger one last
    std::string_view name; // in lower case
    Hash hash;
    bool bSession; // the key is made of the challenge's first nonces
};

// In any case; null when it is not known.
const DigestAlgorithm* findDigestAlgorithm(const QByteArray& name);
// That of a challenge that names none.
const DigestAlgorithm& defaultDigestAlgorithm();

struct DigestInput {
    const QByteArray& user;
    const QByteArray& realm;
    const QByteArray& password;
    const QByteArray& nonce;
    const QByteArray& clientNonce;
    const QByteArray& nonceCount;
    const QByteArray& qop; // empty, "auth" or "auth-int"
    const QByteArray& method;
    const QByteArray& uri;
    const QByteArray& body;
};
// In hexadecimal; empty when OpenSSL refuses, as it does without MD5. Threads: any.
QByteArray digestResponse(const DigestAlgorithm& algorithm, const DigestInput& input);
} // namespace Nuvika
