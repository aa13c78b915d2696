#include "net/HalfClose_p.h"
#include "net/NuvikaSslSocket_p.h"
#include "net/PeerCertificates_p.h"
#include "net/ProxyTunnel_p.h"
#include "net/ReceivePlacer_p.h"

#include "core/Log_p.h"

using namespace Nuvika;

NuvikaSslSocket::NuvikaSslSocket(QObject* parent) : NuvikaSslSocket(0, parent) { }

NuvikaSslSocket::NuvikaSslSocket(int sendQueueHint, QObject* parent)
    : QObject(parent), d(std::make_unique<Private>(*this, sendQueueHint))
{
}

NuvikaSslSocket::~NuvikaSslSocket() = default;

// --- configuration ---------------------------------------------------------------------------------------

bool NuvikaSslSocket::initSsl(bool server, SslProtocol protocol, const QString& certificateFileName,
    const QString& certificateFilePath, const QString& passPhrase)
{
    if (protocol < eSslAny12 || protocol > eTls13) {
        NUVIKA_CRITICAL(lcNet, "NuvikaSslSocket::initSsl(): unknown protocol %d", static_cast<int>(protocol));
        d->refuse(QStringLiteral("there is no TLS protocol %1").arg(static_cast<int>(protocol)));
        return false;
    }
    d->m_protocol = protocol;
    TlsConfig config;
    config.bServer = server;
    config.nProtocol = protocol;
    config.nVerify = d->m_verifyMode;
    config.ownCertificate = certificateFileName.isEmpty() ? d->m_certificateFileName : certificateFileName;
    config.trusted = certificateFilePath.isEmpty() ? d->m_certificateFilePath : certificateFilePath;
    config.passPhrase = passPhrase;
    config.pins = d->m_pins;
    return d->initialise(config);
}

void NuvikaSslSocket::setCertificateVerificationMode(SslVerifyCertificateMode mode)
{
    d->m_verifyMode = mode;
}

void NuvikaSslSocket::setCertificateFileName(const QString& certificateFileName)
{
    d->m_certificateFileName = certificateFileName;
}

void NuvikaSslSocket::setCertificateFilePath(const QString& certificateFilePath)
{
    d->m_certificateFilePath = certificateFilePath;
}

void NuvikaSslSocket::setPins(const QList<TlsPin>& pins) { d->m_pins = pins; }

void NuvikaSslSocket::setVerdictHandler(VerdictHandler handler) { d->m_verdictHandler = std::move(handler); }

NuvikaSslSocket::SslProtocol NuvikaSslSocket::getSllProtocol() const { return d->m_protocol; }

// --- the connection --------------------------------------------------------------------------------------

void NuvikaSslSocket::connectToHost(const QString& host, unsigned short port)
{
    d->connectTo(host, port, [this, host, port] { d->m_socket.connectToHost(host, port); });
}

void NuvikaSslSocket::connectToHost(const QHostAddress& address, unsigned short port)
{
    d->connectTo(
        address.toString(), port, [this, address, port] { d->m_socket.connectToHost(address, port); });
}

void NuvikaSslSocket::setSocketDescriptor(int socket) { d->accept(socket); }

void NuvikaSslSocket::close() { d->close(); }

bool NuvikaSslSocket::sendData(const char* data, int size)
{
    const KepNuvikaUtil::BUFFER range{data, size};
    return size >= 0 && d->send(&range, 1);
}

bool NuvikaSslSocket::sendData(const KepNuvikaUtil::BUFFER* buffer, int count)
{
    return d->send(buffer, count);
}

void NuvikaSslSocket::sendEndOfData() { d->sendEndOfData(); }

bool NuvikaSslSocket::canSend() const { return d->canSend(); }

void NuvikaSslSocket::stallRecv() { d->stall(); }

void NuvikaSslSocket::resumeRecv() { d->resume(); }

void ReceivePlacer::set(NuvikaSslSocket& socket, ReceivePlacer& placer) { socket.d->m_pPlacer = &placer; }

void ProxyTunnel::set(NuvikaSslSocket& socket, const ProxyAddress& proxy) { set(socket.d->m_socket, proxy); }

bool ProxyTunnel::failedLast(const NuvikaSslSocket& socket) { return failedLast(socket.d->m_socket); }

void HalfClose::setHandler(NuvikaSslSocket& socket, std::function<void(bool)> peerEnded)
{
    socket.d->setEndHandler(std::move(peerEnded));
}

quint64 HalfClose::bytesSent(const NuvikaSslSocket& socket) { return bytesSent(socket.d->m_socket); }

bool NuvikaSslSocket::notifyWhenAllSent() { return d->notifyWhenAllSent(); }
bool NuvikaSslSocket::hasPendingInput() const { return d->hasPendingInput(); }

void NuvikaSslSocket::setSystemBuffers(NuvikaTcpSocket::SYSTEM_BUFFERS buffers)
{
    d->m_socket.setSystemBuffers(buffers);
}

qint64 NuvikaSslSocket::bytesToSend() const { return d->bytesToSend(); }

bool NuvikaSslSocket::isSendLimitReached() const { return d->isSendLimitReached(); }

void NuvikaSslSocket::setSendLimit(qint64 bytes) { d->setSendLimit(bytes); }

void NuvikaSslSocket::setKeepAlive(bool on, int idleSeconds, int intervalSeconds, int probes)
{
    d->m_socket.setKeepAlive(on, idleSeconds, intervalSeconds, probes);
}

void NuvikaSslSocket::setNoDelay(bool on) { d->m_socket.setNoDelay(on); }

void NuvikaSslSocket::setConnectTimeLimit(int ms) { d->m_socket.setConnectTimeLimit(ms); }

// --- queries ---------------------------------------------------------------------------------------------

NuvikaTcpSocket::STATE NuvikaSslSocket::getState() { return d->state(); }
QString NuvikaSslSocket::errorString() { return d->m_problem; }
QHostAddress NuvikaSslSocket::localAddress() { return d->m_socket.localAddress(); }
unsigned short NuvikaSslSocket::localPort() const { return d->m_socket.localPort(); }
QHostAddress NuvikaSslSocket::peerAddress() { return d->m_socket.peerAddress(); }
unsigned short NuvikaSslSocket::peerPort() const { return d->m_socket.peerPort(); }
const QString& NuvikaSslSocket::peerName() const { return d->m_socket.peerName(); }
QString NuvikaSslSocket::protocolName() const { return d->m_protocolName; }
QString NuvikaSslSocket::cipherName() const { return d->m_cipherName; }
bool NuvikaSslSocket::isSessionResumed() const { return d->m_bResumed; }

NuvikaSslSocket::PeerCertificate NuvikaSslSocket::peerCertificate() const
{
    return factsOf(d->m_pCertificate.get());
}
