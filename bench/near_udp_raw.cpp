// The limit of the datagram rows: blocking system calls in a loop.
#include "Datagrams.h"

#include <array>

using namespace bench;

namespace
{
void receive(const Arguments& a)
{
    const int s = rawDatagramSocket(a.port);
    constexpr std::size_t kBatch = 10;
    static std::array<std::array<char, 1500>, kBatch> buffers;
    std::array<mmsghdr, kBatch> messages{};
    std::array<iovec, kBatch> ranges{};
    std::array<sockaddr_in6, kBatch> senders;
    for (std::size_t i = 0; i < kBatch; ++i) {
        ranges[i] = {buffers[i].data(), buffers[i].size()};
        messages[i].msg_hdr.msg_name = &senders[i];
        messages[i].msg_hdr.msg_iov = &ranges[i];
        messages[i].msg_hdr.msg_iovlen = 1;
    }
    ready();
    for (long long got = 0; got < a.amount;) {
        for (mmsghdr& message : messages)
            message.msg_hdr.msg_namelen = sizeof(sockaddr_in6);
        const int n = recvmmsg(s, messages.data(), kBatch, MSG_WAITFORONE, nullptr);
        if (got == 0)
            watch.start();
        got += n;
    }
}

void sendSingly(const Arguments& a)
{
    const int s = rawDatagramSocket(0);
    const sockaddr_in to = farAddress(a.port);
    if (a.variant != "sendto" && connect(s, reinterpret_cast<const sockaddr*>(&to), sizeof to) != 0)
        std::exit(1);
    timedSends(a, 1, [&](const Packets& packets) {
        if (a.variant != "sendto")
            send(s, packets.bytes[0].data(), kDatagramSize, 0);
        else
            sendto(s, packets.bytes[0].data(), kDatagramSize, 0, reinterpret_cast<const sockaddr*>(&to),
                sizeof to);
    });
}

void sendBatches(const Arguments& a)
{
    const int s = rawDatagramSocket(0);
    sockaddr_in to = farAddress(a.port);
    timedSends(a, kBatchSize, [&](const Packets& packets) {
        std::array<mmsghdr, kBatchSize> messages{};
        std::array<iovec, kBatchSize> ranges;
        for (std::size_t i = 0; i < kBatchSize; ++i) {
            ranges[i] = {const_cast<char*>(packets.bytes[i].data()), kDatagramSize};
            messages[i].msg_hdr.msg_name = &to;
            messages[i].msg_hdr.msg_namelen = sizeof to;
            messages[i].msg_hdr.msg_iov = &ranges[i];
            messages[i].msg_hdr.msg_iovlen = 1;
        }
        sendmmsg(s, messages.data(), kBatchSize, 0);
    });
}
} // namespace

int main(int argc, char** argv)
{
    const Arguments a(argc, argv);
    if (a.mode == "udprecv")
        receive(a);
    else if (a.mode == "udpbatch")
        sendBatches(a);
    else
        sendSingly(a);
    watch.report();
    std::_Exit(0);
}
