// Asio in the idle rows: it waits for readiness, so that no buffer is bound to a connection.
#include "Idle.h"

#include <array>
#include <asio.hpp>
#include <memory>
#include <vector>

using namespace bench;
using asio::ip::tcp;

int main(int argc, char** argv)
{
    const Arguments a(argc, argv);
    asio::io_context loop(1);
    const tcp::endpoint far(asio::ip::make_address_v4(farHost()), a.port);
    std::vector<std::unique_ptr<tcp::socket>> sockets;
    std::unique_ptr<IdleRow> row;
    std::function<void(tcp::socket&)> wait = [&](tcp::socket& socket) {
        socket.async_wait(tcp::socket::wait_read, [&](std::error_code failed) {
            static std::array<char, 4096> buffer;
            if (failed || socket.read_some(asio::buffer(buffer), failed) == 0)
                std::exit(1);
            wait(socket);
            row->used();
        });
    };
    const auto connectNext = [&] {
        sockets.push_back(std::make_unique<tcp::socket>(loop));
        tcp::socket& socket = *sockets.back();
        socket.async_connect(far, [&](std::error_code failed) {
            if (failed)
                std::exit(1);
            wait(socket);
            row->connected();
        });
    };
    row = std::make_unique<IdleRow>(a, connectNext,
        [&](int i) { asio::write(*sockets[static_cast<std::size_t>(i)], asio::buffer(idleMessage)); });
    connectNext();
    loop.run();
    return 1;
}
