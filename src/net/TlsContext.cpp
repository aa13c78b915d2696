#include "net/TlsContext_p.h"

#include "net/TlsSession_p.h"

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

QString lastReason()
{
    const char* reason = ERR_reason_error_string(ERR_peek_last_error());
    ERR_clear_error();
    return QString::fromLatin1(reason != nullptr ? reason : "no such file, or no PEM");
}

// Instead of a question on the terminal.
int givePassPhrase(char* buffer, int size, int /*writing*/, void* phrase)
{
    const auto* bytes = static_cast<const QByteArray*>(phrase);
    if (bytes == nullptr || bytes->size() > size)
        return 0;
    std::memcpy(buffer, bytes->constData(), static_cast<std::size_t>(bytes->size()));
    return bytes->size();
}

void addFile(QDataStream& stream, const QString& name)
{
    const QFileInfo info(name);
    stream << name << info.size() << info.lastModified();
}

QByteArray digestOf(const TlsConfig& config)
{
    QByteArray bytes;
    QDataStream stream(&bytes, QIODevice::WriteOnly);
    stream << config.bServer << config.nProtocol << config.nVerify << config.passPhrase;
    addFile(stream, config.ownCertificate);
    addFile(stream, config.trusted);
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
    m_pHandle.reset(SSL_CTX_new(m_config.bServer ? TLS_server_method() : TLS_client_method()));
    SSL_CTX* handle = m_pHandle.get();
    if (handle == nullptr) {
        *problem = lastReason();
        return false;
    }
    const ProtocolRange range = kProtocols[static_cast<std::size_t>(m_config.nProtocol)];
    SSL_CTX_set_min_proto_version(handle, range.nLowest);
    SSL_CTX_set_max_proto_version(handle, range.nHighest);
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
    static constexpr unsigned char kSessionContext[] = "nuvika";
    SSL_CTX_set_session_id_context(handle, kSessionContext, sizeof kSessionContext - 1);
    return loadOwnCertificate(problem) && loadTrusted(problem);
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
        *problem = QStringLiteral("cannot read a certificate from %1: %2").arg(name, lastReason());
    else if (!bKey)
        *problem = QStringLiteral("cannot read the key in %1, or its pass phrase is wrong: %2")
                       .arg(name, lastReason());
    return bKey; // which OpenSSL has compared with the certificate
}

// A folder may hold any files: those that hold certificates count, whatever their names.
bool TlsContext::loadTrusted(QString* problem)
{
    if (!m_config.verifiesPeer())
        return true;
    SSL_CTX* handle = m_pHandle.get();
    X509_VERIFY_PARAM_set_flags(SSL_CTX_get0_param(handle), X509_V_FLAG_PARTIAL_CHAIN);
    const QString& name = m_config.trusted;
    if (name.isEmpty()) {
        if (SSL_CTX_set_default_verify_paths(handle) == 1)
            return true;
        *problem = QStringLiteral("cannot read the system's trusted certificates: %1").arg(lastReason());
        return false;
    }
    QStringList files(name);
    if (QFileInfo(name).isDir()) {
        files.clear();
        const QFileInfoList entries = QDir(name).entryInfoList(QDir::Files);
        for (const QFileInfo& entry : entries)
            files += entry.filePath();
    }
    bool bAny = false;
    STACK_OF(X509_NAME)* issuers = sk_X509_NAME_new_null(); // whose certificates a client may choose from
    for (const QString& file : qAsConst(files)) {
        const QByteArray encoded = QFile::encodeName(file);
        bAny |= SSL_CTX_load_verify_file(handle, encoded.constData()) == 1;
        SSL_add_file_cert_subjects_to_stack(issuers, encoded.constData());
    }
    SSL_CTX_set_client_CA_list(handle, issuers); // which owns them now
    if (!bAny)
        *problem = QStringLiteral("cannot read trusted certificates from %1: %2").arg(name, lastReason());
    ERR_clear_error();
    return bAny;
}

// --- sessions --------------------------------------------------------------------------------------------

TlsSessionTicket TlsContext::session(const std::string& peer)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = m_sessions.find(peer);
    if (found == m_sessions.end())
        return nullptr;
    if (SSL_SESSION_get_protocol_version(found->second.get()) < TLS1_3_VERSION) {
        SSL_SESSION_up_ref(found->second.get());
        return TlsSessionTicket(found->second.get());
    }
    TlsSessionTicket session = std::move(found->second);
    m_sessions.erase(found);
    return session;
}

void TlsContext::keepSession(const std::string& peer, TlsSessionTicket session)
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

std::shared_ptr<TlsContext> TlsLibrary::context(const TlsConfig& config, QString* problem)
{
    const QByteArray digest = digestOf(config);
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = m_contexts.find(digest);
    if (found != m_contexts.end())
        return found->second;
    std::shared_ptr<TlsContext> context = TlsContext::create(config, problem);
    if (!context)
        return nullptr;
    for (auto at = m_contexts.begin(); m_contexts.size() >= kMostContexts && at != m_contexts.end();)
        at = at->second.use_count() == 1 ? m_contexts.erase(at) : std::next(at);
    m_contexts[digest] = context;
    return context;
}
