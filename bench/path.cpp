// A path with a delay, and a program at each of its ends: two network namespaces, a tun device in each, and
// between them a queue that hands every packet over when half the round trip has passed.
//   path MILLISECONDS FAR ARGUMENTS... -- NEAR ARGUMENTS...
// FAR prints its port first; NEAR gets it in the place of an argument "PORT". Ends with NEAR's exit code, 77
// where the system does not allow it.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include <arpa/inet.h>
#include <csignal>
#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{
using Clock = std::chrono::steady_clock;
constexpr char kNear[] = "10.9.0.1";
constexpr char kFar[] = "10.9.0.2";
constexpr std::size_t kMost = 64U << 20U; // bytes under way; what comes beyond is lost

[[noreturn]] void leaveOut(const char* what)
{
    std::perror(what);
    std::exit(77);
}

void setAddress(int s, ifreq& request, unsigned long what, const char* text)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    inet_pton(AF_INET, text, &address.sin_addr);
    std::memcpy(&request.ifr_addr, &address, sizeof address);
    if (ioctl(s, what, &request) != 0)
        leaveOut("the device's address");
}

// A network namespace of its own for this process, with one device in it. The device's descriptor goes on
// working when the process has left the namespace.
int enterNamespace(const char* local, const char* peer)
{
    if (unshare(CLONE_NEWNET) != 0)
        leaveOut("unshare");
    const int device = open("/dev/net/tun", O_RDWR | O_NONBLOCK | O_CLOEXEC);
    ifreq request{};
    std::strcpy(request.ifr_name, "path0");
    request.ifr_flags = IFF_TUN | IFF_NO_PI;
    if (device < 0 || ioctl(device, TUNSETIFF, &request) != 0)
        leaveOut("/dev/net/tun");
    const int s = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    setAddress(s, request, SIOCSIFADDR, local);
    setAddress(s, request, SIOCSIFDSTADDR, peer);
    request.ifr_qlen = 10000;
    ioctl(s, SIOCSIFTXQLEN, &request);
    request.ifr_flags = IFF_UP | IFF_RUNNING;
    if (ioctl(s, SIOCSIFFLAGS, &request) != 0)
        leaveOut("the device");
    close(s);
    return device;
}

pid_t start(const std::vector<char*>& arguments, int output)
{
    const pid_t child = fork();
    if (child != 0)
        return child;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (output >= 0)
        dup2(output, STDOUT_FILENO);
    execv(arguments[0], arguments.data());
    std::_Exit(127);
}

// One direction of the path.
class Direction
{
public:
    Direction(int from, int to, std::chrono::milliseconds delay) : m_from(from), m_to(to), m_delay(delay) { }

    void take()
    {
        char packet[2048];
        for (ssize_t n; (n = read(m_from, packet, sizeof packet)) > 0;) {
            if (m_bytes + static_cast<std::size_t>(n) > kMost)
                continue;
            m_bytes += static_cast<std::size_t>(n);
            m_packets.push_back({Clock::now() + m_delay, std::string(packet, static_cast<std::size_t>(n))});
        }
    }
    // Until when there is nothing to do.
    Clock::time_point give()
    {
        const Clock::time_point now = Clock::now();
        for (; !m_packets.empty() && m_packets.front().due <= now; m_packets.pop_front()) {
            m_bytes -= m_packets.front().bytes.size();
            if (write(m_to, m_packets.front().bytes.data(), m_packets.front().bytes.size()) < 0)
                continue; // lost, as on any path
        }
        return m_packets.empty() ? now + std::chrono::seconds(1) : m_packets.front().due;
    }

private:
    struct Packet {
        Clock::time_point due;
        std::string bytes;
    };
    int m_from;
    int m_to;
    std::chrono::milliseconds m_delay;
    std::deque<Packet> m_packets;
    std::size_t m_bytes = 0;
};

int relay(int near, int far, std::chrono::milliseconds delay, pid_t watched)
{
    Direction there(near, far, delay);
    Direction back(far, near, delay);
    for (int status = 0;;) {
        pollfd ready[2] = {{near, POLLIN, 0}, {far, POLLIN, 0}};
        const auto pause = std::min(there.give(), back.give()) - Clock::now();
        const auto limit = std::chrono::duration_cast<std::chrono::nanoseconds>(pause).count();
        const timespec wait{0, std::max(0L, std::min(limit, 100000000L))};
        if (ppoll(ready, 2, &wait, nullptr) > 0) {
            there.take();
            back.take();
        }
        if (waitpid(watched, &status, WNOHANG) == watched)
            return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
    }
}
} // namespace

int main(int argc, char** argv)
{
    std::vector<char*> commands[2];
    int side = 0;
    for (int i = 2; i < argc; ++i) {
        if (side == 0 && std::strcmp(argv[i], "--") == 0)
            side = 1;
        else
            commands[side].push_back(argv[i]);
    }
    if (commands[0].empty() || commands[1].empty())
        return 2;
    const std::chrono::milliseconds half(std::atoi(argv[1]) / 2);
    setenv("BENCH_HOST", kFar, 1);
    const int near = enterNamespace(kNear, kFar);
    const int home = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
    const int far = enterNamespace(kFar, kNear);

    int output[2];
    if (pipe2(output, O_CLOEXEC) != 0)
        return 1;
    commands[0].push_back(nullptr);
    const pid_t farProgram = start(commands[0], output[1]);
    char port[16] = "";
    if (read(output[0], port, sizeof port - 1) <= 0)
        return 1;
    port[std::strcspn(port, "\n")] = '\0';
    for (char*& argument : commands[1])
        if (std::strcmp(argument, "PORT") == 0)
            argument = port;
    commands[1].push_back(nullptr);
    if (setns(home, CLONE_NEWNET) != 0)
        leaveOut("setns");
    const int result = relay(near, far, half, start(commands[1], -1));
    kill(farProgram, SIGKILL);
    waitpid(farProgram, nullptr, 0);
    return result;
}
