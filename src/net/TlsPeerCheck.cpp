#include "net/TlsPeerCheck_p.h"

#include "net/PeerCertificates_p.h"

#include <algorithm>

using namespace Nuvika;

namespace
{
constexpr std::size_t kMostObjections = 32;
}

void TlsPeerCheck::giveVerdict(bool bAccepted)
{
    m_verdict = bAccepted ? eAccepted : eRefused;
    if (bAccepted)
        m_objections.clear();
}

int TlsPeerCheck::look(X509_STORE_CTX* store, SSL* ssl)
{
    switch (m_verdict) {
    case eAccepted:
        return compare(store);
    case eRefused:
        return refuse(store,
            m_objections.empty() ? QStringLiteral("the certificate of %1 was refused by the verdict handler")
                                       .arg(m_failure.who())
                                 : m_objections.front().text);
    default:
        return m_bAsks ? ask(store, ssl) : isGood(store) ? 1 : 0;
    }
}

bool TlsPeerCheck::isGood(X509_STORE_CTX* store)
{
    if (m_config.pins.isEmpty())
        return !m_config.verifiesChain() || X509_verify_cert(store) > 0;
    const X509* leaf = X509_STORE_CTX_get0_cert(store);
    const TlsPin own = certificatePin(leaf);
    const TlsPin key = publicKeyPin(leaf);
    const auto isPin = [&](const TlsPin& pin) { return !pin.isNull() && (pin == own || pin == key); };
    if (std::any_of(m_config.pins.begin(), m_config.pins.end(), isPin))
        return true;
    const QString text
        = QStringLiteral("the certificate of %1 is not pinned; its fingerprint is %2, its public key's %3")
              .arg(m_failure.who(), own.toText(), key.toText());
    if (!m_bAsks)
        return refuse(store, text) == 1;
    m_objections.push_back({X509_V_ERR_CERT_REJECTED, text});
    return true;
}

int TlsPeerCheck::ask(X509_STORE_CTX* store, SSL* ssl)
{
    keepChain(store);
    // Without the pause this would be a yes.
    return isGood(store) && SSL_set_retry_verify(ssl) ? 1 : 0;
}

// In another handshake within the connection nobody is asked again.
int TlsPeerCheck::compare(X509_STORE_CTX* store)
{
    if (leaf() != nullptr && X509_cmp(leaf(), X509_STORE_CTX_get0_cert(store)) == 0)
        return 1;
    return refuse(store,
        QStringLiteral("%1 shows another certificate within the connection than was accepted")
            .arg(m_failure.who()));
}

int TlsPeerCheck::refuse(X509_STORE_CTX* store, const QString& text)
{
    X509_STORE_CTX_set_error(store, X509_V_ERR_CERT_REJECTED); // which alert leaves
    m_failure.set(TlsFailure::kVerificationRefused, text);
    keepChain(store);
    return 0;
}

int TlsPeerCheck::object(X509_STORE_CTX* store)
{
    const QString text = m_failure.objectionOf(store);
    if (!m_bAsks) {
        m_failure.set(TlsFailure::kVerificationRefused, text);
        keepChain(store);
        return 0;
    }
    const bool bNew = std::none_of(m_objections.begin(), m_objections.end(),
        [&text](const TlsObjection& known) { return known.text == text; });
    if (bNew && m_objections.size() < kMostObjections)
        m_objections.push_back({X509_STORE_CTX_get_error(store), text});
    return 1;
}

void TlsPeerCheck::keepChain(X509_STORE_CTX* store)
{
    STACK_OF(X509)* sent = X509_STORE_CTX_get0_untrusted(store);
    m_chain.clear();
    for (int i = 0; i < sk_X509_num(sent); ++i) {
        X509* certificate = sk_X509_value(sent, i);
        X509_up_ref(certificate);
        m_chain.emplace_back(certificate);
    }
}
