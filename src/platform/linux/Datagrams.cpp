#include "platform/Datagrams_p.h"

#include "platform/ErrorCodes_p.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>

#include <netinet/in.h>
#include <netinet/udp.h>

using namespace Nuvika;

namespace
{
template <class Call>
int uninterrupted(Call call)
{
    int result = call();
    while (result == -1 && errno == EINTR)
        result = call();
    return result;
}
} // namespace

// --- receiving -----------------------------------------------------------------------------------------

// With the first receive, and again until there is memory.
bool DatagramBatch::allocate()
{
    m_memory = tryAllocate(kMessages * kStride);
    if (!m_memory) {
        ErrorCodes::setLastError(ErrorCodes::kNoBuffers);
        return false;
    }
    for (std::size_t i = 0; i < kMessages; ++i) {
        m_ranges[i] = {m_memory.get() + i * kStride, kMessageSize};
        prepare(i);
    }
    return true;
}

void DatagramBatch::acceptRuns(int s)
{
    const int on = 1;
    setsockopt(s, SOL_UDP, UDP_GRO, &on, sizeof on);
}

void DatagramBatch::prepare(std::size_t i)
{
    msghdr& head = m_messages[i].msg_hdr;
    head.msg_name = m_envelopes[i].sender.data();
    head.msg_namelen = sizeof m_envelopes[i].sender;
    head.msg_iov = &m_ranges[i];
    head.msg_iovlen = 1;
    head.msg_control = m_envelopes[i].control.data();
    head.msg_controllen = sizeof m_envelopes[i].control;
}

bool DatagramBatch::receive(int s)
{
    for (std::size_t i = 0; i < m_nMessages; ++i)
        prepare(i); // the call before has left its lengths there
    m_nMessages = 0;
    m_nNext = 0;
    m_nRead = 0;
    if (!m_memory && !allocate())
        return false;
    const int got
        = uninterrupted([&] { return recvmmsg(s, m_messages.data(), kMessages, MSG_DONTWAIT, nullptr); });
    if (got < 0)
        ErrorCodes::setLastError(ErrorCodes::fromErrno(errno));
    m_nMessages = static_cast<std::size_t>(std::max(got, 0));
    return m_nMessages > 0;
}

std::size_t DatagramBatch::segmentSize(const mmsghdr& message) const
{
    const cmsghdr* control = CMSG_FIRSTHDR(&message.msg_hdr);
    if (control == nullptr || control->cmsg_level != SOL_UDP || control->cmsg_type != UDP_GRO)
        return message.msg_len;
    int size = 0;
    std::memcpy(&size, CMSG_DATA(control), sizeof size);
    return size > 0 ? static_cast<std::size_t>(size) : message.msg_len;
}

DatagramBatch::Datagram DatagramBatch::takeNext()
{
    const mmsghdr& message = m_messages[m_nNext];
    if (m_nRead == 0)
        m_nSegment = segmentSize(message);
    const std::size_t left = message.msg_len - m_nRead;
    const std::size_t size = std::min(left, m_nSegment);
    const bool bLast = size == left;
    const Datagram datagram{m_memory.get() + m_nNext * kStride + m_nRead, size,
        reinterpret_cast<const sockaddr*>(m_envelopes[m_nNext].sender.data()),
        bLast && (message.msg_hdr.msg_flags & MSG_TRUNC) != 0};
    m_nRead = bLast ? 0 : m_nRead + size;
    m_nNext += bLast ? 1 : 0;
    return datagram;
}

// --- sending -------------------------------------------------------------------------------------------

namespace
{
constexpr int kMaxRun = 64;
constexpr std::size_t kMaxRunBytes = 65507;
constexpr int kMaxMessages = 1024; // of one system call

using Datagrams::Runs;

// A kernel that does not know runs might take one for a single datagram: it is asked first.
Runs askForRuns(int s)
{
    const int none = 0; // no size for all messages: each run has its own
    if (setsockopt(s, SOL_UDP, UDP_SEGMENT, &none, sizeof none) == 0)
        return Runs::eTaken;
    return errno == ENOPROTOOPT ? Runs::eNever : Runs::eUnknown;
}

// One list on its way. A message is a run, or a datagram alone.
class Sending
{
public:
    Sending(int s, const iovec* parts, int partsEach, int count, Runs* pRuns)
        : m_nSocket(s), m_pParts(parts), m_nPartsEach(partsEach), m_nCount(count), m_pRuns(pRuns)
    {
    }

    int to(const sockaddr* address, int length)
    {
        int sent = 0;
        while (sent < m_nCount) {
            const unsigned int messages = fill(sent, address, length);
            const int went = uninterrupted([&] {
                return sendmmsg(m_nSocket, m_messages.data(), messages, MSG_DONTWAIT | MSG_NOSIGNAL);
            });
            for (int i = 0; i < went; ++i)
                sent += m_runs[static_cast<std::size_t>(i)];
            if (went <= 0 && !goOnWithoutRun(sent)) {
                ErrorCodes::setLastError(ErrorCodes::fromErrno(errno));
                return sent > 0 ? sent : -1;
            }
        }
        return sent;
    }

private:
    const iovec* partsOf(int datagram) const
    {
        return m_pParts + static_cast<std::ptrdiff_t>(datagram) * m_nPartsEach;
    }

    std::size_t sizeOf(int datagram) const
    {
        const iovec* parts = partsOf(datagram);
        std::size_t size = 0;
        for (int i = 0; i < m_nPartsEach; ++i)
            size += parts[i].iov_len;
        return size;
    }

    // How many datagrams from this one on make one message. An empty one would be lost in a run.
    int runFrom(int first) const
    {
        const std::size_t segment = sizeOf(first);
        const bool bMayRun = *m_pRuns == Runs::eTaken && segment > 0 && first >= m_nAlone;
        const int most = bMayRun ? std::min(kMaxRun, m_nCount - first) : 1;
        std::size_t total = segment;
        int length = 1;
        for (std::size_t size = segment; length < most && size == segment; ++length) {
            size = sizeOf(first + length);
            total += size;
            if (size == 0 || size > segment || total > kMaxRunBytes)
                break;
        }
        return length;
    }

    unsigned int fill(int first, const sockaddr* address, int length)
    {
        std::size_t count = 0;
        while (first < m_nCount && count < kMaxMessages) {
            const int run = runFrom(first);
            msghdr& head = m_messages[count].msg_hdr;
            head = msghdr{};
            head.msg_name = const_cast<sockaddr*>(address);
            head.msg_namelen = static_cast<socklen_t>(length);
            head.msg_iov = const_cast<iovec*>(partsOf(first));
            head.msg_iovlen = static_cast<std::size_t>(run) * static_cast<std::size_t>(m_nPartsEach);
            if (run > 1)
                addSegmentSize(head, m_controls[count], sizeOf(first));
            m_runs[count++] = run;
            first += run;
        }
        return static_cast<unsigned int>(count);
    }

    struct Control {
        alignas(cmsghdr) std::array<unsigned char, CMSG_SPACE(sizeof(std::uint16_t))> bytes;
    };

    static void addSegmentSize(msghdr& head, Control& control, std::size_t size)
    {
        const auto segment = static_cast<std::uint16_t>(size);
        control = {}; // its padding is read as well
        head.msg_control = control.bytes.data();
        head.msg_controllen = sizeof control.bytes;
        cmsghdr* record = CMSG_FIRSTHDR(&head);
        record->cmsg_level = SOL_UDP;
        record->cmsg_type = UDP_SEGMENT;
        record->cmsg_len = CMSG_LEN(sizeof segment);
        std::memcpy(CMSG_DATA(record), &segment, sizeof segment);
    }

    // A refused run goes as datagrams, which tell what is wrong if they are refused as well. A kernel without
    // runs and a device without checksums will never take one; a segment above the route's MTU is this
    // run's affair.
    bool goOnWithoutRun(int first)
    {
        if (m_runs[0] == 1)
            return false;
        if (errno == ENOPROTOOPT || errno == EIO)
            *m_pRuns = Runs::eNever;
        m_nAlone = first + m_runs[0];
        return true;
    }

    const int m_nSocket;
    const iovec* const m_pParts;
    const int m_nPartsEach;
    const int m_nCount;
    Runs* const m_pRuns;
    int m_nAlone = 0; // datagrams before this one go alone
    std::array<mmsghdr, kMaxMessages> m_messages; // filled as needed, as are the others: 92 KiB
    std::array<Control, kMaxMessages> m_controls;
    std::array<int, kMaxMessages> m_runs;
};
} // namespace

int Nuvika::Datagrams::send(
    int s, const iovec* parts, int partsEach, int count, const sockaddr* to, int length, Runs* pRuns)
{
    if (*pRuns == Runs::eUnknown && count > 1)
        *pRuns = askForRuns(s);
    return Sending(s, parts, partsEach, count, pRuns).to(to, length);
}
