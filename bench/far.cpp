// The other end of every row, by plain system calls and always the same.
//   far source|sink|framesink|tlssource|tlssink BYTES [medium]
//   far frames|eframes COUNT
//   far echo|http|tlsfull|tlsresumed|tlsecho|hangup   these listen, print their port, and serve until they
//   are ended far load|one PORT ROUNDS CONNECTIONS      drives an echo server: all connections active, or one
//   at a time far datagrams|runs PORT                   sends datagrams of 1200 bytes as fast as it can,
//   plainly or in runs far drain                                 prints a port, and reads what comes there
//   far connects PORT COUNT                   opens and ends connections
#include "EncryptedFrame.h"
#include "Tls.h"

#include <algorithm>
#include <thread>
#include <vector>

#include <netinet/udp.h>
#include <sys/epoll.h>

using namespace bench;

namespace
{
void sendRepeated(int s, const std::string& block, long long bytes)
{
    while (bytes > 0) {
        const auto n
            = static_cast<std::size_t>(std::min<long long>(bytes, static_cast<long long>(block.size())));
        writeAll(s, block.data(), n);
        bytes -= static_cast<long long>(n);
    }
}

void serveHttp(int s)
{
    static const std::string block(1 << 18, 'x');
    std::string input;
    char buffer[8192];
    for (;;) {
        const ssize_t n = recv(s, buffer, sizeof buffer, 0);
        if (n <= 0)
            break;
        input.append(buffer, static_cast<std::size_t>(n));
        for (std::size_t end; (end = input.find("\r\n\r\n")) != std::string::npos; input.erase(0, end + 4)) {
            long long size = 0;
            char kind[16] = "";
            std::sscanf(input.c_str(), "GET /%15[a-z]/%lld", kind, &size);
            const std::string head
                = "HTTP/1.1 200 OK\r\nServer: far\r\nDate: Sat, 21 Nov 2026 00:00:00 GMT\r\n";
            if (std::strcmp(kind, "small") == 0 || std::strcmp(kind, "big") == 0) {
                const std::string start = head
                    + "Content-Type: text/plain\r\nContent-Length: " + std::to_string(size) + "\r\n\r\n";
                if (size < 4096) {
                    const std::string whole = start + block.substr(0, static_cast<std::size_t>(size));
                    writeAll(s, whole.data(), whole.size());
                } else {
                    writeAll(s, start.data(), start.size());
                    sendRepeated(s, block, size);
                }
            } else {
                std::string chunk = "4000\r\n" + block.substr(0, 0x4000) + "\r\n"; // 16 KiB a chunk
                std::string several;
                for (int i = 0; i < 8; ++i)
                    several += chunk;
                const std::string start = head + "Transfer-Encoding: chunked\r\n\r\n";
                writeAll(s, start.data(), start.size());
                for (long long sent = 0; sent < size; sent += 8 * 0x4000)
                    writeAll(s, several.data(), several.size());
                writeAll(s, "0\r\n\r\n", 5);
            }
        }
    }
    close(s);
}

void serveTls(const std::string& mode, int s, long long bytes)
{
    static SSL_CTX* const context = serverContext(mode != "tlsfull");
    SSL* ssl = SSL_new(context);
    SSL_set_fd(ssl, s);
    std::vector<char> buffer(mode == "tlsecho" ? 4096 : 1 << 18, 'x');
    if (SSL_accept(ssl) == 1) {
        for (int n = 1; mode == "tlsecho" && n > 0;)
            if ((n = SSL_read(ssl, buffer.data(), static_cast<int>(buffer.size()))) > 0)
                SSL_write(ssl, buffer.data(), n);
        for (long long left = mode == "tlssource" || mode == "tlssink" ? bytes : 0; left > 0;) {
            const int n = mode == "tlssource" ? SSL_write(ssl, buffer.data(), kBlock)
                                              : SSL_read(ssl, buffer.data(), static_cast<int>(buffer.size()));
            if (n <= 0)
                break;
            left -= n;
        }
        if (mode != "tlssource")
            SSL_write(ssl, "k", 1);
        while (SSL_read(ssl, buffer.data(), static_cast<int>(buffer.size())) > 0) { }
    }
    SSL_free(ssl);
    close(s);
}

void serveOne(const std::string& mode, int s, long long bytes)
{
    if (mode.compare(0, 3, "tls") == 0) {
        serveTls(mode, s, bytes);
        return;
    }
    std::vector<char> buffer(1 << 18);
    const std::string block(1 << 18, 'x');
    if (mode == "source") {
        sendRepeated(s, block, bytes);
    } else if (mode == "frames" || mode == "eframes") {
        const std::string frame = mode == "frames" ? plainFrame() : encryptedFrame();
        std::string several;
        for (int i = 0; i < 600; ++i)
            several += frame;
        sendRepeated(s, several, bytes * static_cast<long long>(frame.size()));
        while (recv(s, buffer.data(), buffer.size(), 0) > 0) { }
    } else if (mode == "sink" || mode == "framesink") {
        for (long long left = bytes; left > 0;) {
            const ssize_t n = recv(s, buffer.data(), buffer.size(), 0);
            if (n <= 0)
                break;
            left -= n;
        }
        const std::string done = mode == "sink" ? "k" : "FDTC" + bigEndian(1) + "k";
        writeAll(s, done.data(), done.size());
        while (recv(s, buffer.data(), buffer.size(), 0) > 0) { }
    } else if (mode == "echo") {
        for (ssize_t n; (n = recv(s, buffer.data(), buffer.size(), 0)) > 0;)
            writeAll(s, buffer.data(), static_cast<std::size_t>(n));
    } else {
        serveHttp(s);
        return;
    }
    close(s);
}

int listening(const std::string& mode, long long bytes, bool bMedium)
{
    const int listener = rawListen(0);
    if (bMedium)
        setMediumProfile(listener); // inherited by what it accepts
    std::printf("%d\n", portOf(listener));
    std::fflush(stdout);
    const int on = 1;
    for (;;) {
        const int s = accept(listener, nullptr, nullptr);
        if (mode == "hangup") {
            close(s);
            continue;
        }
        setsockopt(s, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        std::thread(serveOne, mode, s, bytes).detach();
    }
}

int load(bool bAll, unsigned short port, long long rounds, int count)
{
    std::vector<int> connections;
    for (int i = 0; i < count; ++i)
        connections.push_back(rawConnect(port));
    const std::string message(kEchoSize, 'm');
    char buffer[4096];
    if (!bAll) {
        for (long long i = 0; i < rounds; ++i) {
            const int s = connections[static_cast<std::size_t>(i * 7919 % count)];
            writeAll(s, message.data(), message.size());
            for (int got = 0; got < kEchoSize;) {
                const ssize_t n = recv(s, buffer, sizeof buffer, 0);
                if (n <= 0)
                    return 1;
                got += static_cast<int>(n);
            }
        }
        return 0;
    }
    const int ep = epoll_create1(0);
    std::vector<int> got(static_cast<std::size_t>(count), 0);
    for (int i = 0; i < count; ++i) {
        epoll_event event{EPOLLIN, {}};
        event.data.u32 = static_cast<unsigned int>(i);
        epoll_ctl(ep, EPOLL_CTL_ADD, connections[static_cast<std::size_t>(i)], &event);
        writeAll(connections[static_cast<std::size_t>(i)], message.data(), message.size());
    }
    for (long long done = 0; done < rounds;) {
        epoll_event events[512];
        const int n = epoll_wait(ep, events, 512, -1);
        for (int e = 0; e < n; ++e) {
            const std::size_t i = events[e].data.u32;
            const ssize_t r = recv(connections[i], buffer, sizeof buffer, 0);
            if (r <= 0)
                return 1;
            got[i] += static_cast<int>(r);
            if (got[i] < kEchoSize)
                continue;
            got[i] -= kEchoSize;
            ++done;
            writeAll(connections[i], message.data(), message.size());
        }
    }
    return 0;
}

// Bursts of a picture's packets, until the driver ends it: one call for each burst, as plain datagrams or as
// a run that the system cuts (UDP_SEGMENT).
int datagrams(unsigned short port, bool bRuns)
{
    const int s = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const sockaddr_in to = farAddress(port);
    if (connect(s, reinterpret_cast<const sockaddr*>(&to), sizeof to) != 0)
        return 1;
    constexpr int kSize = 1200;
    constexpr std::size_t kBurst = 30;
    std::string burst(kSize * kBurst, 'd');
    if (bRuns) {
        setsockopt(s, IPPROTO_UDP, UDP_SEGMENT, &kSize, sizeof kSize);
        while (send(s, burst.data(), burst.size(), 0) > 0) { }
        return 0;
    }
    std::vector<iovec> ranges;
    std::vector<mmsghdr> messages(kBurst);
    for (std::size_t i = 0; i < kBurst; ++i)
        ranges.push_back({&burst[i * kSize], kSize});
    for (std::size_t i = 0; i < kBurst; ++i) {
        messages[i].msg_hdr.msg_iov = &ranges[i];
        messages[i].msg_hdr.msg_iovlen = 1;
    }
    while (sendmmsg(s, messages.data(), kBurst, 0) > 0) { }
    return 0;
}

int drain()
{
    const int s = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = farAddress(0);
    bind(s, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    std::printf("%d\n", portOf(s));
    std::fflush(stdout);
    char buffer[1500];
    while (recv(s, buffer, sizeof buffer, 0) >= 0) { }
    return 0;
}

int connects(unsigned short port, long long count)
{
    char byte = 0;
    for (long long i = 0; i < count; ++i) {
        const int s = rawConnect(port);
        while (recv(s, &byte, 1, 0) > 0) { } // until the server ends it
        linger hard{1, 0};
        setsockopt(s, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
        close(s);
    }
    return 0;
}
} // namespace

int main(int argc, char** argv)
{
    const Arguments a(argc, argv);
    if (a.mode == "load" || a.mode == "one")
        return load(a.mode == "load", a.port, a.amount, a.connections);
    if (a.mode == "datagrams" || a.mode == "runs")
        return datagrams(a.port, a.mode == "runs");
    if (a.mode == "drain")
        return drain();
    if (a.mode == "connects")
        return connects(a.port, a.amount);
    return listening(
        a.mode, argc > 2 ? std::atoll(argv[2]) : 0, argc > 3 && std::strcmp(argv[3], "medium") == 0);
}
