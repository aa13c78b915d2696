// Private: what TLS connections of one configuration share: certificate, trust, sessions to resume.
#pragma once

#include <KepNuvikaUtil/TlsPin.h>

#include <QtCore/QByteArray>
#include <QtCore/QList>
#include <QtCore/QString>

#include <cstdint>
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
using BioMethodPointer = std::unique_ptr<BIO_METHOD, OpenSslFree<BIO_meth_free>>;

// A session, and when its peer's certificate was verified, which resuming does not do again.
struct KeptSession {
    TlsSessionTicket ticket;
    std::uint64_t nVerifiedNs = 0; // Clock::monotonicNs()
};

struct TlsConfig {
    bool bServer = false;
    int nProtocol = 0; // NuvikaSslSocket::SslProtocol
    int nVerify = 0; // NuvikaSslSocket::SslVerifyCertificateMode
    QString ownCertificate; // a PEM file with our chain and key; may be empty for a client
    QString trusted; // a PEM file or a folder of them; empty: the system's
    QString passPhrase; // of our key

    QList<TlsPin> pins; // when there are any, they alone count

    // A server asks its clients for certificates only when it was told whom to trust.
    bool verifiesPeer() const { return !pins.isEmpty() || verifiesChain(); }
    bool verifiesChain() const { return pins.isEmpty() && nVerify != 0 && (!bServer || !trusted.isEmpty()); }
};

// Threads: any.
class TlsContext
{
public:
    // Null with the reason. The files are read once for each state they are in.
    static std::shared_ptr<TlsContext> create(const TlsConfig& config, QString* problem);

    SSL_CTX* handle() const { return m_pHandle.get(); }
    const TlsConfig& config() const { return m_config; }

    // What a session's bytes go through.
    const BIO_METHOD* bioMethod() const { return m_pBioMethod.get(); }

    // A session with that peer ("host:port") to resume, or null. One of TLS 1.3 is given out once; none
    // whose peer was verified more than two hours ago.
    KeptSession session(const std::string& peer);
    void keepSession(const std::string& peer, KeptSession session);

private:
    explicit TlsContext(const TlsConfig& config) : m_config(config) { }
    bool load(QString* problem);
    bool prepare();
    bool loadOwnCertificate(QString* problem);
    bool loadTrusted(QString* problem);
    bool loadTrustedFiles(QString* problem);

    TlsConfig m_config; // the pass phrase is dropped after loading
    std::unique_ptr<SSL_CTX, OpenSslFree<SSL_CTX_free>> m_pHandle;
    BioMethodPointer m_pBioMethod;
    std::mutex m_mutex;
    std::map<std::string, KeptSession> m_sessions;
};

// What is set up once for the process, on first use, and given up when no socket is left: the contexts.
// OpenSSL itself is never cleaned up, our host may use it too.
class TlsLibrary
{
public:
    static std::shared_ptr<TlsLibrary> acquire();
    // Reads files, without holding up other threads: two that ask for a new one at the same time both read.
    std::shared_ptr<TlsContext> context(const TlsConfig& config, QString* problem);

private:
    std::shared_ptr<TlsContext> known(const QByteArray& digest);

    std::mutex m_mutex;
    std::map<QByteArray, std::shared_ptr<TlsContext>> m_contexts; // by a digest of all that they depend on
};
} // namespace Nuvika
