#include "support/Seams.h"

#include "platform/Bytes_p.h"

#include <QtCore/QStringView>

#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>

#include <cerrno>
#include <cstring>
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
Fault threadCreation;
Fault accepting;
Fault sending;
Fault sendingTo;
Fault receiving;
Fault settingOptions;
Fault opening;
Fault receivingMany;
Fault registering;
Fault portCreation;
Fault sendingRuns;
Fault growing;
Fault allocating;
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
int __real_clock_gettime(clockid_t clock, timespec* now);
int __real_getaddrinfo(const char* name, const char* service, const addrinfo* hints, addrinfo** list);
int __real_pthread_create(
    pthread_t* thread, const pthread_attr_t* attributes, void* (*run)(void*), void* argument);
int __real_accept4(int fd, sockaddr* address, socklen_t* length, int flags);
ssize_t __real_send(int fd, const void* data, size_t size, int flags);
ssize_t __real_sendto(int fd, const void* data, size_t size, int flags, const sockaddr* to, socklen_t length);
ssize_t __real_recv(int fd, void* data, size_t size, int flags);
int __real_setsockopt(int fd, int level, int name, const void* value, socklen_t length);

int __real_clock_nanosleep(clockid_t clock, int flags, const timespec* wanted, timespec* left);
int __real_socket(int family, int type, int protocol);
int __real_recvmmsg(int fd, mmsghdr* messages, unsigned int count, int flags, timespec* timeout);
int __real_sendmmsg(int fd, mmsghdr* messages, unsigned int count, int flags);

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

int __wrap_pthread_create(
    pthread_t* thread, const pthread_attr_t* attributes, void* (*run)(void*), void* argument)
{
    return seams::refuses(seams::threadCreation, "pthread_create", EAGAIN)
        ? EAGAIN
        : __real_pthread_create(thread, attributes, run, argument);
}

int __wrap_accept4(int fd, sockaddr* address, socklen_t* length, int flags)
{
    return seams::refuses(seams::accepting, "accept4", EMFILE) ? -1
                                                               : __real_accept4(fd, address, length, flags);
}

int __wrap_clock_nanosleep(clockid_t clock, int flags, const timespec* wanted, timespec* left)
{
    if (!seams::bVirtualSleep)
        return __real_clock_nanosleep(clock, flags, wanted, left);
    seams::clockOffsetMs += wanted->tv_sec * 1000 + wanted->tv_nsec / 1000000;
    return 0;
}

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

int __wrap_recvmmsg(int fd, mmsghdr* messages, unsigned int count, int flags, timespec* timeout)
{
    return seams::receivingMany.fires() ? -1 : __real_recvmmsg(fd, messages, count, flags, timeout);
}

int __wrap_sendmmsg(int fd, mmsghdr* messages, unsigned int count, int flags)
{
    const bool bRun = count > 0 && messages->msg_hdr.msg_controllen > 0;
    return bRun && seams::sendingRuns.fires() ? -1 : __real_sendmmsg(fd, messages, count, flags);
}

ssize_t __wrap_send(int fd, const void* data, size_t size, int flags)
{
    return seams::sending.fires() ? -1 : __real_send(fd, data, size, flags);
}

ssize_t __wrap_sendto(int fd, const void* data, size_t size, int flags, const sockaddr* to, socklen_t length)
{
    return seams::sendingTo.fires() ? -1 : __real_sendto(fd, data, size, flags, to, length);
}

ssize_t __wrap_recv(int fd, void* data, size_t size, int flags)
{
    return seams::receiving.fires() ? -1 : __real_recv(fd, data, size, flags);
}

int __wrap_setsockopt(int fd, int level, int name, const void* value, socklen_t length)
{
    return seams::refuses(seams::settingOptions, "setsockopt", ENOBUFS)
        ? -1
        : __real_setsockopt(fd, level, name, value, length);
}

// Threads that Qt starts for the library.
bool __real__ZN6Nuvika7Threads5startER7QThread(QThread& thread);
bool __wrap__ZN6Nuvika7Threads5startER7QThread(QThread& thread)
{
    return !seams::refuses(seams::threadCreation, "QThread::start", EAGAIN)
        && __real__ZN6Nuvika7Threads5startER7QThread(thread);
}

void* __real_realloc(void* block, size_t size);
void* __wrap_realloc(void* block, size_t size)
{
    return seams::growing.fires() ? nullptr : __real_realloc(block, size);
}

int __real__ZN6Nuvika9decodeHexE11QStringViewPc(QStringView digits, char* out); // Nuvika::decodeHex()
int __wrap__ZN6Nuvika9decodeHexE11QStringViewPc(QStringView digits, char* out)
{
    seams::hexDigitsRead += digits.size();
    return __real__ZN6Nuvika9decodeHexE11QStringViewPc(digits, out);
}

#define NUVIKA_WRAP(function, error, parameters, arguments)                                                  \
    int __real_##function parameters;                                                                        \
    int __wrap_##function parameters                                                                         \
    {                                                                                                        \
        return seams::refuses(#function, error) ? -1 : __real_##function arguments;                          \
    }

int __real_epoll_create1(int flags);
int __wrap_epoll_create1(int flags)
{
    return seams::refuses(seams::portCreation, "epoll_create1", EMFILE) ? -1 : __real_epoll_create1(flags);
}
NUVIKA_WRAP(eventfd, EMFILE, (unsigned int count, int flags), (count, flags))
NUVIKA_WRAP(bind, ENOMEM, (int fd, const sockaddr* address, socklen_t length), (fd, address, length))
NUVIKA_WRAP(listen, EADDRINUSE, (int fd, int backlog), (fd, backlog))

int __real_epoll_ctl(int port, int operation, int fd, epoll_event* event);
int __wrap_epoll_ctl(int port, int operation, int fd, epoll_event* event)
{
    const bool bRefused
        = operation == EPOLL_CTL_ADD && seams::refuses(seams::registering, "epoll_ctl", ENOSPC);
    return bRefused ? -1 : __real_epoll_ctl(port, operation, fd, event);
}

#define NUVIKA_WRAP_OPENSSL(type, function, parameters, arguments)                                           \
    type __real_##function parameters;                                                                       \
    type __wrap_##function parameters                                                                        \
    {                                                                                                        \
        return seams::crypto(#function).fires() ? type{} : __real_##function arguments;                      \
    }
#define NUVIKA_WRAP_CRYPTO(function, parameters, arguments)                                                  \
    NUVIKA_WRAP_OPENSSL(int, function, parameters, arguments)

NUVIKA_WRAP_CRYPTO(EVP_DigestInit_ex, (EVP_MD_CTX * c, const EVP_MD* m, ENGINE* e), (c, m, e))
NUVIKA_WRAP_CRYPTO(EVP_DigestUpdate, (EVP_MD_CTX * c, const void* d, size_t n), (c, d, n))
NUVIKA_WRAP_CRYPTO(EVP_DigestFinal_ex, (EVP_MD_CTX * c, unsigned char* out, unsigned int* n), (c, out, n))
#define NUVIKA_CIPHER_INIT                                                                                   \
    (EVP_CIPHER_CTX * c, const EVP_CIPHER* a, ENGINE* e, const unsigned char* k, const unsigned char* iv)
#define NUVIKA_CIPHER_UPDATE                                                                                 \
    (EVP_CIPHER_CTX * c, unsigned char* out, int* n, const unsigned char* in, int size)
NUVIKA_WRAP_CRYPTO(EVP_EncryptInit_ex, NUVIKA_CIPHER_INIT, (c, a, e, k, iv))
NUVIKA_WRAP_CRYPTO(EVP_EncryptUpdate, NUVIKA_CIPHER_UPDATE, (c, out, n, in, size))
NUVIKA_WRAP_CRYPTO(EVP_EncryptFinal_ex, (EVP_CIPHER_CTX * c, unsigned char* out, int* n), (c, out, n))
NUVIKA_WRAP_CRYPTO(EVP_DecryptInit_ex, NUVIKA_CIPHER_INIT, (c, a, e, k, iv))
NUVIKA_WRAP_CRYPTO(EVP_DecryptUpdate, NUVIKA_CIPHER_UPDATE, (c, out, n, in, size))
NUVIKA_WRAP_CRYPTO(EVP_DecryptFinal_ex, (EVP_CIPHER_CTX * c, unsigned char* out, int* n), (c, out, n))

using SslContext = SSL_CTX*;
using SslPointer = SSL*;
using BioPointer = BIO*;
using BioMethod = BIO_METHOD*;
NUVIKA_WRAP_OPENSSL(SslContext, SSL_CTX_new, (const SSL_METHOD* m), (m))
NUVIKA_WRAP_OPENSSL(SslPointer, SSL_new, (SSL_CTX * c), (c))
NUVIKA_WRAP_OPENSSL(BioPointer, BIO_new, (const BIO_METHOD* m), (m))
NUVIKA_WRAP_OPENSSL(BioMethod, BIO_meth_new, (int type, const char* name), (type, name))
NUVIKA_WRAP_OPENSSL(long, SSL_ctrl, (SSL * s, int command, long n, void* p), (s, command, n, p))
NUVIKA_WRAP_CRYPTO(SSL_set_ex_data, (SSL * s, int index, void* data), (s, index, data))
NUVIKA_WRAP_CRYPTO(
    SSL_CTX_set_session_id_context, (SSL_CTX * c, const unsigned char* id, unsigned int n), (c, id, n))
NUVIKA_WRAP_CRYPTO(SSL_CTX_set_default_verify_paths, (SSL_CTX * c), (c))
NUVIKA_WRAP_CRYPTO(SSL_CTX_load_verify_file, (SSL_CTX * c, const char* file), (c, file))
NUVIKA_WRAP_CRYPTO(X509_VERIFY_PARAM_set1_host, (X509_VERIFY_PARAM * p, const char* n, size_t s), (p, n, s))
NUVIKA_WRAP_CRYPTO(X509_VERIFY_PARAM_set1_ip_asc, (X509_VERIFY_PARAM * p, const char* a), (p, a))
}

// Names given by hand: no function of C returns such a value.
Nuvika::Bytes realTryAllocate(std::size_t size) __asm__("__real__ZN6Nuvika11tryAllocateEm");
Nuvika::Bytes wrapTryAllocate(std::size_t size) __asm__("__wrap__ZN6Nuvika11tryAllocateEm");
Nuvika::Bytes wrapTryAllocate(std::size_t size)
{
    return seams::allocating.fires() ? Nuvika::Bytes() : realTryAllocate(size);
}
