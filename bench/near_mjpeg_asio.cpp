// Asio in the MJPEG rows: waits for readiness and reads into one buffer for all, with the limit row's parser.
#include "Pictures.h"

#include <asio.hpp>

using namespace bench;
using asio::ip::tcp;

namespace
{
std::vector<char> buffer(1 << 16);

struct Camera {
    tcp::socket socket;
    PartReader reader;

    void wait()
    {
        socket.async_wait(tcp::socket::wait_read, [this](std::error_code failed) {
            if (!failed)
                read();
        });
    }
    void read()
    {
        std::error_code failed;
        const std::size_t n = socket.read_some(asio::buffer(buffer), failed);
        if (failed)
            std::exit(1);
        reader.feed(buffer.data(), n);
        wait();
    }
};
} // namespace

int main(int argc, char** argv)
{
    const Arguments a(argc, argv);
    asio::io_context loop(1);
    std::vector<std::unique_ptr<Camera>> cameras;
    for (int i = 0; i < a.connections; ++i) {
        cameras.push_back(std::unique_ptr<Camera>(new Camera{tcp::socket(loop), PartReader(a)}));
        tcp::socket& socket = cameras.back()->socket;
        socket.connect({asio::ip::make_address_v4(farHost()), a.port});
        asio::write(socket, asio::buffer(kPicturesRequest, sizeof kPicturesRequest - 1));
        socket.non_blocking(true);
        cameras.back()->wait();
    }
    loop.run();
    return 1;
}
