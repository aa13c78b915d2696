// What the programs of the TLS rows share. A handshake row counts connections: handshake, one byte from the
// server, goodbye. Nobody's certificate is verified.
#pragma once

#include "Common.h"

#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

namespace bench
{
constexpr int kBlock = 65536; // plain text sent at a time

inline SSL_CTX* serverContext(bool bResumes)
{
    EVP_PKEY* key = EVP_EC_gen("P-256");
    X509* certificate = X509_new();
    ASN1_INTEGER_set(X509_get_serialNumber(certificate), 1);
    X509_gmtime_adj(X509_getm_notBefore(certificate), -3600);
    X509_gmtime_adj(X509_getm_notAfter(certificate), 86400);
    X509_set_pubkey(certificate, key);
    X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate), "CN", MBSTRING_ASC,
        reinterpret_cast<const unsigned char*>("bench"), -1, -1, 0);
    X509_set_issuer_name(certificate, X509_get_subject_name(certificate));
    X509_sign(certificate, key, EVP_sha256());
    SSL_CTX* context = SSL_CTX_new(TLS_server_method());
    SSL_CTX_use_certificate(context, certificate);
    SSL_CTX_use_PrivateKey(context, key);
    SSL_CTX_set_num_tickets(context, bResumes ? 1 : 0);
    if (!bResumes) {
        SSL_CTX_set_options(context, SSL_OP_NO_TICKET);
        SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
    }
    return context;
}
} // namespace bench
