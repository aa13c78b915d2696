// For the rows whose buffers the kernel tunes.
#pragma once

#include <KepNuvikaUtil/NuvikaTcpSocket.h>

#include <cstdlib>

namespace bench
{
template <class Socket>
void leaveBuffersToTheKernel(Socket& socket)
{
    if (std::getenv("BENCH_TUNED") != nullptr)
        socket.setSystemBuffers(NuvikaTcpSocket::eTuned);
}
} // namespace bench
