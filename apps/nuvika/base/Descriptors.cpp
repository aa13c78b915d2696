#include "Descriptors.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

void Descriptors::holdStandardOnes()
{
    for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
        const int wrongWay = descriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY;
        if (::fcntl(descriptor, F_GETFD) < 0 && ::open("/dev/null", wrongWay) != descriptor)
            return; // the lowest free one is what open() gives
    }
}

void Descriptors::raiseLimit()
{
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == limit.rlim_max)
        return;
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
}
