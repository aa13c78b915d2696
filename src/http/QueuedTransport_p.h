// Private: an HTTP transport over a queued TCP socket.
#pragma once

#include <KepNuvikaUtil/NuvikaTcpSocketQueued.h>

#include "http/HttpTransport_p.h"

namespace Nuvika
{
class QueuedTransport final : public HttpTransport
{
public:
    explicit QueuedTransport(NuvikaTcpSocketQueued& socket) : m_socket(socket) { }
    void connectToHost(const QString& host, unsigned short port) override
    {
        m_socket.connectToHost(host, port);
    }
    bool sendData(const char* data, int size) override { return m_socket.sendData(data, size); }
    void sendEndOfData() override { m_socket.finishSending(); }
    void close() override { m_socket.close(); }
    void stallRecv() override { m_socket.stallRecv(); }
    void resumeRecv() override { m_socket.resumeRecv(); }
    bool hasPendingInput() const override { return m_socket.hasPendingInput(); }
    QHostAddress localAddress() const override { return m_socket.localAddress(); }
    QHostAddress peerAddress() const override { return m_socket.peerAddress(); }

private:
    NuvikaTcpSocketQueued& m_socket;
};
} // namespace Nuvika
