#include "support/Seams.h"

#include <QtCore/QStringView>

#include <openssl/evp.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <netdb.h>
#include <pthread.h>
#include <sys/socket.h>

namespace seams
{
std::atomic<long long> clockOffsetMs{0};
std::atomic<bool> bVirtualSleep{false};
Fault threadCreation;
Fault accepting;
Fault sending;
Fault receiving;
Fault settingOptions;
Fault opening;
Fault receivingMany;
Fault growing;
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
ssize_t __real_recv(int fd, void* data, size_t size, int flags);
int __real_setsockopt(int fd, int level, int name, const void* value, socklen_t length);

int __real_clock_nanosleep(clockid_t clock, int flags, const timespec* wanted, timespec* left);
int __real_socket(int family, int type, int protocol);
int __real_recvmmsg(int fd, mmsghdr* messages, unsigned int count, int flags, timespec* timeout);

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
    return seams::threadCreation.fires() ? EAGAIN : __real_pthread_create(thread, attributes, run, argument);
}

int __wrap_accept4(int fd, sockaddr* address, socklen_t* length, int flags)
{
    return seams::accepting.fires() ? -1 : __real_accept4(fd, address, length, flags);
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
    return seams::opening.fires() ? -1 : __real_socket(family, type, protocol);
}

int __wrap_recvmmsg(int fd, mmsghdr* messages, unsigned int count, int flags, timespec* timeout)
{
    return seams::receivingMany.fires() ? -1 : __real_recvmmsg(fd, messages, count, flags, timeout);
}

ssize_t __wrap_send(int fd, const void* data, size_t size, int flags)
{
    return seams::sending.fires() ? -1 : __real_send(fd, data, size, flags);
}

ssize_t __wrap_recv(int fd, void* data, size_t size, int flags)
{
    return seams::receiving.fires() ? -1 : __real_recv(fd, data, size, flags);
}

int __wrap_setsockopt(int fd, int level, int name, const void* value, socklen_t length)
{
    return seams::settingOptions.fires() ? -1 : __real_setsockopt(fd, level, name, value, length);
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

#define NUVIKA_WRAP_CRYPTO(function, parameters, arguments)                                                  \
    int __real_##function parameters;                                                                        \
    int __wrap_##function parameters                                                                         \
    {                                                                                                        \
        return seams::crypto(#function).fires() ? 0 : __real_##function arguments;                           \
    }

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
}
