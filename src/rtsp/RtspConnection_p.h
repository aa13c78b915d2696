// Private: one connection to an RTSP server, plain or TLS, and the reader of what it brings.
#pragma once

#include <KepNuvikaUtil/RtspOptions.h>

#include "core/Watched_p.h"
#include "http/HttpTransport_p.h"
#include "net/PendingInput_p.h"
#include "net/ReceivePlacer_p.h"
#include "rtsp/RtspMessageReader_p.h"
#include "rtsp/RtspTime_p.h"

#include <memory>

class NuvikaTcpSocketQueued;
class NuvikaSslSocket;

namespace Nuvika
{
// Any of these may destroy the connection.
class RtspConnectionListener
{
public:
    virtual void connected() = 0;
    virtual void message(const RtspHead& head, const QByteArray& headText, const QByteArray& body) = 0;
    virtual void packet(int channel, const char* data, int size) = 0;
    // It has ended: a code as of RtspClient::error(), and why in words.
    virtual void lost(int code, const QString& reason) = 0;

protected:
    ~RtspConnectionListener() = default;
};

class RtspConnection final : public ReceivePlacer, private InputReader
{
public:
    RtspConnection(RtspConnectionListener& listener, const RtspOptions& options, bool bTls);
    ~RtspConnection() override;
    RtspConnection(const RtspConnection&) = delete;
    RtspConnection& operator=(const RtspConnection&) = delete;

    void connectToHost(const QString& host, quint16 port);
    bool send(const QByteArray& bytes);
    bool isConnected() const { return m_bConnected; }
    bool canSend() const { return m_bConnected && m_pTransport->canSend(); }
    // The system has taken all that was sent.
    bool isAllSent() const { return m_bConnected && m_pTransport->bytesToSend() == 0; }
    QHostAddress localAddress() const { return m_pTransport->localAddress(); }
    QHostAddress peerAddress() const { return m_pTransport->peerAddress(); }
    // When the last bytes came: of all packets in them.
    const RtpArrival& lastReceived() const { return m_lastReceived; }
    RtspMessageReader& reader() { return m_reader; }

    // Of the socket.
    bool read(const char* data, int size) override;

private:
    void makePlain();
    void makeTls(const RtspOptions& options);
    int readInput(const char* data, int size) override;
    void readEnd(int code) override;
    void stallSource(bool bStall) override;
    void ended(int code, const QString& reason);

    RtspConnectionListener& m_listener;
    std::unique_ptr<NuvikaTcpSocketQueued> m_pSocket; // one of these two
    std::unique_ptr<NuvikaSslSocket> m_pTlsSocket;
    std::unique_ptr<HttpTransport> m_pTransport;
    RtspMessageReader m_reader;
    PendingInput m_input{*this};
    QString m_endReason;
    bool m_bConnected = false;
    bool m_bStraysTold = false;
    RtpArrival m_lastReceived;
    Watched m_life;
};
} // namespace Nuvika
