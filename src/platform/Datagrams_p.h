// Private: many datagrams in one system call, and runs of them in one pass through the system's network
// layers: a run is up to 64 datagrams of one size, the last may be shorter, between the same two sockets
// (udp(7), UDP_SEGMENT and UDP_GRO).
#pragma once

#include "platform/Bytes_p.h"

#include <array>
#include <cstddef>

#include <sys/socket.h>
#include <sys/uio.h>

namespace Nuvika
{
// What one system call has received, and how far it has been read.
//
//     memory   | run of 3     .... | one datagram .... | ...      a message has room for the longest run
//                ^ takeNext()
class DatagramBatch
{
public:
    struct Datagram {
        const char* data;
        std::size_t size;
        const sockaddr* sender;
        bool bTruncated;
    };

    DatagramBatch() = default;
    DatagramBatch(const DatagramBatch&) = delete;
    DatagramBatch& operator=(const DatagramBatch&) = delete;

    // Asks the system for runs; without them each message is one datagram.
    static void acceptRuns(int s);

    // Receives what waits and fits, over what was not read yet. False when nothing came; the last error tells
    // why.
    bool receive(int s);
    // The call took all that waited.
    bool hasEmptiedSocket() const { return m_nMessages < kMessages; }
    bool isEmpty() const { return m_nNext == m_nMessages; }
    // Valid until the next receive(). Not when empty.
    Datagram takeNext();

private:
    static constexpr std::size_t kMessages = 32;
    static constexpr std::size_t kMessageSize = 65536;
    // Not a power of two: short messages would all compete for the same lines of the cache.
    static constexpr std::size_t kStride = kMessageSize + 1536;

    struct Envelope {
        alignas(8) std::array<unsigned char, 28> sender;
        alignas(8) std::array<unsigned char, 24> control;
    };

    bool allocate();
    void prepare(std::size_t i);
    std::size_t segmentSize(const mmsghdr& message) const;

    std::array<mmsghdr, kMessages> m_messages{};
    std::array<iovec, kMessages> m_ranges{};
    std::array<Envelope, kMessages> m_envelopes{};
    Bytes m_memory; // only touched where something is received
    std::size_t m_nMessages = 0;
    std::size_t m_nNext = 0; // the message that is being read,
    std::size_t m_nRead = 0; // how many of its bytes have been,
    std::size_t m_nSegment = 0; // and the size of its datagrams
};

namespace Datagrams
{
// The most ranges of one datagram.
constexpr int kMaxParts = 16;
// Whether a socket takes runs; found out by the first call that has one for it.
enum class Runs { eUnknown, eTaken, eNever };
// Sends count datagrams, each of partsEach consecutive ranges, to one address, in as few system calls and
// passes as the system allows; never waits. Returns how many went; fewer than count leave a last error, and
// -1 means that the first failed.
int send(int s, const iovec* parts, int partsEach, int count, const sockaddr* to, int length, Runs* pRuns);
} // namespace Datagrams
} // namespace Nuvika
