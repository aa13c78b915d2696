// The other end of the RTSP rows, by plain system calls and always the same.
//   far_rtsp SESSIONS PACKETS RATE   prints its port, waits until SESSIONS play, then sends each in turn a
//                                    burst of 17 packets, RATE packets a second in all: interleaved by one
//                                    send, by UDP each by one. RATE 0: they stay idle
#include "RtpStreams.h"

#include <array>
#include <thread>
#include <unordered_map>

#include <poll.h>
#include <sys/epoll.h>

using namespace bench;
using Clock = std::chrono::steady_clock;

namespace
{
constexpr unsigned int kSoundRate = 8000; // G.711, that each peer reads without work of its own

struct Connection {
    std::string input;
    std::string output; // what the system did not take
    int number = -1; // of its session
    int rtpPort = 0; // 0: interleaved
};

struct Far {
    int listener = rawListen(0);
    int ep = epoll_create1(EPOLL_CLOEXEC);
    int sender = -1;
    int senderPort = 0;
    std::unordered_map<int, Connection> connections; // by socket
    std::vector<int> playing; // sockets
    std::vector<int> waiting; // for the end
};

// An even port, and the next one, whose reports nobody reads.
int boundPair(int* port)
{
    for (;;) {
        std::array<int, 2> sockets{};
        sockaddr_in address = farAddress(0);
        for (int& s : sockets)
            s = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        bind(sockets[0], reinterpret_cast<const sockaddr*>(&address), sizeof address);
        *port = portOf(sockets[0]);
        address.sin_port = htons(static_cast<unsigned short>(*port + 1));
        if (*port % 2 == 0
            && bind(sockets[1], reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0)
            return sockets[0];
        close(sockets[0]);
        close(sockets[1]);
    }
}

std::string fieldOf(const std::string& head, const std::string& name)
{
    const std::size_t at = head.find("\r\n" + name + ":");
    if (at == std::string::npos)
        return std::string();
    const std::size_t from = head.find_first_not_of(' ', at + name.size() + 3);
    return head.substr(from, head.find("\r\n", from) - from);
}

std::string setUp(Connection& connection, const Far& far, const std::string& transport)
{
    const std::size_t port = transport.find("client_port=");
    if (port == std::string::npos)
        return "Transport: RTP/AVP/TCP;unicast;interleaved=0-1\r\n";
    connection.rtpPort = std::atoi(transport.c_str() + port + 12);
    return "Transport: RTP/AVP;unicast;client_port=" + std::to_string(connection.rtpPort) + "-"
        + std::to_string(connection.rtpPort + 1) + ";server_port=" + std::to_string(far.senderPort) + "-"
        + std::to_string(far.senderPort + 1) + "\r\n";
}

void answer(Far& far, int s, const std::string& head)
{
    if (head.rfind("WAIT", 0) == 0) {
        far.waiting.push_back(s);
        return;
    }
    Connection& connection = far.connections[s];
    const std::string method = head.substr(0, head.find(' '));
    std::string fields = "CSeq: " + fieldOf(head, "CSeq") + "\r\n";
    std::string body;
    if (method == "OPTIONS")
        fields += "Public: OPTIONS, DESCRIBE, SETUP, PLAY, GET_PARAMETER, TEARDOWN\r\n";
    else if (method != "DESCRIBE")
        fields += "Session: " + std::to_string(s) + ";timeout=60\r\n";
    if (method == "DESCRIBE")
        body = "v=0\r\no=- 1 1 IN IP4 127.0.0.1\r\ns=-\r\nc=IN IP4 0.0.0.0\r\nt=0 0\r\na=control:*\r\n"
               "m=audio 0 RTP/AVP 0\r\na=control:track1\r\n";
    else if (method == "SETUP")
        fields += setUp(connection, far, fieldOf(head, "Transport"));
    else if (method == "PLAY" && connection.number < 0) {
        connection.number = static_cast<int>(far.playing.size());
        far.playing.push_back(s);
    }
    if (!body.empty())
        fields += "Content-Type: application/sdp\r\nContent-Length: " + std::to_string(body.size()) + "\r\n";
    const std::string text = "RTSP/1.0 200 OK\r\n" + fields + "\r\n" + body;
    writeAll(s, text.data(), text.size());
}

// Requests, and the reports between them.
void read(Far& far, int s)
{
    char bytes[4096];
    const ssize_t n = recv(s, bytes, sizeof bytes, MSG_DONTWAIT);
    if (n <= 0)
        return;
    std::string& input = far.connections[s].input;
    input.append(bytes, static_cast<std::size_t>(n));
    while (input.size() >= 4) {
        std::size_t size = input.find("\r\n\r\n") + 4;
        if (input[0] == '$')
            size = 4 + static_cast<unsigned char>(input[2]) * 256U + static_cast<unsigned char>(input[3]);
        if (size < 4 || size > input.size())
            return;
        const std::string head = input.substr(0, size);
        input.erase(0, size);
        if (head[0] != '$')
            answer(far, s, head);
    }
}

void drain(int s, Connection& connection)
{
    while (!connection.output.empty()) {
        const ssize_t n
            = send(s, connection.output.data(), connection.output.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (n <= 0)
            return;
        connection.output.erase(0, static_cast<std::size_t>(n));
    }
}

void serve(Far& far, std::chrono::nanoseconds limit)
{
    std::array<epoll_event, 256> events;
    const timespec pause{limit.count() / 1000000000, limit.count() % 1000000000};
    const int n = epoll_pwait2(far.ep, events.data(), events.size(), &pause, nullptr);
    for (int i = 0; i < n; ++i) {
        int s = events[static_cast<std::size_t>(i)].data.fd;
        if (s != far.listener) {
            read(far, s);
            drain(s, far.connections[s]);
            continue;
        }
        const int on = 1;
        s = accept4(far.listener, nullptr, nullptr, SOCK_CLOEXEC);
        setsockopt(s, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        far.connections[s] = Connection();
        epoll_event event{EPOLLIN | EPOLLOUT | EPOLLET, {}};
        event.data.fd = s;
        epoll_ctl(far.ep, EPOLL_CTL_ADD, s, &event);
    }
}

void sendBurst(const Far& far, int s, Connection& connection, unsigned int burst, unsigned int timestamp)
{
    static std::string packet(kRtpSize, 'p');
    static const char head[] = {'$', 0, static_cast<char>(kRtpSize >> 8), static_cast<char>(kRtpSize & 0xFF)};
    const sockaddr_in to = farAddress(static_cast<unsigned short>(connection.rtpPort));
    for (unsigned int i = 0; i < kRtpBurst; ++i) {
        writeRtpHead(
            packet, burst * kRtpBurst + i, timestamp, static_cast<unsigned int>(s), i + 1 == kRtpBurst);
        packet[1] = static_cast<char>(packet[1] & 0x80); // type 0
        if (connection.rtpPort != 0)
            sendto(far.sender, packet.data(), packet.size(), 0, reinterpret_cast<const sockaddr*>(&to),
                sizeof to);
        else
            connection.output.append(head, sizeof head).append(packet);
    }
    drain(s, connection);
}

void sendAll(Far& far, long long packets, long long rate)
{
    const auto interval = std::chrono::nanoseconds(kRtpBurst * 1000000000LL / rate);
    const auto count = static_cast<long long>(far.playing.size());
    Clock::time_point due = Clock::now() + std::chrono::milliseconds(300);
    for (long long burst = 0; burst * kRtpBurst < packets; due += interval, ++burst) {
        while (Clock::now() < due)
            serve(far, due - Clock::now());
        const int s = far.playing[static_cast<std::size_t>(burst % count)];
        const long long timestamp = burst / count * count * kRtpBurst * kSoundRate / rate;
        sendBurst(far, s, far.connections[s], static_cast<unsigned int>(burst / count),
            static_cast<unsigned int>(timestamp));
    }
    for (due += std::chrono::milliseconds(500); Clock::now() < due;)
        serve(far, due - Clock::now());
}
} // namespace

int main(int argc, char** argv)
{
    if (argc != 4)
        return 2;
    Far far;
    far.sender = boundPair(&far.senderPort);
    epoll_event event{EPOLLIN, {}};
    event.data.fd = far.listener;
    epoll_ctl(far.ep, EPOLL_CTL_ADD, far.listener, &event);
    std::printf("%d\n", portOf(far.listener));
    std::fflush(stdout);
    const auto sessions = static_cast<std::size_t>(std::atoll(argv[1]));
    const long long rate = std::atoll(argv[3]);
    while (rate == 0 || far.playing.size() < sessions)
        serve(far, std::chrono::seconds(1));
    sendAll(far, std::atoll(argv[2]), rate);
    for (const int s : far.waiting)
        close(s);
    std::this_thread::sleep_for(std::chrono::seconds(10)); // until it is ended
    return 0;
}
