// Private: lengths of socket address records.
#pragma once

#include <KepNuvikaUtil/SocketCalls.h>

namespace Nuvika
{
inline int sockAddrLength(const NuvikaLLSock::ADDR_V4_V6& address)
{
    return address.sa.sa_family == AF_INET6 ? static_cast<int>(sizeof address.v6)
                                            : static_cast<int>(sizeof address.v4);
}
} // namespace Nuvika
