// Asio in the RTP row: waits for readiness, then receives until nothing is left.
#include "Datagrams.h"
#include "RtpStreams.h"

#include <asio.hpp>
#include <memory>

using namespace bench;
using asio::ip::udp;

namespace
{
struct Receiver {
    udp::socket socket;
    RtpStream stream;

    void wait()
    {
        socket.async_wait(udp::socket::wait_read, [this](std::error_code failed) {
            if (!failed)
                read();
        });
    }
    void read()
    {
        static std::array<char, 1500> buffer;
        udp::endpoint from;
        std::error_code failed;
        for (;;) {
            const std::size_t n = socket.receive_from(asio::buffer(buffer), from, 0, failed);
            if (failed)
                break;
            stream.took(buffer.data(), n);
        }
        wait();
    }
};
} // namespace

int main(int argc, char** argv)
{
    const Arguments a(argc, argv);
    asio::io_context loop(1);
    std::vector<std::unique_ptr<Receiver>> receivers;
    std::vector<unsigned short> ports;
    for (int i = 0; i < a.connections; ++i) {
        receivers.push_back(std::unique_ptr<Receiver>(new Receiver{
            udp::socket(loop, udp::endpoint(asio::ip::make_address_v4(farHost()), 0)), RtpStream()}));
        udp::socket& socket = receivers.back()->socket;
        socket.set_option(asio::socket_base::receive_buffer_size(kDatagramBuffer));
        socket.non_blocking(true);
        ports.push_back(socket.local_endpoint().port());
        receivers.back()->wait();
    }
    ready(printedPorts(ports));
    loop.run();
    return 1;
}
