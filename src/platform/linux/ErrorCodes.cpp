#include "platform/ErrorCodes_p.h"

#include <cerrno>
#include <cstring>

#include <netdb.h>

namespace
{
struct SystemError {
    int nErrno;
    int nCode;
};

// The first errno of a code gives its text.
constexpr SystemError kSystemErrors[] = {
    {EINTR, 10004},
    {ENOTSOCK, 10038},
    {EBADF, 10038},
    {EACCES, 10013},
    {EPERM, 10013},
    {EFAULT, 10014},
    {EINVAL, 10022},
    {EMFILE, 10024},
    {ENFILE, 10024},
    {EAGAIN, 10035},
    {EINPROGRESS, 10035},
    {EALREADY, 10037},
    {EDESTADDRREQ, 10039},
    {EMSGSIZE, 10040},
    {EPROTOTYPE, 10041},
    {ENOPROTOOPT, 10042},
    {EPROTONOSUPPORT, 10043},
    {ESOCKTNOSUPPORT, 10044},
    {EOPNOTSUPP, 10045},
    {EPFNOSUPPORT, 10046},
    {EAFNOSUPPORT, 10047},
    {EADDRINUSE, 10048},
    {EADDRNOTAVAIL, 10049},
    {ENETDOWN, 10050},
    {ENETUNREACH, 10051},
    {ENETRESET, 10052},
    {ECONNABORTED, 10053},
    {ECONNRESET, 10054},
    {EPIPE, 10054},
    {ENOBUFS, 10055},
    {ENOMEM, 10055},
    {ENOSPC, 10055},
    {EISCONN, 10056},
    {ENOTCONN, 10057},
    {ESHUTDOWN, 10058},
    {ETIMEDOUT, 10060},
    {ECONNREFUSED, 10061},
    {ELOOP, 10062},
    {ENAMETOOLONG, 10063},
    {EHOSTDOWN, 10064},
    {EHOSTUNREACH, 10065},
    {ECANCELED, 995},
    {ENODEV, 55},
};

struct ResolverError {
    int nResult;
    int nCode;
};

constexpr ResolverError kResolverErrors[] = {
    {EAI_NONAME, 11001},
    {EAI_AGAIN, 11002},
    {EAI_FAIL, 11003},
    {EAI_NODATA, 11004},
    {EAI_ADDRFAMILY, 11004},
};

struct CodeText {
    int nCode;
    const char* text;
};

// Codes without a matching number of the system.
constexpr CodeText kOwnTexts[] = {
    {0, "Success"},
    {5, "The TLS handshake took too long"},
    {997, "The operation is in progress"},
    {10107, "A system call failed"},
};

thread_local int t_nLastError = 0;
} // namespace

int Nuvika::ErrorCodes::fromErrno(int error)
{
    if (error == 0)
        return 0;
    for (const SystemError& entry : kSystemErrors) {
        if (entry.nErrno == error)
            return entry.nCode;
    }
    return kCallFailure;
}

int Nuvika::ErrorCodes::fromResolver(int result)
{
    if (result == 0)
        return 0;
    if (result == EAI_SYSTEM)
        return fromErrno(errno);
    for (const ResolverError& entry : kResolverErrors) {
        if (entry.nResult == result)
            return entry.nCode;
    }
    return kHostNotFound;
}

std::string Nuvika::ErrorCodes::text(int code)
{
    for (const CodeText& entry : kOwnTexts) {
        if (entry.nCode == code)
            return entry.text;
    }
    for (const SystemError& entry : kSystemErrors) {
        if (entry.nCode == code) {
            char buffer[256];
            return strerror_r(entry.nErrno, buffer, sizeof buffer);
        }
    }
    for (const ResolverError& entry : kResolverErrors) {
        if (entry.nCode == code)
            return gai_strerror(entry.nResult);
    }
    return {};
}

int Nuvika::ErrorCodes::lastError() { return t_nLastError; }

void Nuvika::ErrorCodes::setLastError(int code) { t_nLastError = code; }
