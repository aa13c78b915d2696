// Ctrl-C and SIGTERM as a call in the event loop.
#pragma once

#include <QtCore/QSocketNotifier>

#include <functional>
#include <memory>

class Interrupt
{
public:
    explicit Interrupt(std::function<void()> handler);
    ~Interrupt();
    Interrupt(const Interrupt&) = delete;
    Interrupt& operator=(const Interrupt&) = delete;

private:
    std::unique_ptr<QSocketNotifier> m_notifier;
};
