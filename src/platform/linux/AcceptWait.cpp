#include "platform/AcceptWait_p.h"

#include "platform/ErrorCodes_p.h"

#include <array>
#include <cerrno>
#include <cstdint>

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace Nuvika;

AcceptWait::AcceptWait() : m_nStop(eventfd(0, EFD_CLOEXEC)) { }

AcceptWait::~AcceptWait()
{
    if (m_nStop >= 0)
        close(m_nStop);
}

void AcceptWait::stop()
{
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto written = write(m_nStop, &one, sizeof one);
}

AcceptWait::Event AcceptWait::wait(int nListening)
{
    std::array<pollfd, 2> set{{{m_nStop, POLLIN, 0}, {nListening, POLLIN, 0}}};
    while (poll(set.data(), set.size(), -1) == -1) {
        if (errno != EINTR) {
            ErrorCodes::setLastError(ErrorCodes::fromErrno(errno));
            return Event::Failed;
        }
    }
    return set[0].revents != 0 ? Event::Stop : Event::Connection;
}

bool AcceptWait::waitForStop(int milliseconds)
{
    pollfd stop{m_nStop, POLLIN, 0};
    return poll(&stop, 1, milliseconds) == 1;
}

int AcceptWait::accept(int nListening)
{
    int s = accept4(nListening, nullptr, nullptr, SOCK_CLOEXEC);
    while (s == -1 && errno == EINTR)
        s = accept4(nListening, nullptr, nullptr, SOCK_CLOEXEC);
    if (s == -1)
        ErrorCodes::setLastError(ErrorCodes::fromErrno(errno));
    return s;
}
