// Private: where an accept thread waits for connections, and where it is told to stop.
#pragma once

namespace Nuvika
{
class AcceptWait
{
public:
    enum class Event { Stop, Connection, Failed };

    AcceptWait();
    ~AcceptWait();
    AcceptWait(const AcceptWait&) = delete;
    AcceptWait& operator=(const AcceptWait&) = delete;

    bool isValid() const { return m_nStop >= 0; }
    // Any thread.
    void stop();
    // Sleeps until a connection waits on the listening descriptor or stop() was called, which goes first.
    // `Failed` leaves a code as last error.
    Event wait(int nListening);
    // Sleeps until stop() was called (true) or the time is over.
    bool waitForStop(int milliseconds);
    // Takes one connection; -1 with a code as last error.
    static int accept(int nListening);

private:
    int m_nStop;
};
} // namespace Nuvika
