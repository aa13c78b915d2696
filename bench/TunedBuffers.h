// For the rows whose buffers the kernel tunes. A library without that choice leaves such a row out.
#pragma once

#include "Common.h"

namespace bench
{
template <class Socket>
auto tune(Socket& socket, int) -> decltype(socket.setSystemBuffers(true), void())
{
    socket.setSystemBuffers(true);
}

template <class Socket>
void tune(Socket&, long)
{
    std::exit(77);
}

template <class Socket>
void leaveBuffersToTheKernel(Socket& socket)
{
    if (std::getenv("BENCH_TUNED") != nullptr)
        tune(socket, 0);
}
} // namespace bench
