#include "support/Seams.h"

#include "platform/Bytes_p.h"

#include <QtCore/QStringView>

#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>

#include <cerrno>
#include <ctime>
#include <netdb.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/socket.h>

class QThread;

namespace seams
{
std::atomic<long long> clockOffsetMs{0};
std::atomic<bool> bVirtualSleep{false};
std::atomic<int> streamPort{0};
Fault threadCreation, accepting, sending, sendingTo, receiving, settingOptions, opening, receivingMany,
    registering, portCreation, sendingRuns, growing, allocating;
std::atomic<long long> hexDigitsRead{0};

Fault& crypto(const char* function)
{
    static std::map<std::string, Fault> faults;
    static std::mutex mutex;
    const std::lock_guard<std::mutex> lock(mutex);
    return faults[function];
}

bool Fault::fires()
{
    ++nCalls;
    if (nTimes <= 0)
        return false;
    --nTimes;
    errno = nErrno;
    return true;
}

namespace
{
std::atomic<int> s_nUntilRefusal{0};
std::atomic<const char*> s_pRefusedCall{nullptr};
thread_local int t_nExempt = 0;

bool refuses(const char* call, int error)
{
    if (t_nExempt > 0 || s_nUntilRefusal <= 0 || --s_nUntilRefusal != 0)
        return false;
    s_pRefusedCall = call;
    errno = error;
    return true;
}
bool refuses(Fault& fault, const char* call, int error) { return fault.fires() || refuses(call, error); }
} // namespace

void refuseNth(int n)
{
    s_pRefusedCall = nullptr;
    s_nUntilRefusal = n;
}
const char* refusedCall() { return s_pRefusedCall; }
Exempt::Exempt() { ++t_nExempt; }
Exempt::~Exempt() { --t_nExempt; }

Resolver& resolver()
{
    static Resolver& instance = *new Resolver; // a lookup that was left behind may still use it
    return instance;
}

void setName(const std::string& name, const std::vector<std::string>& addresses)
{
    const std::lock_guard<std::mutex> lock(resolver().mutex);
    resolver().names[name] = addresses;
}

void holdLookups(bool bHold)
{
    const std::lock_guard<std::mutex> lock(resolver().mutex);
    resolver().bHold = bHold;
    resolver().changed.notify_all();
}

int lookupCalls()
{
    const std::lock_guard<std::mutex> lock(resolver().mutex);
    return resolver().nCalls;
}
} // namespace seams

extern "C" {
// A function that fails where it is refused, and is the real one elsewhere.
#define NUVIKA_SEAM(type, function, parameters, arguments, refused, failure)                                 \
    type __real_##function parameters;                                                                       \
    type __wrap_##function parameters { return (refused) ? (failure) : __real_##function arguments; }

int __real_clock_gettime(clockid_t clock, timespec* now);
int __wrap_clock_gettime(clockid_t clock, timespec* now)
{
    const int result = __real_clock_gettime(clock, now);
    const long long offset = seams::clockOffsetMs;
    now->tv_sec += offset / 1000;
    now->tv_nsec += offset % 1000 * 1000000;
    if (now->tv_nsec >= 1000000000) {
        now->tv_nsec -= 1000000000;
        ++now->tv_sec;
    }
    return result;
}

int __real_clock_nanosleep(clockid_t clock, int flags, const timespec* wanted, timespec* left);
int __wrap_clock_nanosleep(clockid_t clock, int flags, const timespec* wanted, timespec* left)
{
    if (!seams::bVirtualSleep)
        return __real_clock_nanosleep(clock, flags, wanted, left);
    seams::clockOffsetMs += wanted->tv_sec * 1000 + wanted->tv_nsec / 1000000;
    return 0;
}

int __real_getaddrinfo(const char* name, const char* service, const addrinfo* hints, addrinfo** list);
int __wrap_getaddrinfo(const char* name, const char* service, const addrinfo* hints, addrinfo** list)
{
    if (seams::refuses("getaddrinfo", 0))
        return EAI_MEMORY;
    seams::Resolver& resolver = seams::resolver();
    std::unique_lock<std::mutex> lock(resolver.mutex);
    ++resolver.nCalls;
    resolver.changed.notify_all();
    resolver.changed.wait(lock, [&] { return !resolver.bHold; });
    const auto known = resolver.names.find(name);
    if (known == resolver.names.end())
        return __real_getaddrinfo(name, service, hints, list);
    *list = nullptr;
    addrinfo** tail = list;
    for (const std::string& address : known->second) {
        if (__real_getaddrinfo(address.c_str(), service, hints, tail) == 0)
            tail = &(*tail)->ai_next;
    }
    return *list == nullptr ? EAI_NONAME : 0;
}

int __real_socket(int family, int type, int protocol);
int __wrap_socket(int family, int type, int protocol)
{
    if (seams::refuses(seams::opening, "socket", EMFILE))
        return -1;
    const int s = __real_socket(family, type, protocol);
    if (seams::streamPort != 0 && (type & SOCK_STREAM) != 0 && family == AF_INET) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<std::uint16_t>(seams::streamPort));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(s, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    }
    return s;
}

int __real__ZN6Nuvika9decodeHexE11QStringViewPc(QStringView digits, char* out); // Nuvika::decodeHex()
int __wrap__ZN6Nuvika9decodeHexE11QStringViewPc(QStringView digits, char* out)
{
    seams::hexDigitsRead += digits.size();
    return __real__ZN6Nuvika9decodeHexE11QStringViewPc(digits, out);
}

NUVIKA_SEAM(int, pthread_create, (pthread_t * t, const pthread_attr_t* a, void* (*run)(void*), void* p),
    (t, a, run, p), seams::refuses(seams::threadCreation, "pthread_create", EAGAIN), EAGAIN)
NUVIKA_SEAM(bool, _ZN6Nuvika7Threads5startER7QThread, (QThread & thread),
    (thread), // Nuvika::Threads::start()
    seams::refuses(seams::threadCreation, "QThread::start", EAGAIN), false)
NUVIKA_SEAM(int, accept4, (int fd, sockaddr* a, socklen_t* n, int flags), (fd, a, n, flags),
    seams::refuses(seams::accepting, "accept4", EMFILE), -1)
NUVIKA_SEAM(
    int, bind, (int fd, const sockaddr* a, socklen_t n), (fd, a, n), seams::refuses("bind", ENOMEM), -1)
NUVIKA_SEAM(int, listen, (int fd, int n), (fd, n), seams::refuses("listen", EADDRINUSE), -1)
NUVIKA_SEAM(int, setsockopt, (int fd, int level, int name, const void* v, socklen_t n),
    (fd, level, name, v, n), seams::refuses(seams::settingOptions, "setsockopt", ENOBUFS), -1)
NUVIKA_SEAM(int, eventfd, (unsigned int n, int flags), (n, flags), seams::refuses("eventfd", EMFILE), -1)
NUVIKA_SEAM(int, epoll_create1, (int flags), (flags),
    seams::refuses(seams::portCreation, "epoll_create1", EMFILE), -1)
NUVIKA_SEAM(int, epoll_ctl, (int port, int operation, int fd, epoll_event* e), (port, operation, fd, e),
    operation == EPOLL_CTL_ADD && seams::refuses(seams::registering, "epoll_ctl", ENOSPC), -1)
NUVIKA_SEAM(ssize_t, send, (int fd, const void* data, size_t size, int flags), (fd, data, size, flags),
    seams::sending.fires(), -1)
NUVIKA_SEAM(ssize_t, sendto, (int fd, const void* d, size_t size, int flags, const sockaddr* to, socklen_t n),
    (fd, d, size, flags, to, n), seams::sendingTo.fires(), -1)
NUVIKA_SEAM(int, sendmmsg, (int fd, mmsghdr* m, unsigned int count, int flags), (fd, m, count, flags),
    count > 0 && m->msg_hdr.msg_controllen > 0 && seams::sendingRuns.fires(), -1)
NUVIKA_SEAM(ssize_t, recv, (int fd, void* data, size_t size, int flags), (fd, data, size, flags),
    seams::receiving.fires(), -1)
NUVIKA_SEAM(int, recvmmsg, (int fd, mmsghdr* m, unsigned int count, int flags, timespec* time),
    (fd, m, count, flags, time), seams::receivingMany.fires(), -1)
NUVIKA_SEAM(void*, realloc, (void* block, size_t size), (block, size), seams::growing.fires(), nullptr)

#define NUVIKA_SEAM_CRYPTO(type, function, parameters, arguments)                                            \
    NUVIKA_SEAM(type, function, parameters, arguments, seams::crypto(#function).fires(), type{})

NUVIKA_SEAM_CRYPTO(int, EVP_DigestInit_ex, (EVP_MD_CTX * c, const EVP_MD* m, ENGINE* e), (c, m, e))
NUVIKA_SEAM_CRYPTO(int, EVP_DigestUpdate, (EVP_MD_CTX * c, const void* d, size_t n), (c, d, n))
NUVIKA_SEAM_CRYPTO(
    int, EVP_DigestFinal_ex, (EVP_MD_CTX * c, unsigned char* out, unsigned int* n), (c, out, n))
#define NUVIKA_CIPHER_INIT                                                                                   \
    (EVP_CIPHER_CTX * c, const EVP_CIPHER* a, ENGINE* e, const unsigned char* k, const unsigned char* iv)
#define NUVIKA_CIPHER_UPDATE                                                                                 \
    (EVP_CIPHER_CTX * c, unsigned char* out, int* n, const unsigned char* in, int size)
NUVIKA_SEAM_CRYPTO(int, EVP_EncryptInit_ex, NUVIKA_CIPHER_INIT, (c, a, e, k, iv))
NUVIKA_SEAM_CRYPTO(int, EVP_EncryptUpdate, NUVIKA_CIPHER_UPDATE, (c, out, n, in, size))
NUVIKA_SEAM_CRYPTO(int, EVP_EncryptFinal_ex, (EVP_CIPHER_CTX * c, unsigned char* out, int* n), (c, out, n))
NUVIKA_SEAM_CRYPTO(int, EVP_DecryptInit_ex, NUVIKA_CIPHER_INIT, (c, a, e, k, iv))
NUVIKA_SEAM_CRYPTO(int, EVP_DecryptUpdate, NUVIKA_CIPHER_UPDATE, (c, out, n, in, size))
NUVIKA_SEAM_CRYPTO(int, EVP_DecryptFinal_ex, (EVP_CIPHER_CTX * c, unsigned char* out, int* n), (c, out, n))

using SslContext = SSL_CTX*;
using SslPointer = SSL*;
using BioPointer = BIO*;
using BioMethod = BIO_METHOD*;
NUVIKA_SEAM_CRYPTO(SslContext, SSL_CTX_new, (const SSL_METHOD* m), (m))
NUVIKA_SEAM_CRYPTO(SslPointer, SSL_new, (SSL_CTX * c), (c))
NUVIKA_SEAM_CRYPTO(BioPointer, BIO_new, (const BIO_METHOD* m), (m))
NUVIKA_SEAM_CRYPTO(BioMethod, BIO_meth_new, (int type, const char* name), (type, name))
NUVIKA_SEAM_CRYPTO(long, SSL_ctrl, (SSL * s, int command, long n, void* p), (s, command, n, p))
NUVIKA_SEAM_CRYPTO(int, SSL_set_ex_data, (SSL * s, int index, void* data), (s, index, data))
NUVIKA_SEAM_CRYPTO(
    int, SSL_CTX_set_session_id_context, (SSL_CTX * c, const unsigned char* id, unsigned int n), (c, id, n))
NUVIKA_SEAM_CRYPTO(int, SSL_CTX_set_default_verify_paths, (SSL_CTX * c), (c))
NUVIKA_SEAM_CRYPTO(int, SSL_CTX_load_verify_file, (SSL_CTX * c, const char* file), (c, file))
NUVIKA_SEAM_CRYPTO(
    int, X509_VERIFY_PARAM_set1_host, (X509_VERIFY_PARAM * p, const char* n, size_t s), (p, n, s))
NUVIKA_SEAM_CRYPTO(int, X509_VERIFY_PARAM_set1_ip_asc, (X509_VERIFY_PARAM * p, const char* a), (p, a))
}

// Names given by hand: no function of C returns such a value.
Nuvika::Bytes realTryAllocate(std::size_t size) __asm__("__real__ZN6Nuvika11tryAllocateEm");
Nuvika::Bytes wrapTryAllocate(std::size_t size) __asm__("__wrap__ZN6Nuvika11tryAllocateEm");
Nuvika::Bytes wrapTryAllocate(std::size_t size)
{
    return seams::allocating.fires() ? Nuvika::Bytes() : realTryAllocate(size);
}
