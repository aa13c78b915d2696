// libuv.
#include "Common.h"

#include <string>
#include <uv.h>
#include <vector>

using namespace bench;

namespace
{
Arguments* args = nullptr;
long long left = 0;
int pinged = 0;
std::vector<char> block(1 << 16, 'x');
uv_loop_t* loop = nullptr;

void allocate(uv_handle_t*, size_t, uv_buf_t* buffer)
{
    *buffer = uv_buf_init(block.data(), static_cast<unsigned int>(block.size()));
}

struct Write {
    uv_write_t request;
    std::string bytes;
};

void sendMore(uv_stream_t* stream)
{
    while (left > 0 && uv_stream_get_write_queue_size(stream) < (3U << 20)) {
        auto* write = new uv_write_t;
        uv_buf_t buffer = uv_buf_init(block.data(),
            static_cast<unsigned int>(std::min<long long>(left, static_cast<long long>(block.size()))));
        left -= buffer.len;
        uv_write(write, stream, &buffer, 1, [](uv_write_t* w, int) {
            uv_stream_t* s = w->handle;
            delete w;
            sendMore(s);
        });
    }
}

void ping(uv_stream_t* stream)
{
    uv_buf_t buffer = uv_buf_init(block.data(), kPingSize);
    uv_try_write(stream, &buffer, 1);
}

void connectNext();

void onRead(uv_stream_t* stream, ssize_t n, const uv_buf_t* buffer)
{
    if (n < 0) {
        if (args->mode == "connect")
            uv_close(reinterpret_cast<uv_handle_t*>(stream),
                [](uv_handle_t*) { --left > 0 ? connectNext() : uv_stop(loop); });
        else if (args->mode != "acceptsocket")
            uv_stop(loop);
        return;
    }
    if (args->mode == "send") {
        uv_stop(loop);
    } else if (args->mode == "ping") {
        pinged += static_cast<int>(n);
        if (pinged < kPingSize)
            return;
        pinged = 0;
        --left > 0 ? ping(stream) : uv_stop(loop);
    } else if (args->mode == "echo") {
        auto* write = new Write;
        write->bytes.assign(buffer->base, static_cast<std::size_t>(n));
        uv_buf_t out = uv_buf_init(&write->bytes[0], static_cast<unsigned int>(n));
        uv_write(
            &write->request, stream, &out, 1, [](uv_write_t* w, int) { delete reinterpret_cast<Write*>(w); });
        if (--left == 0)
            uv_stop(loop);
    }
}

void onConnection(uv_stream_t* server, int)
{
    static bool bStarted = false;
    if (!bStarted)
        watch.start();
    bStarted = true;
    auto* client = new uv_tcp_t;
    uv_tcp_init(loop, client);
    uv_accept(server, reinterpret_cast<uv_stream_t*>(client));
    if (args->mode == "acceptsocket")
        uv_read_start(reinterpret_cast<uv_stream_t*>(client), allocate, onRead);
    if (args->mode != "echo") {
        uv_close(reinterpret_cast<uv_handle_t*>(client), [](uv_handle_t* handle) {
            delete reinterpret_cast<uv_tcp_t*>(handle);
            if (--left == 0)
                uv_stop(loop);
        });
        return;
    }
    uv_read_start(reinterpret_cast<uv_stream_t*>(client), allocate, onRead);
}

void connectNext()
{
    static uv_tcp_t tcp;
    static uv_connect_t connect;
    const sockaddr_in address = farAddress(args->port);
    uv_tcp_init(loop, &tcp);
    uv_tcp_connect(
        &connect, &tcp, reinterpret_cast<const sockaddr*>(&address), [](uv_connect_t* c, int failed) {
            if (failed != 0)
                std::exit(1);
            uv_read_start(c->handle, allocate, onRead);
        });
}
} // namespace

int main(int argc, char** argv)
{
    Arguments a(argc, argv);
    args = &a;
    left = a.amount;
    loop = uv_default_loop();
    uv_tcp_t tcp;
    uv_tcp_init(loop, &tcp);
    const sockaddr_in address = farAddress(a.port);
    uv_connect_t connect;
    if (a.mode == "connect") {
        watch.start();
        connectNext();
    } else if (a.mode == "echo" || a.mode == "accept" || a.mode == "acceptsocket") {
        uv_tcp_bind(&tcp, reinterpret_cast<const sockaddr*>(&address), 0);
        uv_listen(reinterpret_cast<uv_stream_t*>(&tcp), 8192, onConnection);
        ready();
    } else {
        uv_tcp_nodelay(&tcp, 1);
        uv_tcp_connect(&connect, &tcp, reinterpret_cast<const sockaddr*>(&address), [](uv_connect_t* c, int) {
            watch.start();
            uv_read_start(c->handle, allocate, onRead);
            if (args->mode == "send")
                sendMore(c->handle);
            else if (args->mode == "ping")
                ping(c->handle);
        });
    }
    uv_run(loop, UV_RUN_DEFAULT);
    watch.report();
    std::_Exit(0);
}
