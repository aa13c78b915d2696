// The limit of the RTSP rows: epoll, recv into one buffer, recvmmsg; interleaved packets are read where they
// were received, and only one that comes in pieces is kept.
#include "Datagrams.h"
#include "RtspSessions.h"

#include <array>

#include <sys/epoll.h>

using namespace bench;

namespace
{
constexpr std::size_t kBatch = 32;
constexpr std::size_t kFrameHead = 4;

class Session
{
public:
    Session(RtspRow& row, int number) : m_row(row), m_number(number) { }

    int control = -1;
    int rtp = -1;

    void took(const char* data, std::size_t size)
    {
        unsigned short sequence = 0;
        std::memcpy(&sequence, data + 2, sizeof sequence);
        sequence = ntohs(sequence);
        if (size >= 12 && (data[0] & 0xC0) == 0x80 && sequence != m_next)
            m_lost += static_cast<unsigned short>(sequence - m_next);
        m_next = static_cast<unsigned short>(sequence + 1);
        m_row.took(m_number);
    }
    void received(const char* data, std::size_t size)
    {
        if (!m_rest.empty()) {
            m_rest.append(data, size);
            const std::string all = std::move(m_rest);
            m_rest.clear();
            split(all.data(), all.size());
        } else {
            split(data, size);
        }
    }

private:
    void split(const char* data, std::size_t size)
    {
        while (size >= kFrameHead) {
            const std::size_t length
                = static_cast<unsigned char>(data[2]) * 256U + static_cast<unsigned char>(data[3]);
            if (size < kFrameHead + length)
                break;
            if (data[1] == 0)
                took(data + kFrameHead, length);
            data += kFrameHead + length;
            size -= kFrameHead + length;
        }
        m_rest.assign(data, size);
    }

    RtspRow& m_row;
    int m_number;
    std::string m_rest;
    unsigned short m_next = 0;
    unsigned int m_lost = 0;
};

void ask(int s, const std::string& request)
{
    writeAll(s, request.data(), request.size());
    std::string got;
    char byte = 0;
    while (got.find("\r\n\r\n") == std::string::npos && recv(s, &byte, 1, 0) == 1)
        got += byte;
    const std::size_t length = got.find("Content-Length: ");
    for (int i = length == std::string::npos ? 0 : std::atoi(got.c_str() + length + 16); i > 0; --i)
        if (recv(s, &byte, 1, 0) != 1)
            std::exit(1);
}

void open(Session& session, const Arguments& a)
{
    const std::string url = rtspUrl(a);
    std::string transport = "RTP/AVP/TCP;unicast;interleaved=0-1";
    if (isUdp(a)) {
        const int buffer = 1 << 20; // as the library asks for
        session.rtp = rawDatagramSocket(0);
        setsockopt(session.rtp, SOL_SOCKET, SO_RCVBUF, &buffer, sizeof buffer);
        const int port = portOf(session.rtp);
        transport = "RTP/AVP;unicast;client_port=" + std::to_string(port) + "-" + std::to_string(port + 1);
    }
    session.control = rawConnect(a.port);
    ask(session.control, "DESCRIBE " + url + " RTSP/1.0\r\nCSeq: 1\r\n\r\n");
    ask(session.control,
        "SETUP " + url + "/track1 RTSP/1.0\r\nCSeq: 2\r\nTransport: " + transport + "\r\n\r\n");
    ask(session.control, "PLAY " + url + " RTSP/1.0\r\nCSeq: 3\r\nSession: 1\r\n\r\n");
}

class Datagrams
{
public:
    Datagrams()
    {
        for (std::size_t i = 0; i < kBatch; ++i) {
            m_ranges[i] = {m_buffers[i].data(), m_buffers[i].size()};
            m_messages[i].msg_hdr.msg_name = &m_senders[i];
            m_messages[i].msg_hdr.msg_iov = &m_ranges[i];
            m_messages[i].msg_hdr.msg_iovlen = 1;
        }
    }
    void receive(Session& session)
    {
        for (mmsghdr& message : m_messages)
            message.msg_hdr.msg_namelen = sizeof(sockaddr_in6);
        const int n = recvmmsg(session.rtp, m_messages.data(), kBatch, MSG_DONTWAIT, nullptr);
        for (int i = 0; i < n; ++i)
            session.took(m_buffers[static_cast<std::size_t>(i)].data(),
                m_messages[static_cast<std::size_t>(i)].msg_len);
    }

private:
    std::array<std::array<char, 1500>, kBatch> m_buffers;
    std::array<mmsghdr, kBatch> m_messages{};
    std::array<iovec, kBatch> m_ranges{};
    std::array<sockaddr_in6, kBatch> m_senders;
};
} // namespace

int main(int argc, char** argv)
{
    const Arguments a(argc, argv);
    RtspRow row(a);
    const int ep = epoll_create1(EPOLL_CLOEXEC);
    std::vector<std::unique_ptr<Session>> sessions;
    do {
        sessions.push_back(std::make_unique<Session>(row, static_cast<int>(sessions.size())));
        Session& session = *sessions.back();
        open(session, a);
        epoll_event event{EPOLLIN, {}};
        event.data.ptr = &session;
        epoll_ctl(ep, EPOLL_CTL_ADD, isUdp(a) ? session.rtp : session.control, &event);
    } while (row.playing(static_cast<int>(sessions.size())));
    static Datagrams datagrams;
    static std::array<char, 65536> buffer;
    for (;;) {
        std::array<epoll_event, 256> events;
        const int n = epoll_wait(ep, events.data(), events.size(), -1);
        for (int i = 0; i < n; ++i) {
            auto& session = *static_cast<Session*>(events[static_cast<std::size_t>(i)].data.ptr);
            if (isUdp(a)) {
                datagrams.receive(session);
                continue;
            }
            const ssize_t got = recv(session.control, buffer.data(), buffer.size(), MSG_DONTWAIT);
            if (got == 0)
                return 1;
            if (got > 0)
                session.received(buffer.data(), static_cast<std::size_t>(got));
        }
    }
}
