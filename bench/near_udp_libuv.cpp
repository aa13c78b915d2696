// libuv's datagrams, with its own use of recvmmsg.
#include "Datagrams.h"

#include <uv.h>

using namespace bench;

namespace
{
const Arguments* args = nullptr;
long long left = 0;

void allocate(uv_handle_t*, size_t, uv_buf_t* buffer)
{
    static std::array<char, 10 * 65536> memory; // libuv cuts it into slots of 64 KiB
    *buffer = uv_buf_init(memory.data(), memory.size());
}

void received(uv_udp_t* handle, ssize_t size, const uv_buf_t*, const sockaddr*, unsigned int)
{
    if (size <= 0)
        return;
    if (left == args->amount)
        watch.start();
    if (--left == 0)
        uv_stop(handle->loop);
}
} // namespace

int main(int argc, char** argv)
{
    const Arguments a(argc, argv);
    args = &a;
    left = a.amount;
    uv_udp_t handle;
    uv_udp_init_ex(uv_default_loop(), &handle, AF_INET | UV_UDP_RECVMMSG);
    const sockaddr_in address = farAddress(a.mode == "udprecv" ? a.port : 0);
    uv_udp_bind(&handle, reinterpret_cast<const sockaddr*>(&address), 0);
    int size = kDatagramBuffer;
    uv_recv_buffer_size(reinterpret_cast<uv_handle_t*>(&handle), &size);
    if (a.mode != "udprecv") {
        const sockaddr_in to = farAddress(a.port);
        timedSends(a, 1, [&](const Packets& packets) {
            const uv_buf_t buffer = uv_buf_init(const_cast<char*>(packets.bytes[0].data()), kDatagramSize);
            uv_udp_try_send(&handle, &buffer, 1, reinterpret_cast<const sockaddr*>(&to));
        });
    }
    uv_udp_recv_start(&handle, allocate, received);
    ready();
    uv_run(uv_default_loop(), UV_RUN_DEFAULT);
    watch.report();
    std::_Exit(0);
}
