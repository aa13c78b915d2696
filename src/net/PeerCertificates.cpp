#include "net/PeerCertificates_p.h"

#include "net/TlsFailure_p.h"

#include <QtCore/QCryptographicHash>

#include <algorithm>

using namespace Nuvika;

namespace
{
// As DER; empty without memory. `encode` is an i2d function.
template <class Encode, class Object>
QByteArray derOf(Encode encode, const Object* object)
{
    const int size = encode(object, nullptr);
    QByteArray der(std::max(size, 0), '\0');
    auto* end = reinterpret_cast<unsigned char*>(der.data());
    return size > 0 && encode(object, &end) == size ? der : QByteArray();
}

QByteArray sha256Of(const QByteArray& der)
{
    return der.isEmpty() ? der : QCryptographicHash::hash(der, QCryptographicHash::Sha256);
}
} // namespace

TlsPin Nuvika::certificatePin(const X509* certificate)
{
    return TlsPin::certificate(sha256Of(derOf(i2d_X509, certificate)));
}

TlsPin Nuvika::publicKeyPin(const X509* certificate)
{
    return TlsPin::publicKey(sha256Of(derOf(i2d_X509_PUBKEY, X509_get_X509_PUBKEY(certificate))));
}

NuvikaSslSocket::PeerCertificate Nuvika::factsOf(X509* certificate)
{
    NuvikaSslSocket::PeerCertificate facts;
    if (certificate == nullptr)
        return facts;
    facts.subject = nameText(X509_get_subject_name(certificate));
    facts.issuer = nameText(X509_get_issuer_name(certificate));
    facts.validFrom = timeOf(X509_get0_notBefore(certificate));
    facts.validUntil = timeOf(X509_get0_notAfter(certificate));
    facts.der = derOf(i2d_X509, certificate);
    facts.sha256 = sha256Of(facts.der);
    facts.publicKeySha256 = publicKeyPin(certificate).sha256();
    return facts;
}
