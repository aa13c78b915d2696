// Private: what TLS connections of one configuration share: certificate, trust, sessions to resume.
#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QString>

#include <map>
#include <memory>
#include <mutex>
#include <openssl/ssl.h>

namespace Nuvika
{
template <auto Free>
struct OpenSslFree {
    template <class T>
    void operator()(T* p) const
    {
        Free(p);
    }
};
using TlsSessionTicket = std::unique_ptr<SSL_SESSION, OpenSslFree<SSL_SESSION_free>>;
using CertificatePointer = std::unique_ptr<X509, OpenSslFree<X509_free>>;

struct TlsConfig {
    bool bServer = false;
    int nProtocol = 0; // NuvikaSslSocket::SslProtocol
    int nVerify = 0; // NuvikaSslSocket::SslVerifyCertificateMode
    QString ownCertificate; // a PEM file with our chain and key; may be empty for a client
    QString trusted; // a PEM file or a folder of them; empty: the system's
    QString passPhrase; // of our key

    // A server asks its clients for certificates only when it was told whom to trust.
    bool verifiesPeer() const { return nVerify != 0 && (!bServer || !trusted.isEmpty()); }
};

// Threads: any.
class TlsContext
{
public:
    // Null with the reason. The files are read once for each state they are in.
    static std::shared_ptr<TlsContext> create(const TlsConfig& config, QString* problem);

    SSL_CTX* handle() const { return m_pHandle.get(); }
    const TlsConfig& config() const { return m_config; }

    // A session with that peer ("host:port") to resume, or null. One of TLS 1.3 is given out once.
    TlsSessionTicket session(const std::string& peer);
    void keepSession(const std::string& peer, TlsSessionTicket session);

private:
    explicit TlsContext(const TlsConfig& config) : m_config(config) { }
    bool load(QString* problem);
    bool loadOwnCertificate(QString* problem);
    bool loadTrusted(QString* problem);

    TlsConfig m_config; // the pass phrase is dropped after loading
    std::unique_ptr<SSL_CTX, OpenSslFree<SSL_CTX_free>> m_pHandle;
    std::mutex m_mutex;
    std::map<std::string, TlsSessionTicket> m_sessions;
};

// What is set up once for the process, on first use, and given up when no socket is left: the contexts.
// OpenSSL itself is never cleaned up, our host may use it too.
class TlsLibrary
{
public:
    static std::shared_ptr<TlsLibrary> acquire();
    std::shared_ptr<TlsContext> context(const TlsConfig& config, QString* problem);

private:
    std::mutex m_mutex;
    std::map<QByteArray, std::shared_ptr<TlsContext>> m_contexts; // by a digest of all that they depend on
};
} // namespace Nuvika
