// What the programs of the datagram rows share: 1200-byte datagrams on loopback.
//   MODE udprecv: receives AMOUNT of them; udpsend, udpbatch: sends AMOUNT, singly or 30 at a time; udppaced:
//   one each millisecond, only the sending itself is timed.
#pragma once

#include "Common.h"

#include <array>
#include <thread>

namespace bench
{
constexpr std::size_t kDatagramSize = 1200;
constexpr std::size_t kBatchSize = 30; // a picture's packets
constexpr int kDatagramBuffer = 65536; // the library's own setting, for every program

// Times the sending only, where pauses belong to the row.
class SendWatch
{
public:
    void start() { m_total.start(); }
    void add(double seconds) { m_seconds += seconds; }
    void report(bool bPaced) const
    {
        if (bPaced)
            std::printf("%.6f %.6f %.1f 0\n", m_seconds, m_total.cpu(), residentKiB());
        else
            m_total.report();
        std::fflush(stdout);
    }

private:
    Stopwatch m_total;
    double m_seconds = 0;
};

struct Packets {
    std::array<std::array<char, kDatagramSize>, kBatchSize> bytes{};
};

inline int rawDatagramSocket(unsigned short port)
{
    const int s = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    setsockopt(s, SOL_SOCKET, SO_RCVBUF, &kDatagramBuffer, sizeof kDatagramBuffer);
    setsockopt(s, SOL_SOCKET, SO_SNDBUF, &kDatagramBuffer, sizeof kDatagramBuffer);
    const sockaddr_in address = farAddress(port);
    if (bind(s, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        std::perror("bind");
        std::exit(1);
    }
    return s;
}

// Calls send(packets) until AMOUNT datagrams have been handed over, and reports.
template <class Send>
void timedSends(const Arguments& a, std::size_t perCall, Send send)
{
    static Packets packets;
    const bool bPaced = a.mode == "udppaced";
    SendWatch sends;
    sends.start();
    for (long long sent = 0; sent < a.amount; sent += static_cast<long long>(perCall)) {
        if (!bPaced) {
            send(packets);
            continue;
        }
        const auto begin = std::chrono::steady_clock::now();
        send(packets);
        const auto end = std::chrono::steady_clock::now();
        sends.add(std::chrono::duration<double>(end - begin).count());
        std::this_thread::sleep_until(begin + std::chrono::milliseconds(1));
    }
    sends.report(bPaced);
    std::_Exit(0);
}
} // namespace bench
