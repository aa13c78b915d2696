#include "sim/Address.h"

#include "sim/Report.h"

#include <algorithm>
#include <cstring>

#include <arpa/inet.h>

namespace sim
{
Address Address::of(const std::string& ip, std::uint16_t port)
{
    Address address;
    address.nPort = port;
    address.nFamily = ip.find(':') == std::string::npos ? AF_INET : AF_INET6;
    if (inet_pton(address.nFamily, ip.c_str(), address.ip.data()) != 1)
        fail("%s is no address", ip.c_str());
    return address;
}

// Both kinds of record begin with the family and the port.
Address Address::of(const sockaddr* record, socklen_t length)
{
    Address address;
    const auto* v4 = reinterpret_cast<const sockaddr_in*>(record);
    const auto* v6 = reinterpret_cast<const sockaddr_in6*>(record);
    address.nFamily = length >= sizeof *v4 ? record->sa_family : AF_UNSPEC;
    if (address.nFamily == AF_INET)
        std::memcpy(address.ip.data(), &v4->sin_addr, sizeof v4->sin_addr);
    else if (address.nFamily == AF_INET6 && length >= sizeof *v6)
        std::memcpy(address.ip.data(), &v6->sin6_addr, sizeof v6->sin6_addr);
    else
        address.nFamily = AF_UNSPEC;
    address.nPort = address.nFamily == AF_UNSPEC ? 0 : ntohs(v4->sin_port);
    return address;
}

int Address::copyTo(void* record, socklen_t* length) const
{
    sockaddr_in v4{};
    sockaddr_in6 v6{};
    v6.sin6_family = v4.sin_family = static_cast<sa_family_t>(nFamily);
    v6.sin6_port = v4.sin_port = htons(nPort);
    std::memcpy(&v4.sin_addr, ip.data(), sizeof v4.sin_addr);
    std::memcpy(&v6.sin6_addr, ip.data(), sizeof v6.sin6_addr);
    const bool bV4 = nFamily == AF_INET;
    const socklen_t whole = bV4 ? sizeof v4 : sizeof v6;
    std::memcpy(record, bV4 ? static_cast<void*>(&v4) : &v6, std::min(whole, *length));
    *length = whole;
    return 0;
}

std::string Address::text() const
{
    char buffer[INET6_ADDRSTRLEN] = "?";
    inet_ntop(nFamily, ip.data(), buffer, sizeof buffer);
    return std::string(buffer) + ":" + std::to_string(nPort);
}

Address ownAddress(int family) { return Address::of(family == AF_INET ? "10.0.0.1" : "fd00::1", 0); }

Address sourceFor(const Address& target)
{
    if (target.isLoopback())
        return Address::of(target.nFamily == AF_INET ? "127.0.0.1" : "::1", 0);
    return ownAddress(target.nFamily);
}
} // namespace sim
