// The other end of a connection by plain system calls, so that only the near side is under test.
#pragma once

#include "support/Seams.h"

#include <QtCore/QByteArray>

#include <cerrno>
#include <dirent.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

inline sockaddr_in onLoopback(unsigned short port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

class RawSocket
{
public:
    explicit RawSocket(int fd = -1) : m_nFd(fd) { }
    RawSocket(RawSocket&& other) noexcept : m_nFd(other.release()) { }
    RawSocket& operator=(RawSocket&& other) noexcept
    {
        close();
        m_nFd = other.release();
        m_received = other.m_received;
        m_bEnd = other.m_bEnd;
        return *this;
    }
    ~RawSocket() { close(); }

    static RawSocket connectTo(unsigned short port)
    {
        const seams::Exempt exempt;
        RawSocket s(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        const sockaddr_in address = onLoopback(port);
        if (::connect(s.m_nFd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
            s.close();
        return s;
    }

    unsigned short localPort() const { return portOf(&::getsockname); }
    unsigned short peerPort() const { return portOf(&::getpeername); }
    int fd() const { return m_nFd; }
    bool isOpen() const { return m_nFd >= 0; }
    int release() { return std::exchange(m_nFd, -1); }
    void close()
    {
        if (m_nFd >= 0)
            ::close(m_nFd);
        m_nFd = -1;
    }
    void reset() // ends the connection with RST
    {
        linger hard{1, 0};
        setsockopt(m_nFd, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
        close();
    }
    void shutdownWrite() { ::shutdown(m_nFd, SHUT_WR); }
    void write(const QByteArray& bytes) { write(bytes.constData(), static_cast<std::size_t>(bytes.size())); }
    void write(const char* data, std::size_t size)
    {
        while (size > 0) {
            const ssize_t n = ::send(m_nFd, data, size, MSG_NOSIGNAL);
            if (n <= 0)
                return;
            data += n;
            size -= static_cast<std::size_t>(n);
        }
    }
    // Everything that has come so far.
    const QByteArray& received(std::size_t most = 1U << 30)
    {
        char buffer[65536];
        while (m_nFd >= 0 && !m_bEnd && most > 0) {
            const ssize_t n
                = ::recv(m_nFd, buffer, most < sizeof buffer ? most : sizeof buffer, MSG_DONTWAIT);
            if (n < 0 && errno == EAGAIN)
                break;
            m_bEnd = n <= 0;
            m_bReset = n < 0;
            if (n > 0) {
                m_received.append(buffer, static_cast<int>(n));
                most -= static_cast<std::size_t>(n);
            }
        }
        return m_received;
    }
    QByteArray take()
    {
        QByteArray bytes = received();
        m_received.clear();
        return bytes;
    }
    bool atEnd()
    {
        received();
        return m_bEnd;
    }
    bool wasReset() const { return m_bReset; }

private:
    unsigned short portOf(int (*name)(int, sockaddr*, socklen_t*)) const
    {
        sockaddr_in6 address{}; // of IPv4, the port stands in the same place
        socklen_t size = sizeof address;
        name(m_nFd, reinterpret_cast<sockaddr*>(&address), &size);
        return ntohs(address.sin6_port);
    }

    int m_nFd;
    QByteArray m_received;
    bool m_bEnd = false;
    bool m_bReset = false;
};

class RawListener
{
public:
    explicit RawListener(int backlog = 4096, bool bIPv6 = false)
        : m_socket(::socket(bIPv6 ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0))
    {
        const sockaddr_in address = onLoopback(0);
        sockaddr_in6 address6{};
        address6.sin6_family = AF_INET6;
        address6.sin6_addr = in6addr_loopback;
        if (bIPv6)
            bind(m_socket.fd(), reinterpret_cast<const sockaddr*>(&address6), sizeof address6);
        else
            bind(m_socket.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
        m_nPort = m_socket.localPort();
        listen(m_socket.fd(), backlog);
    }
    unsigned short port() const { return m_nPort; }
    RawSocket accept() // not open when nobody waits
    {
        const seams::Exempt exempt;
        return RawSocket(::accept4(m_socket.fd(), nullptr, nullptr, SOCK_CLOEXEC));
    }
    void close() { m_socket.close(); }

private:
    RawSocket m_socket;
    unsigned short m_nPort = 0;
};

// Of this process: what a test must not leave behind.
inline int entriesOf(const char* folderName)
{
    int count = 0;
    DIR* folder = opendir(folderName);
    while (readdir(folder) != nullptr)
        ++count;
    closedir(folder);
    return count;
}
inline int openDescriptors() { return entriesOf("/proc/self/fd"); }
inline int runningThreads() { return entriesOf("/proc/self/task"); }
