#include "Interrupt.h"

#include <csignal>

#include <fcntl.h>
#include <unistd.h>

namespace
{
int s_pipe[2] = {-1, -1};

void onSignal(int)
{
    const char byte = 0;
    [[maybe_unused]] const auto written = ::write(s_pipe[1], &byte, 1);
}
} // namespace

Interrupt::Interrupt(std::function<void()> handler)
{
    if (::pipe2(s_pipe, O_CLOEXEC | O_NONBLOCK) != 0)
        return;
    m_notifier = std::make_unique<QSocketNotifier>(s_pipe[0], QSocketNotifier::Read);
    QObject::connect(
        m_notifier.get(), &QSocketNotifier::activated, m_notifier.get(), [handler = std::move(handler)] {
            char byte = 0;
            while (::read(s_pipe[0], &byte, 1) == 1) { }
            handler();
        });
    std::signal(SIGINT, &onSignal);
    std::signal(SIGTERM, &onSignal);
}

Interrupt::~Interrupt()
{
    std::signal(SIGINT, SIG_DFL);
    std::signal(SIGTERM, SIG_DFL);
    m_notifier.reset();
    ::close(s_pipe[0]);
    ::close(s_pipe[1]);
}
