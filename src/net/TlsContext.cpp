#include "net/TlsContext_p.h"

#include "net/TlsSession_p.h"
#include "platform/Clock_p.h"

#include <QtCore/QCryptographicHash>
#include <QtCore/QDataStream>
#include <QtCore/QDateTime>
#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>

#include <array>
#include <cstring>
#include <openssl/crypto.h>
#include <openssl/err.h>

using namespace Nuvika;

namespace
{
constexpr std::size_t kMostSessions = 1000; // of one context
constexpr std::size_t kMostContexts = 64; // that no socket uses
constexpr long kSessionSeconds = 7200;
constexpr long kServerSessions = 1024;

struct ProtocolRange {
    int nLowest;
    int nHighest; // 0: whatever OpenSSL has
};
// By NuvikaSslSocket::SslProtocol.
constexpr std::array<ProtocolRange, 6> kProtocols{
    {{TLS1_2_VERSION, 0}, {TLS1_VERSION, 0}, {TLS1_VERSION, TLS1_VERSION}, {TLS1_1_VERSION, TLS1_1_VERSION},
        {TLS1_2_VERSION, TLS1_2_VERSION}, {TLS1_3_VERSION, TLS1_3_VERSION}}};

// Instead of a question on the terminal.
int givePassPhrase(char* buffer, int size, int /*writing*/, void* phrase)
{
    const auto* bytes = static_cast<const QByteArray*>(phrase);
    if (bytes == nullptr || bytes->size() > size)
        return 0;
    std::memcpy(buffer, bytes->constData(), static_cast<std::size_t>(bytes->size()));
    return bytes->size();
}

bool isRecent(std::uint64_t verifiedNs)
{
    return Clock::monotonicNs() - verifiedNs <= kSessionSeconds * std::uint64_t(1000000000);
}

// A client's certificate is verified in a full handshake only, while each resumption gives out a fresh
// ticket: its first time goes with all of them.
int stampTicket(SSL* ssl, void* /*argument*/)
{
    SSL_SESSION* session = SSL_get_session(ssl);
    void* stamp = nullptr;
    std::size_t size = 0;
    SSL_SESSION_get0_ticket_appdata(session, &stamp, &size);
    const std::uint64_t now = Clock::monotonicNs();
    return size == sizeof now || SSL_SESSION_set1_ticket_appdata(session, &now, sizeof now) == 1 ? 1 : 0;
}

SSL_TICKET_RETURN lookAtTicket(SSL* /*ssl*/, SSL_SESSION* session, const unsigned char* /*keyName*/,
    std::size_t /*keyNameSize*/, SSL_TICKET_STATUS status, void* /*argument*/)
{
    if (status != SSL_TICKET_SUCCESS && status != SSL_TICKET_SUCCESS_RENEW)
        return SSL_TICKET_RETURN_IGNORE_RENEW;
    void* stamp = nullptr;
    std::size_t size = 0;
    std::uint64_t verifiedNs = 0;
    SSL_SESSION_get0_ticket_appdata(session, &stamp, &size);
    if (size != sizeof verifiedNs)
        return SSL_TICKET_RETURN_IGNORE_RENEW;
    std::memcpy(&verifiedNs, stamp, size);
    return isRecent(verifiedNs) ? SSL_TICKET_RETURN_USE : SSL_TICKET_RETURN_IGNORE_RENEW;
}

void addFile(QDataStream& stream, const QFileInfo& info)
{
    stream << info.filePath() << info.size() << info.lastModified() << info.metadataChangeTime();
}

QFileInfoList filesIn(const QString& folder) { return QDir(folder).entryInfoList(QDir::Files); }

// Where OpenSSL looks when nobody names the trusted certificates.
QString systemPlace(const char* variable, const char* place)
{
    return QFile::decodeName(qEnvironmentVariableIsSet(variable) ? qgetenv(variable) : QByteArray(place));
}

// Of all that a context is made of. In the system's folder there are hundreds of files: its own time must do.
QByteArray digestOf(const TlsConfig& config)
{
    QByteArray bytes;
    QDataStream stream(&bytes, QIODevice::WriteOnly);
    stream << config.bServer << config.nProtocol << config.nVerify << config.passPhrase;
    for (const TlsPin& pin : config.pins)
        stream << pin.kind() << pin.sha256();
    addFile(stream, QFileInfo(config.ownCertificate));
    if (!config.verifiesChain()) {
        stream << config.trusted;
    } else if (config.trusted.isEmpty()) {
        addFile(stream, systemPlace(X509_get_default_cert_file_env(), X509_get_default_cert_file()));
        addFile(stream, systemPlace(X509_get_default_cert_dir_env(), X509_get_default_cert_dir()));
    } else {
        const QFileInfo trusted(config.trusted);
        addFile(stream, trusted);
        if (trusted.isDir()) {
            for (const QFileInfo& file : filesIn(config.trusted))
                addFile(stream, file);
        }
    }
    QByteArray digest = QCryptographicHash::hash(bytes, QCryptographicHash::Sha256);
    OPENSSL_cleanse(bytes.data(), static_cast<std::size_t>(bytes.size()));
    return digest;
}
} // namespace

// --- a context -------------------------------------------------------------------------------------------

std::shared_ptr<TlsContext> TlsContext::create(const TlsConfig& config, QString* problem)
{
    std::shared_ptr<TlsContext> context(new TlsContext(config));
    ERR_clear_error();
    if (!context->load(problem))
        return nullptr;
    context->m_config.passPhrase.clear();
    return context;
}

bool TlsContext::load(QString* problem)
{
    if (!prepare()) {
        *problem = QStringLiteral("TLS cannot be set up: %1").arg(openSslReason());
        return false;
    }
    return loadOwnCertificate(problem) && loadTrusted(problem);
}

bool TlsContext::prepare()
{
    m_pBioMethod = TlsSession::makeBioMethod();
    m_pHandle.reset(SSL_CTX_new(m_config.bServer ? TLS_server_method() : TLS_client_method()));
    SSL_CTX* handle = m_pHandle.get();
    if (handle == nullptr || !m_pBioMethod)
        return false;
    const ProtocolRange range = kProtocols[static_cast<std::size_t>(m_config.nProtocol)];
    if (range.nLowest < TLS1_2_VERSION)
        SSL_CTX_set_security_level(handle, 0); // their signatures are SHA-1
    SSL_CTX_set_options(handle, SSL_OP_NO_COMPRESSION | SSL_OP_CIPHER_SERVER_PREFERENCE);
    if (m_config.bServer)
        SSL_CTX_set_options(handle, SSL_OP_NO_RENEGOTIATION);
    SSL_CTX_set_mode(handle,
        SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER | SSL_MODE_RELEASE_BUFFERS);
    SSL_CTX_set_dh_auto(handle, 1);
    SSL_CTX_set_num_tickets(handle, 1);
    SSL_CTX_set_timeout(handle, kSessionSeconds);
    SSL_CTX_set_session_cache_mode(handle,
        m_config.bServer ? SSL_SESS_CACHE_SERVER : SSL_SESS_CACHE_CLIENT | SSL_SESS_CACHE_NO_INTERNAL);
    SSL_CTX_sess_set_cache_size(handle, kServerSessions);
    SSL_CTX_sess_set_new_cb(handle, &TlsSession::newSession);
    SSL_CTX_set_cert_verify_callback(handle, &TlsSession::lookAtPeer, nullptr);
    if (m_config.bServer && m_config.verifiesPeer())
        SSL_CTX_set_session_ticket_cb(handle, &stampTicket, &lookAtTicket, nullptr);
    static constexpr unsigned char kSessionContext[] = "nuvika";
    return SSL_CTX_set_min_proto_version(handle, range.nLowest) == 1
        && SSL_CTX_set_max_proto_version(handle, range.nHighest) == 1
        && SSL_CTX_set_session_id_context(handle, kSessionContext, sizeof kSessionContext - 1) == 1;
}

bool TlsContext::loadOwnCertificate(QString* problem)
{
    const QString& name = m_config.ownCertificate;
    if (name.isEmpty()) {
        *problem = QStringLiteral("a server needs a certificate");
        return !m_config.bServer;
    }
    SSL_CTX* handle = m_pHandle.get();
    const QByteArray file = QFile::encodeName(name);
    QByteArray phrase = m_config.passPhrase.toUtf8();
    SSL_CTX_set_default_passwd_cb(handle, &givePassPhrase);
    SSL_CTX_set_default_passwd_cb_userdata(handle, &phrase);
    const bool bChain = SSL_CTX_use_certificate_chain_file(handle, file.constData()) == 1;
    const bool bKey = bChain && SSL_CTX_use_PrivateKey_file(handle, file.constData(), SSL_FILETYPE_PEM) == 1;
    SSL_CTX_set_default_passwd_cb_userdata(handle, nullptr);
    OPENSSL_cleanse(phrase.data(), static_cast<std::size_t>(phrase.size()));
    if (!bChain)
        *problem = QStringLiteral("cannot read a certificate from %1: %2").arg(name, openSslReason());
    else if (!bKey)
        *problem = QStringLiteral("cannot read the key in %1, or its pass phrase is wrong: %2")
                       .arg(name, openSslReason());
    return bKey; // which OpenSSL has compared with the certificate
}

bool TlsContext::loadTrusted(QString* problem)
{
    if (!m_config.verifiesChain())
        return true;
    SSL_CTX* handle = m_pHandle.get();
    X509_VERIFY_PARAM_set_flags(SSL_CTX_get0_param(handle), X509_V_FLAG_PARTIAL_CHAIN);
    if (!m_config.trusted.isEmpty())
        return loadTrustedFiles(problem);
    if (SSL_CTX_set_default_verify_paths(handle) == 1)
        return true;
    *problem = QStringLiteral("cannot read the system's trusted certificates: %1").arg(openSslReason());
    return false;
}

// A folder may hold any files: those that hold certificates count, whatever their names.
bool TlsContext::loadTrustedFiles(QString* problem)
{
    const QString& name = m_config.trusted;
    const QFileInfoList files = QFileInfo(name).isDir() ? filesIn(name) : QFileInfoList{QFileInfo(name)};
    STACK_OF(X509_NAME)* issuers = m_config.bServer ? sk_X509_NAME_new_null() : nullptr;
    bool bAny = false;
    for (const QFileInfo& file : files) {
        const QByteArray encoded = QFile::encodeName(file.filePath());
        bAny |= SSL_CTX_load_verify_file(m_pHandle.get(), encoded.constData()) == 1;
        if (issuers != nullptr) // a hint for the client's choice, which may be incomplete
            SSL_add_file_cert_subjects_to_stack(issuers, encoded.constData());
    }
    if (issuers != nullptr)
        SSL_CTX_set_client_CA_list(m_pHandle.get(), issuers); // which owns them now
    if (!bAny)
        *problem = QStringLiteral("cannot read trusted certificates from %1: %2")
                       .arg(name, files.isEmpty() ? QStringLiteral("no files") : openSslReason());
    ERR_clear_error();
    return bAny;
}

// --- sessions --------------------------------------------------------------------------------------------

KeptSession TlsContext::session(const std::string& peer)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = m_sessions.find(peer);
    if (found == m_sessions.end())
        return {};
    KeptSession& kept = found->second;
    if (isRecent(kept.nVerifiedNs) && SSL_SESSION_get_protocol_version(kept.ticket.get()) < TLS1_3_VERSION) {
        SSL_SESSION_up_ref(kept.ticket.get());
        return {TlsSessionTicket(kept.ticket.get()), kept.nVerifiedNs};
    }
    KeptSession session = isRecent(kept.nVerifiedNs) ? std::move(kept) : KeptSession();
    m_sessions.erase(found);
    return session;
}

void TlsContext::keepSession(const std::string& peer, KeptSession session)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_sessions.size() >= kMostSessions && m_sessions.find(peer) == m_sessions.end())
        m_sessions.erase(m_sessions.begin());
    m_sessions[peer] = std::move(session);
}

// --- the process -----------------------------------------------------------------------------------------

std::shared_ptr<TlsLibrary> TlsLibrary::acquire()
{
    static std::mutex s_mutex;
    static std::weak_ptr<TlsLibrary> s_library;
    const std::lock_guard<std::mutex> lock(s_mutex);
    std::shared_ptr<TlsLibrary> library = s_library.lock();
    if (!library) {
        library = std::make_shared<TlsLibrary>();
        s_library = library;
    }
    return library;
}

std::shared_ptr<TlsContext> TlsLibrary::known(const QByteArray& digest)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = m_contexts.find(digest);
    return found != m_contexts.end() ? found->second : nullptr;
}

std::shared_ptr<TlsContext> TlsLibrary::context(const TlsConfig& config, QString* problem)
{
    const QByteArray digest = digestOf(config);
    if (std::shared_ptr<TlsContext> context = known(digest))
        return context;
    std::shared_ptr<TlsContext> made = TlsContext::create(config, problem);
    if (!made)
        return nullptr;
    const std::lock_guard<std::mutex> lock(m_mutex);
    for (auto at = m_contexts.begin(); m_contexts.size() >= kMostContexts && at != m_contexts.end();)
        at = at->second.use_count() == 1 ? m_contexts.erase(at) : std::next(at);
    return m_contexts.emplace(digest, made).first->second; // another thread's, if that was faster
}
