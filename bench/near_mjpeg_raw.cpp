// The limit of the MJPEG rows: epoll, one receive for each event, straight into the memory of a picture that
// comes in pieces, and an ideal parser.
#include "Pictures.h"

#include <array>

#include <sys/epoll.h>

using namespace bench;

int main(int argc, char** argv)
{
    const Arguments a(argc, argv);
    const bool bMedium = a.variant == "medium"; // the buffers of that profile
    const std::size_t readSize
        = a.variant.empty() || bMedium ? 1 << 16 : static_cast<std::size_t>(std::atoll(a.variant.c_str()));
    std::vector<char> buffer(readSize);
    std::vector<std::pair<int, PartReader>> cameras;
    const int ep = epoll_create1(EPOLL_CLOEXEC);
    for (int i = 0; i < a.connections; ++i) {
        cameras.emplace_back(rawConnect(a.port, bMedium), PartReader(a));
        writeAll(cameras.back().first, kPicturesRequest, sizeof kPicturesRequest - 1);
        epoll_event event{EPOLLIN, {}};
        event.data.u32 = static_cast<unsigned int>(i);
        epoll_ctl(ep, EPOLL_CTL_ADD, cameras.back().first, &event);
    }
    for (;;) {
        std::array<epoll_event, 256> events;
        const int ready = epoll_wait(ep, events.data(), events.size(), -1);
        for (int i = 0; i < ready; ++i) {
            auto& [socket, reader] = cameras[events[static_cast<std::size_t>(i)].data.u32];
            std::array<iovec, 2> ranges{reader.rest(), iovec{buffer.data(), buffer.size()}};
            const std::size_t rest = ranges[0].iov_len;
            const ssize_t n
                = rest > 0 ? readv(socket, ranges.data(), 2) : recv(socket, buffer.data(), buffer.size(), 0);
            if (n <= 0)
                return 1;
            const std::size_t direct = std::min(rest, static_cast<std::size_t>(n));
            reader.restReceived(direct);
            reader.feed(buffer.data(), static_cast<std::size_t>(n) - direct);
        }
    }
}
