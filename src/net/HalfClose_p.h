// Private: for owners of a socket that go on sending when the peer has ended its direction.
#pragma once

#include <KepNuvikaUtil/NuvikaTcpSocket.h>

#include <functional>

class NuvikaTcpSocketQueued;
class NuvikaSslSocket;

namespace Nuvika
{
class HalfClose
{
public:
    // `peerEnded` is called instead of disconnected(), and what is queued stays; from then on the owner
    // closes. May be called more than once for a connection, and may destroy the socket.
    static void setHandler(NuvikaTcpSocket& socket, std::function<void()> peerEnded);
    static void setHandler(NuvikaTcpSocketQueued& socket, std::function<void()> peerEnded);
    // Announced: by close_notify; else what came last may have been cut off.
    static void setHandler(NuvikaSslSocket& socket, std::function<void(bool bAnnounced)> peerEnded);
    // What the system has taken on this connection.
    static quint64 bytesSent(const NuvikaTcpSocket& socket);
    static quint64 bytesSent(const NuvikaTcpSocketQueued& socket);
    static quint64 bytesSent(const NuvikaSslSocket& socket);
};
} // namespace Nuvika
