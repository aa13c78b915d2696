#include "core/Log_p.h"
#include "net/NuvikaSslSocket_p.h"
#include "platform/Clock_p.h"

#include <utility>

using namespace Nuvika;
using Marker = NuvikaTcpSocket::QueuedConnNotAllowed;

namespace
{
constexpr int kHandshakeTickMs = 500;
constexpr quint32 kHandshakeMs = 10000;
constexpr int kCloseMs = 500;
constexpr int kReadSize = 64 * 1024; // plain text handed out at a time: four full records
constexpr int kSideInputLimit = 1 << 20;
constexpr int kAnswersLimit = 64 * 1024;

// Plain text on its way to a handler. The thread keeps one such buffer, not every connection; a second one
// exists while a handler runs an event loop of its own.
class ReadBuffer
{
public:
    ReadBuffer() : m_pBytes(std::move(kept()))
    {
        if (!m_pBytes)
            m_pBytes.reset(new char[kReadSize]);
    }
    ~ReadBuffer() { kept() = std::move(m_pBytes); }
    ReadBuffer(const ReadBuffer&) = delete;
    ReadBuffer& operator=(const ReadBuffer&) = delete;
    char* data() const { return m_pBytes.get(); }

private:
    static std::unique_ptr<char[]>& kept()
    {
        thread_local std::unique_ptr<char[]> t_pKept;
        return t_pKept;
    }
    std::unique_ptr<char[]> m_pBytes;
};
} // namespace

NuvikaSslSocket::Private::Private(NuvikaSslSocket& owner, int nSendQueueHint)
    : m_socket(nSendQueueHint, false), m_owner(owner)
{
    m_handshakeTimer.setInterval(kHandshakeTickMs);
    m_closeTimer.setSingleShot(true);
    m_closeTimer.setInterval(kCloseMs);
    connect(&m_handshakeTimer, &QTimer::timeout, &owner, [this] { watchHandshake(); });
    connect(&m_closeTimer, &QTimer::timeout, &owner, [this] { closeCompleted(); });
    connect(&m_socket, &NuvikaTcpSocketQueued::connected, &owner, [this] { beginHandshake(); });
    connect(&m_socket, &NuvikaTcpSocketQueued::dataReceived, &owner,
        [this](const char* data, int size, Marker) { received(data, size); });
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
    m_socket.resumeRecv(); // until the handshake is over
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
        failLater();
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
        failLater();
        return;
    }
    beginConnection();
    m_host.clear();
    m_nPort = 0;
    beginHandshake();
}

void NuvikaSslSocket::Private::failLater()
{
    m_state = eConnecting;
    QTimer::singleShot(0, &m_owner, [this, watch = m_watched.watch()] {
        if (watch.holds())
            fail(TlsFailure::kOther, m_configurationProblem);
    });
}

void NuvikaSslSocket::Private::beginHandshake()
{
    m_state = eHandshake;
    m_pSession = std::make_unique<TlsSession>(m_pContext, *this, m_host, m_nPort);
    m_nHandshakeBegin = Clock::monotonicMs();
    m_handshakeTimer.start();
    continueHandshake(m_watched.watch());
}

void NuvikaSslSocket::Private::watchHandshake()
{
    if (m_state != eHandshake || Clock::monotonicMs() - m_nHandshakeBegin <= kHandshakeMs)
        return;
    const QString problem = QStringLiteral("%1 did not finish the TLS handshake within 10 seconds")
                                .arg(m_pSession->failure().who());
    NUVIKA_WARNING(lcNet, "NuvikaSslSocket: %s", qUtf8Printable(problem));
    fail(TlsFailure::kHandshakeTimeout, problem);
}

// False when this connection is over.
bool NuvikaSslSocket::Private::continueHandshake(const Watched::Watch& watch)
{
    if (m_state != eHandshake)
        return true;
    const TlsSession::Result result = m_pSession->handshake();
    if (result == TlsSession::eWantInput)
        return true;
    m_pCertificate = m_pSession->peerCertificate();
    if (result != TlsSession::eMore) {
        const TlsFailure failure = m_pSession->failure();
        fail(failure.nCode != 0 ? failure.nCode : TlsFailure::kOther,
            failure.nCode != 0 ? failure.text
                               : QStringLiteral("%1 ended the TLS handshake").arg(failure.who()));
        return false;
    }
    m_handshakeTimer.stop();
    m_state = eOpen;
    m_protocolName = QString::fromLatin1(m_pSession->protocol());
    m_cipherName = QString::fromLatin1(m_pSession->cipher());
    m_bResumed = m_pSession->isResumed();
    if (m_bStalled)
        m_socket.stallRecv();
    emit m_owner.connected();
    return watch.holds();
}

// --- receiving -------------------------------------------------------------------------------------------

void NuvikaSslSocket::Private::received(const char* data, int size)
{
    if (!m_pSession)
        return; // a close is pending
    if (!m_bDelivering) {
        takeInput(data, size);
        return;
    }
    m_sideInput.append(data, size);
    if (m_sideInput.size() > kSideInputLimit && !m_bSideStalled) {
        m_bSideStalled = true;
        m_socket.stallRecv();
    }
}

void NuvikaSslSocket::Private::takeInput(const char* data, int size)
{
    const Watched::Watch watch = m_watched.watch();
    m_bDelivering = true;
    QByteArray side;
    while (size > 0) {
        m_pSession->setInput(data, size);
        if (!continueHandshake(watch) || !deliver(watch))
            return;
        if (std::exchange(m_bSideStalled, false) && !m_bStalled)
            m_socket.resumeRecv();
        side = std::exchange(m_sideInput, QByteArray());
        data = side.constData();
        size = side.size();
    }
    m_bDelivering = false;
    if (m_end)
        tcpEnded(*std::exchange(m_end, std::nullopt));
}

// False when this connection is over.
bool NuvikaSslSocket::Private::deliver(const Watched::Watch& watch)
{
    if (m_state != eOpen)
        return true;
    const ReadBuffer buffer;
    for (;;) {
        int got = 0;
        m_bReading = true;
        const TlsSession::Result result = m_pSession->read(buffer.data(), kReadSize, &got);
        m_bReading = false;
        if (got > 0)
            emit m_owner.dataReceived(buffer.data(), got, Marker());
        if (!watch.holds())
            return false;
        if (m_nAnswers > kAnswersLimit) {
            fail(TlsFailure::kOther,
                QStringLiteral("%1 asks for answers that it does not read").arg(m_pSession->failure().who()));
            return false;
        }
        switch (result) {
        case TlsSession::eMore:
            break;
        case TlsSession::eWantInput:
            return true;
        case TlsSession::eClosed:
            m_pSession->endWriting();
            endSession();
            m_socket.close();
            m_state = eIdle;
            emit m_owner.disconnected(0);
            return false;
        case TlsSession::eFailed:
            fail(m_pSession->failure().nCode, QString(m_pSession->failure().text));
            return false;
        }
    }
}

void NuvikaSslSocket::Private::stall()
{
    m_bStalled = true;
    if (m_state == eOpen)
        m_socket.stallRecv();
}

void NuvikaSslSocket::Private::resume()
{
    m_bStalled = false;
    if (m_state == eOpen && !m_bSideStalled)
        m_socket.resumeRecv();
}

bool NuvikaSslSocket::Private::hasPendingInput() const
{
    return m_socket.hasPendingInput() || (m_pSession && m_pSession->hasInput()) || !m_sideInput.isEmpty();
}

// --- sending ---------------------------------------------------------------------------------------------

void NuvikaSslSocket::Private::sendEncrypted(const char* data, int size)
{
    m_socket.sendData(data, size);
    if (m_socket.isDynamicDataQueueEmpty())
        m_nAnswers = 0;
    else if (m_bReading)
        m_nAnswers += size;
}

bool NuvikaSslSocket::Private::send(const char* data, int size)
{
    return m_state == eOpen && size >= 0 && m_pSession->write(data, size);
}

void NuvikaSslSocket::Private::sendEndOfData()
{
    if (m_state != eOpen)
        return;
    m_pSession->endWriting();
    m_socket.finishSending();
}

// --- ending ----------------------------------------------------------------------------------------------

// Whoever is in the middle of delivering sees it, and leaves.
void NuvikaSslSocket::Private::endSession()
{
    m_watched.endSession();
    m_handshakeTimer.stop();
    m_closeTimer.stop();
    m_pSession.reset();
    m_bDelivering = false;
    m_sideInput.clear();
    m_bSideStalled = false;
    m_end.reset();
    m_nAnswers = 0;
}

void NuvikaSslSocket::Private::close()
{
    m_postponedConnect = nullptr;
    if (m_state == eClosing)
        return;
    const bool bOpen = m_state == eOpen;
    if (bOpen)
        m_pSession->endWriting();
    endSession();
    m_problem.clear();
    if (bOpen && m_socket.notifyWhenAllSent()) {
        m_state = eClosing;
        m_closeTimer.start();
        return;
    }
    m_socket.close();
    m_state = eIdle;
}

void NuvikaSslSocket::Private::closeCompleted()
{
    m_closeTimer.stop();
    m_socket.close();
    m_state = eIdle;
    if (const auto connectNow = std::exchange(m_postponedConnect, nullptr))
        connectNow();
}

void NuvikaSslSocket::Private::tcpEnded(int code)
{
    if (m_state == eClosing) {
        closeCompleted();
        return;
    }
    if (m_bDelivering) { // the bytes before the end come first
        m_end = code;
        return;
    }
    if (code != 0) {
        fail(code, m_socket.errorString());
    } else if (m_state == eHandshake) {
        fail(TlsFailure::kOther,
            QStringLiteral("%1 closed the connection during the TLS handshake")
                .arg(m_pSession->failure().who()));
    } else {
        endSession();
        m_state = eIdle;
        emit m_owner.disconnected(1);
    }
}

void NuvikaSslSocket::Private::fail(int code, const QString& problem)
{
    endSession();
    m_socket.close();
    m_problem = problem;
    m_state = eFailed;
    emit m_owner.error(code);
}
