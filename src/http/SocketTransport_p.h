// Private: an HTTP transport over a socket, plain or TLS.
#pragma once

#include <KepNuvikaUtil/NuvikaSslSocket.h>
#include <KepNuvikaUtil/NuvikaTcpSocketQueued.h>

#include "http/HttpTransport_p.h"
#include "net/ProxyTunnel_p.h"
#include "net/ReceivePlacer_p.h"

#include <type_traits>

namespace Nuvika
{
template <class Socket, class Transport = HttpTransport>
class SocketTransport : public Transport
{
public:
    explicit SocketTransport(Socket& socket) : m_socket(socket) { }
    void setPlacer(ReceivePlacer& placer) override { ReceivePlacer::set(m_socket, placer); }
    void connectToHost(const QString& host, unsigned short port) override
    {
        m_socket.connectToHost(host, port);
    }
    bool sendData(const char* data, int size) override { return m_socket.sendData(data, size); }
    void sendEndOfData() override { endSending(m_socket); }
    bool canSend() const override { return m_socket.canSend(); }
    bool notifyWhenAllSent() override { return m_socket.notifyWhenAllSent(); }
    void close() override { m_socket.close(); }
    void stallRecv() override { m_socket.stallRecv(); }
    void resumeRecv() override { m_socket.resumeRecv(); }
    bool hasPendingInput() const override { return m_socket.hasPendingInput(); }
    bool isTls() const override { return std::is_same_v<Socket, NuvikaSslSocket>; }
    qint64 bytesToSend() const override { return m_socket.bytesToSend(); }
    QHostAddress localAddress() const override { return m_socket.localAddress(); }
    QHostAddress peerAddress() const override { return m_socket.peerAddress(); }
    void setProxy(const ProxyAddress& proxy) override
    {
        if constexpr (kMayTunnel)
            ProxyTunnel::set(m_socket, proxy);
    }
    bool hasProxyFailed() const override
    {
        if constexpr (kMayTunnel)
            return ProxyTunnel::failedLast(m_socket);
        return false;
    }

private:
    static constexpr bool kMayTunnel
        = !std::is_same_v<Socket, NuvikaTcpSocket>; // a server's, which is accepted

    static void endSending(NuvikaTcpSocket& socket) { socket.sendEndOfData(); }
    static void endSending(NuvikaTcpSocketQueued& socket) { socket.finishSending(); }
    static void endSending(NuvikaSslSocket& socket) { socket.sendEndOfData(); }

    Socket& m_socket;
};
} // namespace Nuvika
