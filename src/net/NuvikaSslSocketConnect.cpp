#include "core/Log_p.h"
#include "net/NuvikaSslSocket_p.h"
#include "net/PeerCertificates_p.h"
#include "platform/Clock_p.h"

using namespace Nuvika;
using Marker = NuvikaTcpSocket::QueuedConnNotAllowed;

namespace
{
constexpr int kHandshakeTickMs = 500;
constexpr quint32 kHandshakeMs = 10000;
constexpr int kCloseMs = 500;
} // namespace

NuvikaSslSocket::Private::Private(NuvikaSslSocket& owner, int nSendQueueHint)
    : m_socket(nSendQueueHint, false), m_owner(owner)
{
    ReceivePlacer::set(m_socket, *this);
    m_handshakeTimer.setInterval(kHandshakeTickMs);
    m_closeTimer.setSingleShot(true);
    m_closeTimer.setInterval(kCloseMs);
    connect(&m_handshakeTimer, &QTimer::timeout, &owner, [this] { watchHandshake(); });
    connect(&m_closeTimer, &QTimer::timeout, &owner, [this] { closeCompleted(); });
    connect(&m_socket, &NuvikaTcpSocketQueued::connected, &owner, [this] { beginHandshake(); });
    connect(&m_socket, &NuvikaTcpSocketQueued::disconnected, &owner, [this] { tcpEnded(0); });
    connect(&m_socket, &NuvikaTcpSocketQueued::error, &owner, [this](int code) { tcpEnded(code); });
    connect(&m_socket, &NuvikaTcpSocketQueued::sigCanSend, &owner, [this] {
        if (canSend())
            emit m_owner.sigCanSend();
    });
    connect(&m_socket, &NuvikaTcpSocketQueued::sigAllSent, &owner, [this] {
        if (m_state == eClosing)
            closeCompleted();
        else
            emit m_owner.sigAllSent();
    });
}

NuvikaSslSocket::Private::~Private()
{
    if (m_pSession)
        m_pSession->endWriting();
}

bool NuvikaSslSocket::Private::initialise(const TlsConfig& config)
{
    QString problem;
    m_pContext = m_pLibrary->context(config, &problem);
    if (!m_pContext) {
        NUVIKA_WARNING(lcNet, "NuvikaSslSocket::initSsl(): %s", qUtf8Printable(problem));
        refuse(problem);
    }
    return m_pContext != nullptr;
}

void NuvikaSslSocket::Private::refuse(const QString& problem)
{
    m_pContext.reset();
    m_problem = problem;
    m_configurationProblem = problem;
}

NuvikaTcpSocket::STATE NuvikaSslSocket::Private::state() const
{
    switch (m_state) {
    case eOpen:
        return NuvikaTcpSocket::eConnected;
    case eConnecting:
    case eHandshake:
        return NuvikaTcpSocket::eConnecting;
    case eFailed:
        return NuvikaTcpSocket::eError;
    case eClosing:
        return m_postponedConnect ? NuvikaTcpSocket::eConnecting : NuvikaTcpSocket::eUnconnected;
    default:
        return NuvikaTcpSocket::eUnconnected;
    }
}

// --- beginning -------------------------------------------------------------------------------------------

void NuvikaSslSocket::Private::beginConnection()
{
    m_problem.clear();
    m_pCertificate.reset();
    m_protocolName.clear();
    m_cipherName.clear();
    m_bResumed = false;
    m_input.setStalled(PendingInput::eByOwner, false); // until the handshake is over
}

void NuvikaSslSocket::Private::connectTo(
    const QString& host, quint16 port, const std::function<void()>& connectSocket)
{
    if (m_state == eClosing && !m_postponedConnect) {
        m_postponedConnect = [this, host, port, connectSocket] { connectTo(host, port, connectSocket); };
        return;
    }
    if (m_state != eIdle) {
        NUVIKA_WARNING(lcNet, "NuvikaSslSocket::connectToHost() failed: invalid state");
        return;
    }
    if (!m_pContext) {
        failSetUp(m_configurationProblem);
        return;
    }
    beginConnection();
    m_host = host;
    m_nPort = port;
    m_state = eConnecting;
    connectSocket();
}

void NuvikaSslSocket::Private::accept(int descriptor)
{
    if (m_state == eClosing && !m_postponedConnect)
        closeCompleted(); // who hands a connection over does not want to wait
    if (m_state != eIdle) {
        NUVIKA_WARNING(lcNet, "NuvikaSslSocket::setSocketDescriptor() failed: invalid state");
        return;
    }
    m_socket.setSocketDescriptor(descriptor);
    if (!m_pContext) {
        failSetUp(m_configurationProblem);
        return;
    }
    beginConnection();
    m_host.clear();
    m_nPort = 0;
    beginHandshake();
}

void NuvikaSslSocket::Private::failSetUp(const QString& problem)
{
    m_socket.close(); // or its signals would come first
    m_state = eConnecting;
    failLater(TlsFailure::kOther, problem);
}

void NuvikaSslSocket::Private::failLater(int code, const QString& problem)
{
    QTimer::singleShot(0, &m_owner, [this, code, problem, watch = m_watched.watch()] {
        if (watch.holds())
            fail(code, problem);
    });
}

void NuvikaSslSocket::Private::beginHandshake()
{
    QString problem;
    const bool bAsk = m_verdictHandler != nullptr;
    m_pSession = TlsSession::create(m_pContext, *this, m_host, m_nPort, &problem, bAsk);
    if (!m_pSession) {
        failSetUp(problem);
        return;
    }
    m_state = eHandshake;
    limitHandshake();
    continueHandshake(m_watched.watch());
}

void NuvikaSslSocket::Private::limitHandshake()
{
    m_nHandshakeBegin = Clock::monotonicMs();
    m_handshakeTimer.start();
}

void NuvikaSslSocket::Private::watchHandshake()
{
    if (Clock::monotonicMs() - m_nHandshakeBegin <= kHandshakeMs)
        return;
    const QString problem = (m_state == eOpen
            ? QStringLiteral("%1 began another TLS handshake, and did not finish it within 10 seconds")
            : QStringLiteral("%1 did not finish the TLS handshake within 10 seconds"))
                                .arg(m_pSession->failure().who());
    NUVIKA_WARNING(lcNet, "NuvikaSslSocket: %s", qUtf8Printable(problem));
    fail(TlsFailure::kHandshakeTimeout, problem);
}

// False when this connection is over.
bool NuvikaSslSocket::Private::continueHandshake(const Watched::Watch& watch)
{
    if (m_state != eHandshake)
        return true;
    TlsSession::Result result = m_pSession->handshake();
    if (result == TlsSession::eWantVerdict) {
        if (!askForVerdict(watch))
            return false;
        result = m_pSession->handshake();
    }
    if (result == TlsSession::eWantInput)
        return true;
    m_pCertificate = m_pSession->peerCertificate();
    if (result != TlsSession::eMore) {
        failWithSession();
        return false;
    }
    m_handshakeTimer.stop();
    m_state = eOpen;
    m_protocolName = QString::fromLatin1(m_pSession->protocol());
    m_cipherName = QString::fromLatin1(m_pSession->cipher());
    m_bResumed = m_pSession->isResumed();
    m_input.setStalled(PendingInput::eByOwner, m_bStalled);
    emit m_owner.connected();
    return watch.holds();
}

// False when this connection is over. No call of OpenSSL is on the stack; what arrives meanwhile waits.
bool NuvikaSslSocket::Private::askForVerdict(const Watched::Watch& watch)
{
    m_pCertificate = m_pSession->peerCertificate();
    m_handshakeTimer.stop(); // a person may be asked
    const VerdictHandler handler = m_verdictHandler; // it may be replaced, or go with the socket
    const PeerChain chain = peerChain();
    const bool bGoOn = handler ? handler(chain) : chain.reasons.isEmpty();
    if (!watch.holds())
        return false;
    m_pSession->peerCheck().giveVerdict(bGoOn);
    limitHandshake();
    return true;
}

NuvikaSslSocket::PeerChain NuvikaSslSocket::Private::peerChain() const
{
    PeerChain chain;
    chain.host = m_host;
    chain.port = m_nPort;
    for (const CertificatePointer& certificate : m_pSession->peerCheck().chain())
        chain.certificates.append(factsOf(certificate.get()));
    for (const TlsObjection& objection : m_pSession->peerCheck().objections())
        chain.reasons.append({objection.nCode, objection.text});
    return chain;
}
