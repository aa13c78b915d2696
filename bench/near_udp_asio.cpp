// Asio's datagrams, standalone.
#include "Datagrams.h"

#include <asio.hpp>

using namespace bench;
using asio::ip::udp;

namespace
{
asio::io_context loop;
std::array<char, 1500> buffer;
udp::endpoint from;
long long left = 0;

void receive(udp::socket& s, long long amount)
{
    s.async_receive_from(asio::buffer(buffer), from, [&s, amount](std::error_code, std::size_t) {
        if (left == amount)
            watch.start();
        if (--left > 0)
            receive(s, amount);
    });
}
} // namespace

int main(int argc, char** argv)
{
    const Arguments a(argc, argv);
    left = a.amount;
    const auto local = asio::ip::make_address_v4(farHost());
    if (a.mode != "udprecv") {
        udp::socket s(loop, udp::endpoint(local, 0));
        const udp::endpoint to(local, a.port);
        timedSends(a, 1, [&](const Packets& packets) { s.send_to(asio::buffer(packets.bytes[0]), to); });
    }
    udp::socket s(loop, udp::endpoint(local, a.port));
    s.set_option(asio::socket_base::receive_buffer_size(kDatagramBuffer));
    receive(s, a.amount);
    ready();
    loop.run();
    watch.report();
    std::_Exit(0);
}
