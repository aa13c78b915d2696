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

// As NuvikaLLSock::getPortAndAddress(); the IPv4 end of a socket of both families is told as IPv4.
inline void readSockAddr(const NuvikaLLSock::ADDR_V4_V6& record, QHostAddress* address, unsigned short* port)
{
    NuvikaLLSock::getPortAndAddress(&record, address, port);
    if (record.sa.sa_family == AF_INET6 && IN6_IS_ADDR_V4MAPPED(&record.v6.sin6_addr))
        address->setAddress(address->toIPv4Address());
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
