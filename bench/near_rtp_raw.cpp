// The limit of the RTP row: epoll and recvmmsg.
#include "Datagrams.h"
#include "RtpStreams.h"

#include <sys/epoll.h>

using namespace bench;

int main(int argc, char** argv)
{
    const Arguments a(argc, argv);
    constexpr std::size_t kBatch = 32; // more than a burst
    static std::array<std::array<char, 1500>, kBatch> buffers;
    static std::array<mmsghdr, kBatch> messages{};
    static std::array<iovec, kBatch> ranges{};
    static std::array<sockaddr_in6, kBatch> senders;
    const std::size_t batch
        = a.variant.empty() ? kBatch : static_cast<std::size_t>(std::atoi(a.variant.c_str()));
    const int ep = epoll_create1(EPOLL_CLOEXEC);
    std::vector<unsigned short> ports;
    std::vector<std::pair<int, RtpStream>> streams;
    for (int i = 0; i < a.connections; ++i) {
        streams.emplace_back(rawDatagramSocket(0), RtpStream());
        ports.push_back(portOf(streams.back().first));
        epoll_event event{EPOLLIN, {}};
        event.data.u32 = static_cast<unsigned int>(i);
        epoll_ctl(ep, EPOLL_CTL_ADD, streams.back().first, &event);
    }
    for (std::size_t i = 0; i < kBatch; ++i) {
        ranges[i] = {buffers[i].data(), buffers[i].size()};
        messages[i].msg_hdr.msg_name = &senders[i];
        messages[i].msg_hdr.msg_iov = &ranges[i];
        messages[i].msg_hdr.msg_iovlen = 1;
    }
    ready(printedPorts(ports));
    for (;;) {
        std::array<epoll_event, 256> events;
        const int n = epoll_wait(ep, events.data(), events.size(), -1);
        for (int e = 0; e < n; ++e) {
            auto& [socket, stream] = streams[events[static_cast<std::size_t>(e)].data.u32];
            for (std::size_t i = 0; i < batch; ++i)
                messages[i].msg_hdr.msg_namelen = sizeof(sockaddr_in6);
            const int got
                = recvmmsg(socket, messages.data(), static_cast<unsigned int>(batch), MSG_DONTWAIT, nullptr);
            for (int i = 0; i < got; ++i)
                stream.took(buffers[static_cast<std::size_t>(i)].data(),
                    messages[static_cast<std::size_t>(i)].msg_len);
        }
    }
}
