// The limit rows: the same work by plain system calls, as directly as it can be written.
#include "Common.h"

#include <algorithm>
#include <string>
#include <vector>

#include <sys/epoll.h>

using namespace bench;

namespace
{
constexpr std::size_t kRead = 1 << 19; // the best of 64 KiB to 1 MiB, as is the other
constexpr std::size_t kWrite = 1 << 17;

void receiveStream(const Arguments& a)
{
    const int s = rawConnect(a.port, a.variant == "medium");
    std::vector<char> buffer(kRead);
    watch.start();
    while (recv(s, buffer.data(), buffer.size(), 0) > 0) { }
}

void sendStream(const Arguments& a)
{
    const int s = rawConnect(a.port, a.variant == "medium");
    const std::string block(kWrite, 'x');
    watch.start();
    for (long long left = a.amount; left > 0; left -= static_cast<long long>(kWrite))
        writeAll(s, block.data(), std::min<std::size_t>(kWrite, static_cast<std::size_t>(left)));
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

// Calls work(descriptor) for each readable connection of a server, and accepted(descriptor) for each new one;
// until one of them returns true.
template <class Accepted, class Work>
void serve(const Arguments& a, Accepted accepted, Work work)
{
    const int listener = rawListen(a.port);
    const int ep = epoll_create1(EPOLL_CLOEXEC);
    epoll_event event{EPOLLIN, {}};
    event.data.fd = listener;
    epoll_ctl(ep, EPOLL_CTL_ADD, listener, &event);
    ready();
    bool bStarted = false;
    for (bool bDone = false; !bDone;) {
        epoll_event events[512];
        const int n = epoll_wait(ep, events, 512, -1);
        for (int i = 0; i < n && !bDone; ++i) {
            const int s = events[i].data.fd;
            if (s != listener) {
                bDone = work(s);
                continue;
            }
            if (!bStarted)
                watch.start();
            bStarted = true;
            bDone = accepted(ep, accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
        }
    }
}

bool watchReads(int ep, int s)
{
    epoll_event event{EPOLLIN, {}};
    event.data.fd = s;
    epoll_ctl(ep, EPOLL_CTL_ADD, s, &event);
    return false;
}

void echo(const Arguments& a)
{
    long long done = 0;
    serve(a, watchReads, [&](int s) {
        char buffer[4096];
        const ssize_t got = recv(s, buffer, sizeof buffer, 0);
        if (got > 0)
            writeAll(s, buffer, static_cast<std::size_t>(got));
        return got <= 0 || ++done == a.amount;
    });
}

void accepts(const Arguments& a)
{
    long long done = 0;
    const auto accepted = [&](int ep, int s) {
        if (a.mode == "acceptsocket") { // as every socket: it sends at once, and is watched
            const int on = 1;
            setsockopt(s, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
            watchReads(ep, s);
        }
        close(s);
        return ++done == a.amount;
    };
    serve(a, accepted, [](int) { return false; });
}

void connects(const Arguments& a)
{
    char byte = 0;
    watch.start();
    for (long long i = 0; i < a.amount; ++i) {
        const int s = rawConnect(a.port);
        while (recv(s, &byte, 1, 0) > 0) { } // until the far side ends it
        close(s);
    }
}

void httpServer(const Arguments& a)
{
    const std::string answer = "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: 200\r\n\r\n"
        + std::string(200, 'x');
    serve(a, watchReads, [&](int s) {
        char request[4096];
        const ssize_t got = recv(s, request, sizeof request, 0);
        if (got <= 0)
            close(s);
        else if (memmem(request, static_cast<std::size_t>(got), "\r\n\r\n", 4) != nullptr)
            writeAll(s, answer.data(), answer.size());
        return false;
    });
}

// An answer's content in memory that grows by the system's own means.
struct Content {
    char* data = nullptr;
    std::size_t size = 0;
    std::size_t room = 0;

    void reserve(std::size_t more)
    {
        if (size + more > room)
            data = static_cast<char*>(std::realloc(data, room = std::max(size + more, 2 * room)));
    }
    void append(const char* bytes, std::size_t count)
    {
        reserve(count);
        std::memcpy(data + size, bytes, count);
        size += count;
    }
};

// Reads chunks behind a head: what lies whole in a receive is copied once, into the content. False at the
// end.
class Chunks
{
public:
    bool feed(const char* data, std::size_t size, Content& content)
    {
        while (size > 0) {
            if (m_left > 2) { // content, then the line's end
                const std::size_t piece = std::min(size, m_left - 2);
                content.append(data, piece);
                m_left -= piece;
                data += piece;
                size -= piece;
            } else if (m_left > 0) {
                --m_left;
                ++data;
                --size;
            } else if (*data == '\n') {
                m_left = std::strtoul(m_line.c_str(), nullptr, 16) + 2;
                if (m_left == 2)
                    return false;
                m_line.clear();
                ++data;
                --size;
            } else {
                m_line += *data++;
                --size;
            }
        }
        return true;
    }

private:
    std::string m_line;
    std::size_t m_left = 0;
};

// One answer on one kept connection: finds two words in the head, and receives a content of known length
// where it stays.
bool readAnswer(int s, std::vector<char>& buffer, Content& content)
{
    std::size_t held = 0;
    const char* end = nullptr;
    while (end == nullptr) {
        const ssize_t n = recv(s, buffer.data() + held, buffer.size() - held, 0);
        if (n <= 0)
            return false;
        held += static_cast<std::size_t>(n);
        end = static_cast<const char*>(memmem(buffer.data(), held, "\r\n\r\n", 4));
    }
    const char* body = end + 4;
    const std::size_t have = held - static_cast<std::size_t>(body - buffer.data());
    const auto* field = static_cast<const char*>(
        memmem(buffer.data(), static_cast<std::size_t>(body - buffer.data()), "Content-Length: ", 16));
    if (field == nullptr) {
        Chunks chunks;
        for (bool bMore = chunks.feed(body, have, content); bMore;) {
            const ssize_t n = recv(s, buffer.data(), buffer.size(), 0);
            bMore = n > 0 && chunks.feed(buffer.data(), static_cast<std::size_t>(n), content);
        }
        return content.size > 0;
    }
    const auto length = static_cast<std::size_t>(std::atoll(field + 16));
    if (have == length)
        return true; // seen where it lies
    content.reserve(length);
    content.append(body, have);
    while (content.size < length) {
        const ssize_t n = recv(s, content.data + content.size, std::min(length - content.size, kRead), 0);
        if (n <= 0)
            return false;
        content.size += static_cast<std::size_t>(n);
    }
    return true;
}

void httpGet(const Arguments& a)
{
    const int s = rawConnect(a.port);
    const std::string request = "GET /" + a.variant + " HTTP/1.1\r\nHost: far\r\n\r\n";
    std::vector<char> buffer(kRead);
    Content content;
    watch.start();
    for (long long i = 0; i < a.amount; ++i) {
        writeAll(s, request.data(), request.size());
        content.size = 0;
        if (!readAnswer(s, buffer, content))
            std::exit(1);
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
    else if (a.mode == "connect")
        connects(a);
    else if (a.mode == "http")
        httpGet(a);
    else if (a.mode == "httpserver")
        httpServer(a);
    else if (a.mode == "echo")
        echo(a);
    else
        accepts(a);
    watch.report();
    std::_Exit(0);
}
