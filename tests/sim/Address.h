// A family, an IP address and a port.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <tuple>

#include <netinet/in.h>
#include <sys/socket.h>

namespace sim
{
struct Address {
    int nFamily = AF_INET;
    std::array<unsigned char, 16> ip{}; // IPv4 in the first four
    std::uint16_t nPort = 0;

    // Ends the run where the text is no address.
    static Address of(const std::string& ip, std::uint16_t port);
    // Family AF_UNSPEC when the record is not one.
    static Address of(const sockaddr* record, socklen_t length);
    // Cut to the room that there is; *length is the whole. 0.
    int copyTo(void* record, socklen_t* length) const;

    Address withPort(std::uint16_t port) const { return {nFamily, ip, port}; }
    Address withoutIp() const { return {nFamily, {}, nPort}; }
    bool isAny() const { return ip == decltype(ip){}; }
    bool isLoopback() const { return nFamily == AF_INET ? ip[0] == 127 : ip[15] == 1 && ip[0] == 0; }
    bool isMulticast() const { return nFamily == AF_INET ? (ip[0] & 0xf0) == 0xe0 : ip[0] == 0xff; }
    std::string text() const;

    friend bool operator<(const Address& a, const Address& b)
    {
        return std::tie(a.nFamily, a.ip, a.nPort) < std::tie(b.nFamily, b.ip, b.nPort);
    }
    friend bool operator==(const Address& a, const Address& b) { return !(a < b) && !(b < a); }
};

// The machine on which the library runs, as seen from others.
Address ownAddress(int family);
// What a socket that talks to that one has for its own.
Address sourceFor(const Address& target);
} // namespace sim
