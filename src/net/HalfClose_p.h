// Private: for owners of a TCP socket that go on sending when the peer has ended its direction.
#pragma once

#include <KepNuvikaUtil/NuvikaTcpSocket.h>

#include <functional>

namespace Nuvika
{
class HalfClose
{
public:
    // `peerEnded` is called instead of disconnected(), and what is queued stays; from then on the owner
    // closes. May be called more than once for a connection, and may destroy the socket.
    static void setHandler(NuvikaTcpSocket& socket, std::function<void()> peerEnded);
    // What the system has taken on this connection.
    static quint64 bytesSent(const NuvikaTcpSocket& socket);
};
} // namespace Nuvika
