// Private: what the library's own readers (HTTP, TLS) ask of the socket that they read.
#pragma once

#include <sys/uio.h>

class NuvikaTcpSocket;
class NuvikaTcpSocketQueued;
class NuvikaSslSocket;

namespace Nuvika
{
// A reader never nests its handlers, so its socket takes in one receive what its two would take. And where
// the reader knows to which place the next bytes belong, they are received there.
class ReceivePlacer
{
public:
    virtual ~ReceivePlacer() = default;
    // Right before each receive: that place, or an empty range for anywhere.
    virtual iovec target() { return {}; }
    // So many bytes came, and lie there. Calls nobody: dataReceived() follows at once with what came behind
    // them, be it nothing.
    virtual void placed(int) { }

    // Before connecting or taking a descriptor, for good.
    static void set(NuvikaTcpSocket& socket, ReceivePlacer& placer);
    static void set(NuvikaTcpSocketQueued& socket, ReceivePlacer& placer);
    static void set(NuvikaSslSocket& socket, ReceivePlacer& placer);
};
} // namespace Nuvika
