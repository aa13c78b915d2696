// Asio's TLS stream in the TLS rows.
#include "Tls.h"

#include <asio.hpp>
#include <asio/ssl.hpp>
#include <functional>
#include <vector>

using namespace bench;

int main(int argc, char** argv)
{
    const Arguments a(argc, argv);
    asio::io_context loop(1);
    asio::ssl::context context(asio::ssl::context::tls_client);
    asio::ssl::stream<asio::ip::tcp::socket> stream(loop, context);
    stream.next_layer().connect({asio::ip::make_address_v4(farHost()), a.port});
    stream.next_layer().set_option(asio::ip::tcp::no_delay(true));
    std::vector<char> buffer(kBlock, 'x');
    long long left = a.amount;
    std::function<void(asio::error_code, std::size_t)> step = [&](asio::error_code failed, std::size_t size) {
        left -= static_cast<long long>(size);
        if (failed || left <= 0)
            return;
        if (a.mode == "tlssend")
            asio::async_write(stream, asio::buffer(buffer), step);
        else
            stream.async_read_some(asio::buffer(buffer), step);
    };
    stream.async_handshake(asio::ssl::stream_base::client, [&](asio::error_code failed) {
        if (failed)
            std::exit(1);
        watch.start();
        step(failed, 0);
    });
    loop.run();
    if (a.mode == "tlssend")
        stream.read_some(asio::buffer(buffer)); // the server has it all
    watch.report();
    std::_Exit(0);
}
