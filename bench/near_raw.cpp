// The limit rows: the same work by plain system calls, as directly as it can be written.
#include "Common.h"

#include <string>
#include <vector>

#include <strings.h>
#include <sys/epoll.h>

using namespace bench;

namespace
{
constexpr std::size_t kBlock = 1 << 16;

void receiveStream(const Arguments& a)
{
    const int s = rawConnect(a.port);
    watch.start();
    std::vector<char> buffer(a.variant == "large" ? 1 << 19 : kBlock);
    while (recv(s, buffer.data(), buffer.size(), 0) > 0) { }
}

void sendStream(const Arguments& a)
{
    const int s = rawConnect(a.port);
    watch.start();
    const std::string block(kBlock, 'x');
    for (long long left = a.amount; left > 0; left -= static_cast<long long>(kBlock))
        writeAll(s, block.data(), std::min<std::size_t>(kBlock, static_cast<std::size_t>(left)));
    char byte = 0;
    recv(s, &byte, 1, 0);
}

void pingPong(const Arguments& a)
{
    const int s = rawConnect(a.port);
    char buffer[kPingSize] = "";
    watch.start();
    for (long long i = 0; i < a.amount; ++i) {
        writeAll(s, buffer, kPingSize);
        for (int got = 0; got < kPingSize;)
            got += static_cast<int>(recv(s, buffer, sizeof buffer, 0));
    }
}

void serve(const Arguments& a, bool bEcho)
{
    const int listener = rawListen(a.port);
    const int ep = epoll_create1(0);
    epoll_event event{EPOLLIN, {}};
    event.data.fd = listener;
    epoll_ctl(ep, EPOLL_CTL_ADD, listener, &event);
    std::puts("ready");
    std::fflush(stdout);
    long long done = 0;
    char buffer[4096];
    bool bStarted = false;
    while (done < a.amount) {
        epoll_event events[512];
        const int n = epoll_wait(ep, events, 512, -1);
        for (int i = 0; i < n; ++i) {
            if (events[i].data.fd == listener) {
                const int s = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
                if (!bStarted)
                    watch.start();
                bStarted = true;
                if (!bEcho) {
                    close(s);
                    ++done;
                    continue;
                }
                event.data.fd = s;
                epoll_ctl(ep, EPOLL_CTL_ADD, s, &event);
                continue;
            }
            const ssize_t got = recv(events[i].data.fd, buffer, sizeof buffer, 0);
            if (got > 0)
                writeAll(events[i].data.fd, buffer, static_cast<std::size_t>(got));
            done += got > 0 ? 1 : a.amount;
        }
    }
}

// One kept connection; parses just what it needs.
void httpGet(const Arguments& a)
{
    const int s = rawConnect(a.port);
    const std::string request = "GET /" + a.variant + " HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";
    std::vector<char> buffer(1 << 16);
    std::string head;
    std::string body;
    watch.start();
    for (long long i = 0; i < a.amount; ++i) {
        writeAll(s, request.data(), request.size());
        head.clear();
        body.clear();
        std::size_t end = std::string::npos;
        while (end == std::string::npos) {
            const ssize_t n = recv(s, buffer.data(), buffer.size(), 0);
            if (n <= 0)
                return;
            head.append(buffer.data(), static_cast<std::size_t>(n));
            end = head.find("\r\n\r\n");
        }
        const std::size_t field = head.find("Content-Length: ");
        long long left = field < end ? std::atoll(head.c_str() + field + 16) : -1;
        body.assign(head, end + 4, std::string::npos);
        if (left > 65536)
            body.reserve(static_cast<std::size_t>(left));
        left = left < 0 ? 1LL << 60 : left - static_cast<long long>(body.size());
        while (left > 0) {
            const ssize_t n = recv(s, buffer.data(), buffer.size(), 0);
            if (n <= 0)
                return;
            body.append(buffer.data(), static_cast<std::size_t>(n));
            left -= n;
            if (field >= end && body.size() > (1U << 20) && a.variant[0] != 'c')
                body.clear(); // parts are dropped as they come
            if (a.variant[0] == 'c' && body.compare(body.size() - 5, 5, "0\r\n\r\n") == 0)
                break;
        }
    }
}
} // namespace

int main(int argc, char** argv)
{
    const Arguments a(argc, argv);
    if (a.mode == "recv")
        receiveStream(a);
    else if (a.mode == "send")
        sendStream(a);
    else if (a.mode == "ping")
        pingPong(a);
    else if (a.mode == "http")
        httpGet(a);
    else
        serve(a, a.mode == "echo");
    watch.report();
    return 0;
}
