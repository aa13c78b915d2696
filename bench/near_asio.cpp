// Asio, standalone.
#include "Common.h"

#include <array>
#include <asio.hpp>
#include <memory>
#include <vector>

using namespace bench;
using asio::ip::tcp;

namespace
{
asio::io_context loop;
long long left = 0;
std::vector<char> buffer(1 << 16, 'x');

void receive(tcp::socket& s)
{
    s.async_read_some(asio::buffer(buffer), [&s](std::error_code error, std::size_t) {
        if (!error)
            receive(s);
    });
}

void sendMore(tcp::socket& s)
{
    if (left <= 0) {
        asio::async_read(s, asio::buffer(buffer.data(), 1), [](std::error_code, std::size_t) {});
        return;
    }
    const auto n = static_cast<std::size_t>(std::min<long long>(left, static_cast<long long>(buffer.size())));
    left -= static_cast<long long>(n);
    asio::async_write(s, asio::buffer(buffer.data(), n), [&s](std::error_code, std::size_t) { sendMore(s); });
}

void ping(tcp::socket& s)
{
    asio::async_write(s, asio::buffer(buffer.data(), kPingSize), [&s](std::error_code, std::size_t) {
        asio::async_read(s, asio::buffer(buffer.data(), kPingSize), [&s](std::error_code, std::size_t) {
            if (--left > 0)
                ping(s);
        });
    });
}

struct Echo : std::enable_shared_from_this<Echo> {
    tcp::socket socket;
    std::array<char, 4096> bytes;
    explicit Echo(tcp::socket s) : socket(std::move(s)) { }
    void read()
    {
        socket.async_read_some(
            asio::buffer(bytes), [self = shared_from_this()](std::error_code error, std::size_t n) {
                if (error) {
                    loop.stop();
                    return;
                }
                asio::async_write(
                    self->socket, asio::buffer(self->bytes.data(), n), [self](std::error_code, std::size_t) {
                        if (--left == 0)
                            loop.stop();
                        self->read();
                    });
            });
    }
};

void accept(tcp::acceptor& acceptor, const std::string& mode)
{
    acceptor.async_accept([&acceptor, &mode](std::error_code, tcp::socket s) {
        static bool bStarted = false;
        if (!bStarted)
            watch.start();
        bStarted = true;
        if (mode == "echo") {
            std::make_shared<Echo>(std::move(s))->read();
        } else {
            if (mode == "acceptsocket") // it is ready to receive
                s.async_wait(tcp::socket::wait_read, [](std::error_code) {});
            if (--left == 0)
                return;
        }
        accept(acceptor, mode);
    });
}

void connects(tcp::socket& s, const tcp::endpoint& endpoint)
{
    s.async_connect(endpoint, [&](std::error_code failed) {
        if (failed)
            std::exit(1);
        s.async_read_some(asio::buffer(buffer), [&](std::error_code, std::size_t) {
            s.close();
            if (--left > 0)
                connects(s, endpoint);
        });
    });
}
} // namespace

int main(int argc, char** argv)
{
    const Arguments a(argc, argv);
    left = a.amount;
    tcp::socket socket(loop);
    const tcp::endpoint endpoint(asio::ip::make_address_v4(farHost()), a.port);
    if (a.mode == "echo" || a.mode == "accept" || a.mode == "acceptsocket") {
        tcp::acceptor acceptor(loop, endpoint);
        ready();
        accept(acceptor, a.mode);
        loop.run();
        watch.report();
        std::_Exit(0);
    }
    if (a.mode == "connect") {
        watch.start();
        connects(socket, endpoint);
        loop.run();
        watch.report();
        return 0;
    }
    socket.connect(endpoint);
    socket.set_option(tcp::no_delay(true));
    watch.start();
    if (a.mode == "recv")
        receive(socket);
    else if (a.mode == "send")
        sendMore(socket);
    else
        ping(socket);
    loop.run();
    watch.report();
    return 0;
}
