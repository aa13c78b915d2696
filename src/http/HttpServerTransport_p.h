// Private: the accepted connection under the server side of HTTP, plain or TLS.
#pragma once

#include <KepNuvikaUtil/Buffer.h>

#include "http/SocketTransport_p.h"
#include "net/HalfClose_p.h"

#include <type_traits>

namespace Nuvika
{
class HttpServerTransport : public HttpTransport
{
public:
    virtual void begin(int descriptor) = 0;
    // In one system call; false when nothing was taken.
    virtual bool sendRanges(const KepNuvikaUtil::BUFFER* ranges, int count) = 0;
    // What the system has taken on this connection.
    virtual quint64 bytesSent() const = 0;
    virtual unsigned short peerPort() const = 0;
    virtual NuvikaSslSocket::PeerCertificate peerCertificate() const = 0;
    // Why the connection has failed, in a sentence.
    virtual QString problem() = 0;
};

template <class Socket>
class AcceptedSocket final : public SocketTransport<Socket, HttpServerTransport>
{
public:
    template <class... Arguments>
    explicit AcceptedSocket(Arguments... arguments)
        : SocketTransport<Socket, HttpServerTransport>(m_own), m_own(arguments...)
    {
    }
    Socket& socket() { return m_own; }

    void begin(int descriptor) override { m_own.setSocketDescriptor(descriptor); }
    bool sendRanges(const KepNuvikaUtil::BUFFER* ranges, int count) override
    {
        return m_own.sendData(ranges, count);
    }
    quint64 bytesSent() const override { return HalfClose::bytesSent(m_own); }
    unsigned short peerPort() const override { return m_own.peerPort(); }
    NuvikaSslSocket::PeerCertificate peerCertificate() const override
    {
        if constexpr (std::is_same_v<Socket, NuvikaSslSocket>)
            return m_own.peerCertificate();
        else
            return {};
    }
    QString problem() override { return m_own.errorString(); }

private:
    Socket m_own;
};
} // namespace Nuvika
