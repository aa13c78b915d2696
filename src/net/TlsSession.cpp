#include "net/TlsSession_p.h"

#include "platform/Clock_p.h"

#include <QtCore/QUrl>
#include <QtNetwork/QHostAddress>

#include <algorithm>
#include <cstring>
#include <openssl/err.h>
#include <openssl/x509v3.h>
#include <utility>

using namespace Nuvika;

namespace
{
constexpr int kFlushAt = 128 * 1024; // encrypted bytes of one call to the socket
constexpr int kMostWaiting = 64 * 1024 * 1024; // plain text

// What one call of a session produces, before it goes to the socket in one piece.
QByteArray& outgoing()
{
    thread_local QByteArray t_outgoing = [] {
        QByteArray bytes;
        bytes.reserve(kFlushAt + 32 * 1024);
        return bytes;
    }();
    return t_outgoing;
}
} // namespace

// --- memory under OpenSSL --------------------------------------------------------------------------------

BioMethodPointer TlsSession::makeBioMethod()
{
    BioMethodPointer method(BIO_meth_new(BIO_TYPE_SOURCE_SINK, "received bytes"));
    if (method) {
        BIO_meth_set_read(method.get(), &TlsSession::bioRead);
        BIO_meth_set_write(method.get(), &TlsSession::bioWrite);
        BIO_meth_set_ctrl(method.get(), &TlsSession::bioControl);
    }
    return method;
}

int TlsSession::bioRead(BIO* bio, char* buffer, int size)
{
    auto* self = static_cast<TlsSession*>(BIO_get_data(bio));
    BIO_clear_retry_flags(bio);
    if (self->m_nInput == 0) {
        BIO_set_retry_read(bio);
        return -1;
    }
    const int count = std::min(size, self->m_nInput);
    std::memcpy(buffer, self->m_pInput, static_cast<std::size_t>(count));
    self->m_pInput += count;
    self->m_nInput -= count;
    return count;
}

int TlsSession::bioWrite(BIO* bio, const char* data, int size)
{
    outgoing().append(data, size);
    if (outgoing().size() >= kFlushAt)
        static_cast<TlsSession*>(BIO_get_data(bio))->flush();
    return size;
}

long TlsSession::bioControl(BIO* /*bio*/, int command, long /*number*/, void* /*pointer*/)
{
    return command == BIO_CTRL_FLUSH ? 1 : 0;
}

void TlsSession::flush()
{
    QByteArray& bytes = outgoing();
    if (!bytes.isEmpty())
        m_output.sendEncrypted(bytes.constData(), bytes.size());
    bytes.resize(0); // keeps its memory, which was reserved
}

// --- set-up ----------------------------------------------------------------------------------------------

TlsSession::TlsSession(std::shared_ptr<TlsContext> context, TlsOutput& output)
    : m_pContext(std::move(context)), m_output(output), m_pSsl(SSL_new(m_pContext->handle())),
      m_check(m_pContext->config(), m_failure)
{
}

std::unique_ptr<TlsSession> TlsSession::create(std::shared_ptr<TlsContext> context, TlsOutput& output,
    const QString& host, quint16 port, QString* problem, bool bAsk)
{
    ERR_clear_error();
    const bool bServer = context->config().bServer;
    bAsk = bAsk && !bServer;
    std::unique_ptr<TlsSession> session(new TlsSession(std::move(context), output));
    session->m_failure.peer = host;
    if (session->setUp(bAsk) && (bServer || session->setUpClient(host, port, bAsk)))
        return session;
    *problem
        = QStringLiteral("TLS with %1 cannot be set up: %2").arg(session->m_failure.who(), openSslReason());
    return nullptr;
}

bool TlsSession::setUp(bool bAsk)
{
    SSL* ssl = m_pSsl.get();
    BIO* bio = ssl != nullptr ? BIO_new(m_pContext->bioMethod()) : nullptr;
    if (bio == nullptr)
        return false;
    BIO_set_data(bio, this);
    BIO_set_init(bio, 1);
    SSL_set_bio(ssl, bio, bio); // both directions; owned by the connection
    const TlsConfig& config = m_pContext->config();
    if (bAsk)
        m_check.askOwner();
    if (config.verifiesPeer() || bAsk)
        SSL_set_verify(ssl, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, &TlsSession::verified);
    if (config.bServer)
        SSL_set_accept_state(ssl);
    else
        SSL_set_connect_state(ssl);
    return SSL_set_app_data(ssl, this) == 1;
}

bool TlsSession::setUpClient(const QString& host, quint16 port, bool bAsk)
{
    SSL* ssl = m_pSsl.get();
    QHostAddress address(host);
    const bool bAddress = !address.isNull();
    address.setScopeId(QString());
    QByteArray name = bAddress ? address.toString().toLatin1() : QUrl::toAce(host);
    if (name.endsWith('.'))
        name.chop(1);
    // Addresses have no place there, RFC 6066, 3.
    if (!bAddress && !name.isEmpty() && SSL_set_tlsext_host_name(ssl, name.constData()) != 1)
        return false;
    if (m_pContext->config().nVerify == 2 && !expectHost(name, bAddress))
        return false;
    if (bAsk)
        return true;
    m_peer = (host.toLower() + QLatin1Char(':') + QString::number(port)).toStdString();
    const KeptSession session = m_pContext->session(m_peer);
    m_nVerifiedNs = session.nVerifiedNs;
    if (session.ticket)
        SSL_set_session(ssl, session.ticket.get()); // a full handshake where that fails
    return true;
}

bool TlsSession::expectHost(const QByteArray& name, bool bAddress)
{
    X509_VERIFY_PARAM* parameters = SSL_get0_param(m_pSsl.get());
    X509_VERIFY_PARAM_set_hostflags(parameters, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
    const bool bComparable = bAddress
        ? X509_VERIFY_PARAM_set1_ip_asc(parameters, name.constData()) == 1
        : !name.isEmpty() && !name.startsWith('.') // which would stand for any name below
            && X509_VERIFY_PARAM_set1_host(parameters, name.constData(), 0) == 1;
    return bComparable || X509_VERIFY_PARAM_set1_host(parameters, "nobody.invalid", 0) == 1;
}

TlsSession::~TlsSession()
{
    // However the connection ended, its session may be resumed.
    if (m_pSsl && isOpen())
        SSL_set_shutdown(m_pSsl.get(), SSL_SENT_SHUTDOWN | SSL_RECEIVED_SHUTDOWN);
}

int TlsSession::newSession(SSL* ssl, SSL_SESSION* session)
{
    const auto* self = static_cast<TlsSession*>(SSL_get_app_data(ssl));
    if (self == nullptr || self->m_peer.empty())
        return 0; // a server's, which OpenSSL keeps; or it must not be resumed
    // A ticket may come long after the handshake that verified the peer.
    const bool bVerifiedBefore = self->m_bVerified || SSL_session_reused(ssl) == 1;
    self->m_pContext->keepSession(self->m_peer,
        {TlsSessionTicket(session), bVerifiedBefore ? self->m_nVerifiedNs : Clock::monotonicNs()});
    return 1;
}

TlsSession& TlsSession::of(X509_STORE_CTX* store)
{
    const auto* ssl
        = static_cast<SSL*>(X509_STORE_CTX_get_ex_data(store, SSL_get_ex_data_X509_STORE_CTX_idx()));
    return *static_cast<TlsSession*>(SSL_get_app_data(ssl));
}

int TlsSession::lookAtPeer(X509_STORE_CTX* store, void* /*nothing*/)
{
    TlsSession& self = of(store);
    return self.m_check.look(store, self.m_pSsl.get());
}

int TlsSession::verified(int bGood, X509_STORE_CTX* store)
{
    return bGood == 1 ? 1 : of(store).m_check.object(store);
}

CertificatePointer TlsSession::peerCertificate() const
{
    if (X509* leaf = m_check.leaf()) {
        X509_up_ref(leaf);
        return CertificatePointer(leaf);
    }
    return CertificatePointer(SSL_get1_peer_certificate(m_pSsl.get()));
}

// --- bytes -----------------------------------------------------------------------------------------------

void TlsSession::setInput(const char* data, int size)
{
    m_pInput = data;
    m_nInput = size;
}

TlsSession::Result TlsSession::resultOf(int code)
{
    if (code > 0)
        return eMore;
    switch (SSL_get_error(m_pSsl.get(), code)) {
    case SSL_ERROR_WANT_READ:
    case SSL_ERROR_WANT_WRITE:
        return eWantInput;
    case SSL_ERROR_ZERO_RETURN:
        return eClosed;
    case SSL_ERROR_WANT_RETRY_VERIFY:
        return eWantVerdict;
    default:
        m_failure.takeError();
        return eFailed;
    }
}

TlsSession::Result TlsSession::handshake()
{
    ERR_clear_error();
    const Result result = resultOf(SSL_do_handshake(m_pSsl.get()));
    if (result == eMore && !std::exchange(m_bVerified, true) && !isResumed())
        m_nVerifiedNs = Clock::monotonicNs();
    flush();
    return result;
}

TlsSession::Result TlsSession::read(char* buffer, int size, int* got)
{
    *got = 0;
    Result result = eMore;
    while (*got < size && result == eMore) {
        ERR_clear_error();
        const int count = SSL_read(m_pSsl.get(), buffer + *got, size - *got);
        result = resultOf(count);
        if (count > 0)
            *got += count;
    }
    flush();
    if (result == eWantInput)
        releaseBuffers();
    return result;
}

// A ticket that comes gives OpenSSL a buffer to write from, 16 KiB until somebody writes. Within a record
// there is one to read into, which OpenSSL before 3.0.14 would have lost.
void TlsSession::releaseBuffers()
{
    const bool bWithinRecord = std::strcmp(SSL_rstate_string(m_pSsl.get()), "RB") == 0;
    if (!bWithinRecord)
        SSL_free_buffers(m_pSsl.get());
}

bool TlsSession::writeSome(const char* data, int size, int* written)
{
    *written = 0;
    while (*written < size) {
        ERR_clear_error();
        const int count = SSL_write(m_pSsl.get(), data + *written, size - *written);
        const Result result = resultOf(count);
        if (result == eWantInput)
            return true;
        if (result != eMore)
            return false;
        *written += count;
    }
    return true;
}

bool TlsSession::write(const KepNuvikaUtil::BUFFER* ranges, int count)
{
    if (m_bEndWaits || (SSL_get_shutdown(m_pSsl.get()) & SSL_SENT_SHUTDOWN) != 0)
        return false;
    bool bGood = true;
    for (int i = 0; i < count && bGood; ++i)
        bGood = ranges[i].nLen <= 0 || writeRange(ranges[i].pData, ranges[i].nLen);
    flush();
    return bGood;
}

// Or keeps what has to wait.
bool TlsSession::writeRange(const char* data, int size)
{
    int written = 0;
    bool bGood = !m_waiting.isEmpty() || writeSome(data, size, &written);
    if (bGood && size - written > kMostWaiting - m_waiting.size()) {
        m_failure.set(TlsFailure::kOther,
            QStringLiteral("%1 does not go on with a handshake, and holds up more than 64 MiB")
                .arg(m_failure.who()));
        bGood = false;
    }
    if (bGood)
        m_waiting.append(data + written, size - written);
    return bGood;
}

bool TlsSession::writeWaiting()
{
    if (!isWaiting())
        return true;
    int written = 0;
    const bool bGood = writeSome(m_waiting.constData(), m_waiting.size(), &written);
    m_waiting.remove(0, written);
    if (m_bEndWaits && m_waiting.isEmpty() && isOpen()) {
        m_bEndWaits = false;
        SSL_shutdown(m_pSsl.get());
    }
    flush();
    return bGood;
}

void TlsSession::endWriting()
{
    ERR_clear_error();
    if ((SSL_get_shutdown(m_pSsl.get()) & SSL_SENT_SHUTDOWN) != 0)
        return;
    if (!m_waiting.isEmpty() || !isOpen())
        m_bEndWaits = true;
    else
        SSL_shutdown(m_pSsl.get());
    flush();
}
