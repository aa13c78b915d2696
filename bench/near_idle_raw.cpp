// The limit of the idle rows: a descriptor in an epoll set, and bare OpenSSL over it.
#include "Idle.h"
#include "Tls.h"

#include <vector>

#include <sys/epoll.h>

using namespace bench;

namespace
{
struct Connection {
    int socket;
    SSL* tls; // null without TLS
};

Connection open(const Arguments& a, SSL_CTX* context, int ep)
{
    const Connection connection{rawConnect(a.port), context != nullptr ? SSL_new(context) : nullptr};
    if (connection.tls != nullptr
        && (SSL_set_fd(connection.tls, connection.socket), SSL_connect(connection.tls) != 1))
        std::exit(1);
    epoll_event event{EPOLLIN, {}};
    epoll_ctl(ep, EPOLL_CTL_ADD, connection.socket, &event);
    return connection;
}

void use(const Connection& connection)
{
    char buffer[4096];
    if (connection.tls != nullptr) {
        SSL_write(connection.tls, idleMessage.data(), kEchoSize);
        SSL_read(connection.tls, buffer, sizeof buffer);
    } else {
        writeAll(connection.socket, idleMessage.data(), kEchoSize);
        recv(connection.socket, buffer, sizeof buffer, 0);
    }
}
} // namespace

int main(int argc, char** argv)
{
    const Arguments a(argc, argv);
    SSL_CTX* context = a.mode == "tls" ? SSL_CTX_new(TLS_client_method()) : nullptr;
    if (context != nullptr)
        SSL_CTX_set_mode(context, SSL_MODE_RELEASE_BUFFERS);
    const bool bUse = a.variant.find("used") != std::string::npos;
    const int ep = epoll_create1(EPOLL_CLOEXEC);
    std::vector<Connection> connections{open(a, context, ep)};
    use(connections[0]);
    const double before = residentKiB();
    for (int i = 0; i < a.connections; ++i)
        connections.push_back(open(a, context, ep));
    for (const Connection& connection : connections)
        if (bUse)
            use(connection);
    reportIdle(before, a.connections);
}
