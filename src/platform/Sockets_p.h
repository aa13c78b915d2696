// Private: the plain socket calls. Descriptors are close-on-exec, interrupted calls are repeated, and a call
// that fails leaves its code in ErrorCodes::lastError() and returns -1.
#pragma once

#include <cstddef>

struct sockaddr;
struct iovec;

namespace Nuvika::Sockets
{
int openStream(int family);
int openDatagram(int family);
int bind(int s, const sockaddr* address, int length);
int close(int s);
int shutdownWrite(int s);
int sendTo(int s, const void* data, std::size_t size, int flags, const sockaddr* to, int length);
int setOption(int s, int level, int name, const void* value, int length);
int localName(int s, void* address, int* length);
int peerName(int s, void* address, int* length);
int connect(int s, const sockaddr* address, int length);
int listen(int s);
int setNonBlocking(int s, bool bNonBlocking);
// The last error stays as it was.
bool isBlocking(int s);
bool lingers(int s); // its close may wait

// Reads and clears the pending error, as a code; 0 when there is none.
int takePendingError(int s);
// Small pieces leave at once: the engine's own queue does the coalescing.
int setNoDelay(int s, bool bOn);
// Probes of a silent connection, times in seconds. Fails with the first refusal.
int setKeepAlive(int s, bool bOn, int nIdle, int nInterval, int nProbes);
// Urgent bytes stay in their place in the stream.
void setUrgentInline(int s);
// Keeps segments well below a small buffer: loopback segments of 64 KB would stall its window.
void setSegmentLimit(int s, int bytes);
// A restart does not wait for old connections; a port with a live listener stays refused.
void setReuseAddress(int s);

// Transfers that never block. Bytes moved, or -1 with kWouldBlock or another code as last error.
// Into the first range, then into the second; either may be empty.
long receive(int s, const iovec& first, const iovec& second);
long send(int s, const iovec* ranges, int count);

// A socket hears only the groups that it has joined itself, not those of the host's other sockets.
void setOwnGroupsOnly(int s, int family);
// Only what arrives over that interface is received.
int bindToInterface(int s, unsigned int index);
// An IPv6 socket is for IPv6 only, or for both.
int setIPv6Only(int s, bool bOnly);

// Bytes, the peer's end or an error wait to be received.
bool hasInput(int s);
} // namespace Nuvika::Sockets
