/// \file
/// Socket calls off the calling thread. Each is handed to a worker thread while the caller waits: same
/// arguments, same result and same last error (SocketError::getLast()) as the plain call. They never run an
/// event loop, and may be called from any thread. A call that cannot block never waits for one that does;
/// those that do hold up each other only past some hundred.
///
/// When no worker can be had, a call returns 10107 (not -1), logs one critical record and leaves the last
/// error as it was.
#pragma once

#include <KepNuvikaUtil/Buffer.h>
#include <KepNuvikaUtil/Export.h>

#include <QtNetwork/QHostAddress>

#include <netinet/in.h>

class QDebug;

namespace NuvikaLLSock
{
/// A socket address of either family: the system's own records, 28 bytes.
union ADDR_V4_V6 {
    sockaddr sa;
    sockaddr_in v4;
    sockaddr_in6 v6;
};

KEPNUVIKAUTIL_EXPORT int bind(int s, const sockaddr* addr, int len);
KEPNUVIKAUTIL_EXPORT int closesocket(int s);
/// Ends the sending direction.
KEPNUVIKAUTIL_EXPORT int shutdownWrite(int s);
/// Bytes sent, or -1. Never raises SIGPIPE.
KEPNUVIKAUTIL_EXPORT int sendto(
    int s, const void* data, unsigned int len, int flags, const sockaddr* to, int tolen);
/// Sends each of \a count ranges as a datagram to one address: one hand-over, and one system call for up to
/// 1024 of them. Returns how many went; fewer than \a count leave a last error, and -1 means that the first
/// failed.
KEPNUVIKAUTIL_EXPORT int sendmany(
    int s, const KepNuvikaUtil::BUFFER* datagrams, int count, const sockaddr* to, int tolen);
KEPNUVIKAUTIL_EXPORT int setsockopt(int s, int level, int optname, const void* optval, int optlen);
/// Writes the local address to \a name; \a namelen holds its room on entry.
KEPNUVIKAUTIL_EXPORT int getsockname(int s, const void* name, int* namelen);
/// A connect that has just begun on a non-blocking socket fails with 10035, one under way with 10037, one
/// that is done with 10056.
KEPNUVIKAUTIL_EXPORT int WSAConnect(int s, const sockaddr* addr, int len);

/// True when the mode was set. Runs on the calling thread.
KEPNUVIKAUTIL_EXPORT bool setNonBlocking(int s, bool nonBlocking);
/// Fills \a out for an IPv4, IPv6 or any-IP address (as IPv4); zero bytes for any other. \a port in host
/// order. The scope id stays 0.
KEPNUVIKAUTIL_EXPORT void createSockAddr(ADDR_V4_V6* out, const QHostAddress& address, unsigned short port);
/// The reverse. A union of neither family gives a null address and leaves \a port untouched.
KEPNUVIKAUTIL_EXPORT void getPortAndAddress(
    const ADDR_V4_V6* in, QHostAddress* address, unsigned short* port);

/// For logs: address and port.
KEPNUVIKAUTIL_EXPORT QDebug operator<<(QDebug debug, const ADDR_V4_V6& address);
} // namespace NuvikaLLSock
