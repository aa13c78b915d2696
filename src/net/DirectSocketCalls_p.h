// Private: the socket calls as the library's own classes make them. What cannot block is made at once, on the
// calling thread; what may block goes to a worker while the caller waits, as by the public wrapped calls
// (SocketCalls.h). Results and last errors are the plain calls'. A call whose hand-over is refused has a
// record in the log, returns -1 and leaves 10107 as last error.
#pragma once

#include <KepNuvikaUtil/Buffer.h>

#include "platform/Sockets_p.h"

namespace Nuvika::DirectCalls
{
// None of these blocks on Linux, whatever the descriptor.
using Sockets::bind;
using Sockets::localName;
using Sockets::setNonBlocking;
using Sockets::setOption;
using Sockets::shutdownWrite;

// At once on a non-blocking descriptor.
int connect(int s, const sockaddr* address, int length);
// At once on a non-blocking descriptor, or when the system takes the bytes without waiting.
int sendTo(int s, const void* data, std::size_t size, int flags, const sockaddr* to, int length);
// Never waits: fewer than `count` when the buffer is full. See NuvikaLLSock::sendmany().
int sendMany(int s, const KepNuvikaUtil::BUFFER* datagrams, int count, const sockaddr* to, int length);
// At once unless the descriptor lingers. The descriptor is closed in any case: when no worker can be had, by
// the plain call.
int close(int s);
} // namespace Nuvika::DirectCalls
