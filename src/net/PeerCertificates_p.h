// Private: what is told of a peer's certificate.
#pragma once

#include <KepNuvikaUtil/NuvikaSslSocket.h>

#include <openssl/x509.h>

namespace Nuvika
{
NuvikaSslSocket::PeerCertificate factsOf(X509* certificate); // all empty for null
// The pins that stand for it.
TlsPin certificatePin(const X509* certificate);
TlsPin publicKeyPin(const X509* certificate);
} // namespace Nuvika
