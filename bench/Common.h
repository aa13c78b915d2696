// What every bench program shares: its arguments, and the report of what its side cost.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

namespace bench
{
// near MODE PORT AMOUNT [CONNECTIONS] [VARIANT]
struct Arguments {
    std::string mode;
    unsigned short port;
    long long amount; // bytes, rounds, requests, connections
    int connections;
    std::string variant;

    Arguments(int argc, char** argv)
        : mode(argc > 1 ? argv[1] : ""), port(static_cast<unsigned short>(argc > 2 ? std::atoi(argv[2]) : 0)),
          amount(argc > 3 ? std::atoll(argv[3]) : 0), connections(argc > 4 ? std::atoi(argv[4]) : 1),
          variant(argc > 5 ? argv[5] : "")
    {
    }
};

constexpr int kPingSize = 64;
constexpr int kEchoSize = 256;

inline double cpuSeconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& t) { return static_cast<double>(t.tv_sec) + t.tv_usec / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// What of this process lies in memory.
inline double residentKiB()
{
    long pages = 0;
    long resident = 0;
    if (FILE* file = std::fopen("/proc/self/statm", "r")) {
        if (std::fscanf(file, "%ld %ld", &pages, &resident) != 2)
            resident = 0;
        std::fclose(file);
    }
    return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE)) / 1024;
}

class Stopwatch
{
public:
    void start()
    {
        m_start = std::chrono::steady_clock::now();
        m_cpu = cpuSeconds();
    }
    double cpu() const { return cpuSeconds() - m_cpu; }
    // One line for the driver: wall and CPU seconds of this side, its memory in KiB, and what arrived of a
    // row that may lose some.
    void report(long long arrived = 0) const
    {
        const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - m_start;
        std::printf("%.6f %.6f %.1f %lld\n", wall.count(), cpu(), residentKiB(), arrived);
        std::fflush(stdout);
    }

private:
    std::chrono::steady_clock::time_point m_start;
    double m_cpu = 0;
};

inline Stopwatch watch;

// The near side listens, at these ports where it chose them itself.
inline void ready(const std::string& ports = std::string())
{
    std::printf("ready%s\n", ports.c_str());
    std::fflush(stdout);
}

// Loopback, but for the rows with a path between the two sides.
inline const char* farHost()
{
    const char* host = std::getenv("BENCH_HOST");
    return host != nullptr ? host : "127.0.0.1";
}

inline sockaddr_in farAddress(unsigned short port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    inet_pton(AF_INET, farHost(), &address.sin_addr);
    return address;
}

inline unsigned short portOf(int s)
{
    sockaddr_in address{};
    socklen_t size = sizeof address;
    getsockname(s, reinterpret_cast<sockaddr*>(&address), &size);
    return ntohs(address.sin_port);
}

// What the library's medium profile sets, for plain calls in its place.
inline void setMediumProfile(int s)
{
    const int receive = 65536;
    const int sending = 32768;
    const int segment = 16384;
    setsockopt(s, SOL_SOCKET, SO_RCVBUF, &receive, sizeof receive);
    setsockopt(s, SOL_SOCKET, SO_SNDBUF, &sending, sizeof sending);
    setsockopt(s, IPPROTO_TCP, TCP_MAXSEG, &segment, sizeof segment);
}

inline int rawConnect(unsigned short port, bool bMedium = false)
{
    const int s = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bMedium)
        setMediumProfile(s);
    const sockaddr_in address = farAddress(port);
    if (connect(s, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        std::perror("connect");
        std::exit(1);
    }
    const int on = 1;
    setsockopt(s, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return s;
}

inline int rawListen(unsigned short port)
{
    const int s = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    setsockopt(s, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    const sockaddr_in address = farAddress(port);
    if (bind(s, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 || listen(s, 8192) != 0) {
        std::perror("listen");
        std::exit(1);
    }
    return s;
}

inline void writeAll(int s, const char* data, std::size_t size)
{
    while (size > 0) {
        const ssize_t n = send(s, data, size, MSG_NOSIGNAL);
        if (n <= 0)
            return;
        data += n;
        size -= static_cast<std::size_t>(n);
    }
}
} // namespace bench
