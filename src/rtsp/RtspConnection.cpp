#include "rtsp/RtspConnection_p.h"

#include <KepNuvikaUtil/NuvikaSslSocket.h>
#include <KepNuvikaUtil/NuvikaTcpSocketQueued.h>

#include "core/Log_p.h"
#include "http/SocketTransport_p.h"
#include "platform/ErrorCodes_p.h"

#include <utility>

using namespace Nuvika;

namespace
{
constexpr int kOrderly = 0;
}

RtspConnection::RtspConnection(RtspConnectionListener& listener, const RtspOptions& options, bool bTls)
    : m_listener(listener), m_reader(options.limits)
{
    if (bTls)
        makeTls(options);
    else
        makePlain();
    m_pTransport->setPlacer(*this);
}

// Whoever reads from it sees that it is gone.
RtspConnection::~RtspConnection() { m_pTransport->close(); }

void RtspConnection::makePlain()
{
    m_pSocket = std::make_unique<NuvikaTcpSocketQueued>();
    NuvikaTcpSocketQueued* socket = m_pSocket.get();
    socket->setSystemBuffers(NuvikaTcpSocket::eTuned); // interleaved video over long paths
    QObject::connect(socket, &NuvikaTcpSocketQueued::connected, socket, [this] {
        m_bConnected = true;
        m_listener.connected();
    });
    QObject::connect(
        socket, &NuvikaTcpSocketQueued::disconnected, socket, [this] { ended(kOrderly, QString()); });
    QObject::connect(socket, &NuvikaTcpSocketQueued::error, socket,
        [this](int code) { ended(code, m_pSocket->errorString()); });
    m_pTransport = std::make_unique<SocketTransport<NuvikaTcpSocketQueued>>(*socket);
}

void RtspConnection::makeTls(const RtspOptions& options)
{
    m_pTlsSocket = std::make_unique<NuvikaSslSocket>();
    NuvikaSslSocket* socket = m_pTlsSocket.get();
    socket->setSystemBuffers(NuvikaTcpSocket::eTuned);
    socket->setCertificateVerificationMode(options.tlsVerify);
    socket->setPins(options.tlsPins);
    socket->setVerdictHandler(options.tlsVerdict);
    socket->initSsl(
        false, options.tlsProtocol, options.tlsCertificateFile, options.tlsTrusted, options.tlsPassPhrase);
    QObject::connect(socket, &NuvikaSslSocket::connected, socket, [this] {
        m_bConnected = true;
        m_listener.connected();
    });
    QObject::connect(socket, &NuvikaSslSocket::disconnected, socket,
        [this](unsigned long) { ended(kOrderly, QString()); });
    QObject::connect(socket, &NuvikaSslSocket::error, socket,
        [this](int code) { ended(code, m_pTlsSocket->errorString()); });
    m_pTransport = std::make_unique<SocketTransport<NuvikaSslSocket>>(*socket);
}

void RtspConnection::connectToHost(const QString& host, quint16 port)
{
    m_pTransport->connectToHost(host, port);
}

bool RtspConnection::send(const QByteArray& bytes)
{
    return m_bConnected && m_pTransport->sendData(bytes.constData(), bytes.size());
}

// --- received --------------------------------------------------------------------------------------------

bool RtspConnection::read(const char* data, int size)
{
    m_lastReceived = arrivalNow();
    m_input.received(data, size);
    return true;
}

int RtspConnection::readInput(const char* data, int size)
{
    using Event = RtspMessageReader::Event;
    const Watched::Watch watch = m_life.watch();
    m_reader.feed(data, size);
    for (Event event = m_reader.next(); event != Event::NeedMore; event = m_reader.next()) {
        if (event == Event::Packet) {
            const QByteArray held = m_reader.memory();
            m_listener.packet(m_reader.channel(), m_reader.data(), m_reader.size());
        } else if (event == Event::Message) {
            const RtspHead head = m_reader.head();
            const QByteArray text = m_reader.headText();
            const QByteArray body = m_reader.body();
            m_listener.message(head, text, body);
        } else {
            m_listener.lost(
                ErrorCodes::kConnectionAborted, QStringLiteral("the server sends ") + m_reader.problem());
            return kOver; // read no further, whoever keeps the connection
        }
        if (!watch.holds())
            return kOver;
    }
    if (m_reader.strayBytes() > 0 && !std::exchange(m_bStraysTold, true))
        NUVIKA_WARNING(lcRtsp,
            "RtspClient: %s sends bytes that are neither RTSP nor packets, before byte %llu; not told again",
            qUtf8Printable(peerAddress().toString()), m_reader.position());
    return size;
}

void RtspConnection::ended(int code, const QString& reason)
{
    m_bConnected = false;
    m_endReason = reason;
    m_input.ended(code);
}

void RtspConnection::readEnd(int code)
{
    const QString reason = m_endReason; // the connection may go
    if (code == kOrderly)
        m_listener.lost(ErrorCodes::kConnectionReset, QStringLiteral("the server ended the connection"));
    else
        m_listener.lost(code, reason);
}

void RtspConnection::stallSource(bool bStall)
{
    if (bStall)
        m_pTransport->stallRecv();
    else
        m_pTransport->resumeRecv();
}
