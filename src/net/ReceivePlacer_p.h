// Private: a reader that knows where a connection's next bytes belong gets them there without a copy.
#pragma once

#include <sys/uio.h>

class NuvikaTcpSocket;

namespace Nuvika
{
class ReceivePlacer
{
public:
    // Where the bytes are wanted that come next; an empty range for anywhere. Asked right before each
    // receive.
    virtual iovec target() = 0;
    // So many bytes came, and lie there. Calls nobody: dataReceived() follows at once with what came behind
    // them, be it nothing.
    virtual void placed(int bytes) = 0;

    // From now on, until it is unset.
    static void set(NuvikaTcpSocket& socket, ReceivePlacer* placer);

protected:
    ~ReceivePlacer() = default;
};
} // namespace Nuvika
