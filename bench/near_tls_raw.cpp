// The limit of the TLS rows: OpenSSL on a blocking socket.
#include "Tls.h"

#include <vector>

using namespace bench;

namespace
{
SSL_SESSION* session = nullptr;

int keep(SSL*, SSL_SESSION* fresh)
{
    SSL_SESSION_free(session);
    session = fresh;
    return 1;
}

SSL* open(SSL_CTX* context, unsigned short port)
{
    SSL* ssl = SSL_new(context);
    SSL_set_fd(ssl, rawConnect(port));
    if (session != nullptr)
        SSL_set_session(ssl, session);
    if (SSL_connect(ssl) != 1)
        std::exit(1);
    return ssl;
}

void end(SSL* ssl)
{
    const int s = SSL_get_fd(ssl);
    SSL_shutdown(ssl);
    SSL_free(ssl);
    close(s);
}
} // namespace

int main(int argc, char** argv)
{
    const Arguments a(argc, argv);
    SSL_CTX* context = SSL_CTX_new(TLS_client_method());
    SSL_CTX_set_read_ahead(context, 1); // a record's head and body by one receive; larger reads cost more
    SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_CLIENT | SSL_SESS_CACHE_NO_INTERNAL);
    SSL_CTX_sess_set_new_cb(context, &keep);
    std::vector<char> buffer(kBlock, 'x');
    if (a.mode == "tlshello") {
        watch.start();
        for (long long i = 0; i < a.amount; ++i) {
            SSL* ssl = open(context, a.port);
            SSL_read(ssl, buffer.data(), 1);
            end(ssl);
        }
    } else {
        SSL* ssl = open(context, a.port);
        watch.start();
        for (long long left = a.amount; left > 0;) {
            const int n = a.mode == "tlssend" ? SSL_write(ssl, buffer.data(), kBlock)
                                              : SSL_read(ssl, buffer.data(), kBlock);
            if (n <= 0)
                break;
            left -= n;
        }
        if (a.mode == "tlssend")
            SSL_read(ssl, buffer.data(), 1); // the server has it all
    }
    watch.report();
    std::_Exit(0);
}
