// The other end of the camera rows, by plain system calls and always the same.
//   far_cameras pictures COUNT RATE [SEGMENT] serves COUNT cameras, each with RATE pictures a second; 0: as
//   fast
//                                             as they are taken; prints its port. Segments of 1460 carry 1448
//                                             bytes and a time stamp, as a network brings them
//   far_cameras rtp PACKETS RATE PORT...      one RTP stream to each port, RATE packets a second in all
//   far_cameras hold                          prints its port, keeps connections and echoes
#include "Common.h"
#include "Pictures.h"
#include "RtpStreams.h"

#include <array>
#include <thread>
#include <vector>

#include <sys/epoll.h>

using namespace bench;
using Clock = std::chrono::steady_clock;

namespace
{
int printedListener(int segment)
{
    const int listener = rawListen(0);
    if (segment > 0)
        setsockopt(listener, IPPROTO_TCP, TCP_MAXSEG, &segment, sizeof segment);
    std::printf("%d\n", portOf(listener));
    std::fflush(stdout);
    return listener;
}

struct Camera {
    int socket = -1;
    std::size_t sent = 0; // of the picture that is on its way
    long long waiting = 0; // pictures, that one included
};

// Sends what waits until the system takes no more; what it refused follows when the socket is writable.
void sendPictures(Camera& camera, const std::string& part)
{
    while (camera.waiting > 0) {
        const ssize_t n = send(
            camera.socket, part.data() + camera.sent, part.size() - camera.sent, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (n < 0)
            return;
        camera.sent += static_cast<std::size_t>(n);
        if (camera.sent < part.size())
            return;
        camera.sent = 0;
        --camera.waiting;
    }
}

std::vector<Camera> acceptCameras(int listener, std::size_t count, int ep)
{
    std::vector<Camera> cameras(count);
    const int on = 1;
    for (std::size_t i = 0; i < count; ++i) {
        char request[2048];
        cameras[i].socket = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        setsockopt(cameras[i].socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        if (recv(cameras[i].socket, request, sizeof request, 0) <= 0)
            std::exit(1);
        writeAll(cameras[i].socket, kPicturesHead, sizeof kPicturesHead - 1);
        epoll_event event{EPOLLOUT | EPOLLET, {}};
        event.data.u64 = i;
        epoll_ctl(ep, EPOLL_CTL_ADD, cameras[i].socket, &event);
    }
    return cameras;
}

int pictures(std::size_t count, long long rate, int segment)
{
    const int ep = epoll_create1(EPOLL_CLOEXEC);
    std::vector<Camera> cameras = acceptCameras(printedListener(segment), count, ep);
    const std::string part = picturePart();
    if (rate == 0)
        for (Camera& camera : cameras)
            camera.waiting = 1LL << 60;
    const auto interval
        = std::chrono::nanoseconds(rate > 0 ? 1000000000 / (rate * static_cast<int>(count)) : 0);
    Clock::time_point due = Clock::now();
    for (std::size_t next = 0;;) {
        while (rate > 0 && due <= Clock::now()) { // the cameras in turn, evenly over the second
            ++cameras[next].waiting;
            sendPictures(cameras[next], part);
            next = (next + 1) % count;
            due += interval;
        }
        const auto pause = std::max(due - Clock::now(), Clock::duration::zero());
        const timespec limit{0, pause.count()};
        std::array<epoll_event, 256> events;
        const int n = epoll_pwait2(ep, events.data(), events.size(), rate > 0 ? &limit : nullptr, nullptr);
        for (int i = 0; i < n; ++i) {
            if ((events[static_cast<std::size_t>(i)].events & (EPOLLERR | EPOLLHUP)) != 0)
                return 0;
            sendPictures(cameras[events[static_cast<std::size_t>(i)].data.u64], part);
        }
    }
}

// Each burst is a picture's packets: plain sends, one after the other.
int rtp(long long packets, long long rate, const std::vector<unsigned short>& ports)
{
    const int s = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    std::vector<sockaddr_in> to;
    for (const unsigned short port : ports)
        to.push_back(farAddress(port));
    std::string packet(kRtpSize, 'p');
    const auto interval = std::chrono::nanoseconds(kRtpBurst * 1000000000LL / rate);
    Clock::time_point due = Clock::now();
    for (long long sent = 0; sent < packets; due += interval) {
        std::this_thread::sleep_until(due);
        const long long burst = sent / kRtpBurst;
        const auto stream = static_cast<std::size_t>(burst % static_cast<long long>(to.size()));
        const auto picture = static_cast<unsigned int>(burst / static_cast<long long>(to.size()));
        for (unsigned int i = 0; i < kRtpBurst && sent < packets; ++i, ++sent) {
            writeRtpHead(packet, picture * kRtpBurst + i, picture * 3600, static_cast<unsigned int>(stream),
                i + 1 == kRtpBurst);
            sendto(s, packet.data(), packet.size(), 0, reinterpret_cast<const sockaddr*>(&to[stream]),
                sizeof to[stream]);
        }
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    sendto(s, "end", 3, 0, reinterpret_cast<const sockaddr*>(&to[0]), sizeof to[0]);
    return 0;
}

int hold()
{
    const int listener = printedListener(0);
    const int ep = epoll_create1(EPOLL_CLOEXEC);
    epoll_event event{EPOLLIN, {}};
    event.data.fd = listener;
    epoll_ctl(ep, EPOLL_CTL_ADD, listener, &event);
    for (;;) {
        if (epoll_wait(ep, &event, 1, -1) <= 0)
            continue;
        const int s = event.data.fd;
        char bytes[4096];
        if (s == listener) {
            event = {EPOLLIN, {}};
            event.data.fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
            epoll_ctl(ep, EPOLL_CTL_ADD, event.data.fd, &event);
            continue;
        }
        const ssize_t n = recv(s, bytes, sizeof bytes, 0);
        if (n > 0)
            writeAll(s, bytes, static_cast<std::size_t>(n));
        else
            close(s);
    }
}
} // namespace

int main(int argc, char** argv)
{
    const std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "pictures" && argc > 3)
        return pictures(static_cast<std::size_t>(std::atoll(argv[2])), std::atoll(argv[3]),
            argc > 4 ? std::atoi(argv[4]) : 0);
    if (mode == "rtp" && argc > 4) {
        std::vector<unsigned short> ports;
        for (int i = 4; i < argc; ++i)
            ports.push_back(static_cast<unsigned short>(std::atoi(argv[i])));
        return rtp(std::atoll(argv[2]), std::atoll(argv[3]), ports);
    }
    return mode == "hold" ? hold() : 2;
}
