// Asio in the message rows: one buffer each way, nothing told for each message.
#include "Messages.h"

#include <asio.hpp>
#include <functional>

using namespace bench;

int main(int argc, char** argv)
{
    const Arguments a(argc, argv);
    asio::io_context loop(1);
    asio::ip::tcp::socket socket(loop);
    socket.connect({asio::ip::make_address_v4(farHost()), a.port});
    std::vector<char> buffer(1 << 18);
    std::size_t held = 0;
    long long left = a.amount;
    long long checksum = 0;
    std::function<void(std::error_code, std::size_t)> received = [&](std::error_code failed, std::size_t n) {
        held += n;
        left -= takeFrames(buffer, held, [&](const char* frame) { checksum += frame[kFrameHead]; });
        if (!failed && left > 0)
            socket.async_read_some(asio::buffer(buffer.data() + held, buffer.size() - held), received);
    };
    const std::string frame = plainFrame();
    std::function<void(std::error_code, std::size_t)> sendMore = [&](std::error_code failed, std::size_t) {
        for (held = 0; left > 0 && held + kFrameSize <= buffer.size(); --left, held += kFrameSize)
            std::memcpy(buffer.data() + held, frame.data(), kFrameSize);
        if (!failed && held > 0)
            asio::async_write(socket, asio::buffer(buffer.data(), held), sendMore);
    };
    watch.start();
    if (a.mode == "msgsend")
        sendMore({}, 0);
    else
        received({}, 0);
    loop.run();
    if (a.mode == "msgsend")
        socket.read_some(asio::buffer(buffer)); // the receiver's word that it has them all
    watch.report();
    std::_Exit(checksum < 0 ? 1 : 0);
}
