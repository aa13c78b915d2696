// Private: the look at the peer's certificate in a full handshake: by pins, or by chain and host; and what
// its owner says to the outcome, who may be asked before anything else leaves.
#pragma once

#include "net/TlsContext_p.h"
#include "net/TlsFailure_p.h"

#include <vector>

namespace Nuvika
{
struct TlsObjection {
    int nCode; // OpenSSL's X509_V_ERR_...
    QString text;
};

class TlsPeerCheck
{
public:
    TlsPeerCheck(const TlsConfig& config, TlsFailure& failure) : m_config(config), m_failure(failure) { }

    // The owner has the last word: it is asked once, and held to what it said if the peer begins another
    // handshake within the connection.
    void askOwner() { m_bAsks = true; }
    void giveVerdict(bool bAccepted);
    // To decide by: what the peer has sent, its own certificate first, and what stands against it.
    const std::vector<CertificatePointer>& chain() const { return m_chain; }
    const std::vector<TlsObjection>& objections() const { return m_objections; }

    // Of what SSL_CTX_set_cert_verify_callback asks for. With SSL_set_retry_verify() where the owner is
    // asked.
    int look(X509_STORE_CTX* store, SSL* ssl);
    // Of what SSL_set_verify asks for.
    int object(X509_STORE_CTX* store);
    // The one that was refused or is asked about; may be null.
    X509* leaf() const { return m_chain.empty() ? nullptr : m_chain.front().get(); }

private:
    enum Verdict { eNone, eAccepted, eRefused };

    bool isGood(X509_STORE_CTX* store);
    int ask(X509_STORE_CTX* store, SSL* ssl);
    int compare(X509_STORE_CTX* store);
    int refuse(X509_STORE_CTX* store, const QString& text);
    void keepChain(X509_STORE_CTX* store);

    const TlsConfig& m_config;
    TlsFailure& m_failure;
    bool m_bAsks = false;
    Verdict m_verdict = eNone;
    std::vector<CertificatePointer> m_chain;
    std::vector<TlsObjection> m_objections;
};
} // namespace Nuvika
