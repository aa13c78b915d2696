// libuv in the idle rows, with one buffer for all reads.
#include "Idle.h"

#include <memory>
#include <uv.h>
#include <vector>

using namespace bench;

namespace
{
std::vector<std::unique_ptr<uv_tcp_t>> sockets;
std::unique_ptr<IdleRow> row;
uv_connect_t request;

void allocate(uv_handle_t*, size_t, uv_buf_t* buffer)
{
    static char memory[65536];
    *buffer = uv_buf_init(memory, sizeof memory);
}

void onRead(uv_stream_t*, ssize_t n, const uv_buf_t*)
{
    if (n < 0)
        std::exit(1);
    if (n > 0)
        row->used();
}

void onConnected(uv_connect_t* done, int failed)
{
    if (failed != 0)
        std::exit(1);
    uv_read_start(done->handle, allocate, onRead);
    row->connected();
}
} // namespace

int main(int argc, char** argv)
{
    const Arguments a(argc, argv);
    const sockaddr_in far = farAddress(a.port);
    const auto connectNext = [&far] {
        sockets.push_back(std::make_unique<uv_tcp_t>());
        uv_tcp_init(uv_default_loop(), sockets.back().get());
        uv_tcp_connect(&request, sockets.back().get(), reinterpret_cast<const sockaddr*>(&far), onConnected);
    };
    row = std::make_unique<IdleRow>(a, connectNext, [](int i) {
        const uv_buf_t buffer = uv_buf_init(const_cast<char*>(idleMessage.data()), kEchoSize);
        uv_try_write(reinterpret_cast<uv_stream_t*>(sockets[static_cast<std::size_t>(i)].get()), &buffer, 1);
    });
    connectNext();
    uv_run(uv_default_loop(), UV_RUN_DEFAULT);
    return 1;
}
