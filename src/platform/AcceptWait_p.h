// Private: where an accept thread waits for connections, and where it is told to stop.
#pragma once

#include <atomic>

namespace Nuvika
{
class AcceptWait
{
public:
    enum class Event { Stop, Woken, Connection, Failed };

    AcceptWait();
    ~AcceptWait();
    AcceptWait(const AcceptWait&) = delete;
    AcceptWait& operator=(const AcceptWait&) = delete;

    bool isValid() const { return m_nWake >= 0; }
    // Any thread. stop() holds for every later wait, wake() ends one.
    void stop();
    void wake();
    // Sleeps until a connection waits on the listening descriptor or another thread says so, which goes
    // first. `Failed` leaves a code as last error.
    Event wait(int nListening);
    // The same without a descriptor, and for a time; `Woken` when it is over. Below 0: no end.
    Event pause(int milliseconds);
    // Takes one connection; -1 with a code as last error.
    static int accept(int nListening);

private:
    Event poll(int nListening, int milliseconds);

    const int m_nWake;
    std::atomic<bool> m_bStop{false};
};
} // namespace Nuvika
