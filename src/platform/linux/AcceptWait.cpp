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

AcceptWait::AcceptWait() : m_nWake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    if (m_nWake < 0)
        ErrorCodes::setLastError(ErrorCodes::fromErrno(errno));
}

AcceptWait::~AcceptWait()
{
    if (m_nWake >= 0)
        close(m_nWake);
}

void AcceptWait::stop()
{
    m_bStop = true;
    wake();
}

void AcceptWait::wake()
{
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto written = write(m_nWake, &one, sizeof one);
}

AcceptWait::Event AcceptWait::wait(int nListening) { return poll(nListening, -1); }

AcceptWait::Event AcceptWait::pause(int milliseconds) { return poll(-1, milliseconds); }

AcceptWait::Event AcceptWait::poll(int nListening, int milliseconds)
{
    std::array<pollfd, 2> set{{{m_nWake, POLLIN, 0}, {nListening, POLLIN, 0}}}; // a negative one is ignored
    while (::poll(set.data(), set.size(), milliseconds) == -1) {
        if (errno != EINTR) {
            ErrorCodes::setLastError(ErrorCodes::fromErrno(errno));
            return Event::Failed;
        }
    }
    if (set[0].revents == 0)
        return set[1].revents != 0 ? Event::Connection : Event::Woken;
    std::uint64_t wakes = 0;
    [[maybe_unused]] const auto got = read(m_nWake, &wakes, sizeof wakes);
    return m_bStop ? Event::Stop : Event::Woken;
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
