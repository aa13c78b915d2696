// Private: socket address records, and the name that a socket has.
#pragma once

#include <KepNuvikaUtil/SocketCalls.h>

#include "net/DirectSocketCalls_p.h"

namespace Nuvika
{
inline int sockAddrLength(const NuvikaLLSock::ADDR_V4_V6& address)
{
    return address.sa.sa_family == AF_INET6 ? static_cast<int>(sizeof address.v6)
                                            : static_cast<int>(sizeof address.v4);
}

struct SocketName {
    QHostAddress address;
    unsigned short port = 0;
};

// Null and 0 without a socket.
inline SocketName localNameOf(int s)
{
    SocketName name;
    NuvikaLLSock::ADDR_V4_V6 record{};
    int length = sizeof record;
    if (s >= 0 && DirectCalls::localName(s, &record, &length) == 0)
        NuvikaLLSock::getPortAndAddress(&record, &name.address, &name.port);
    return name;
}
} // namespace Nuvika
