// Private: lets code look, after it has called out, whether its object is still there and in the same
// session. For one thread: nothing here is atomic, because it is done for each packet and piece.
#pragma once

namespace Nuvika
{
class Watched
{
    // Outlives the object while somebody watches.
    struct State {
        int nUsers = 1;
        int nSession = 0;
        bool bGone = false;
    };

public:
    class Watch
    {
    public:
        Watch(const Watch& other) : Watch(other.m_pState) { m_nSession = other.m_nSession; }
        Watch& operator=(const Watch& other) = delete;
        ~Watch() { release(m_pState); }

        // False when the object is gone or has begun another session: touch nothing of it then.
        bool holds() const { return lives() && m_pState->nSession == m_nSession; }
        // The object is there, in whatever session.
        bool lives() const { return !m_pState->bGone; }

    private:
        friend class Watched;
        explicit Watch(State* state) : m_pState(state), m_nSession(state->nSession) { ++state->nUsers; }

        State* m_pState;
        int m_nSession;
    };

    Watched() : m_pState(new State) { }
    ~Watched()
    {
        m_pState->bGone = true;
        release(m_pState);
    }
    Watched(const Watched&) = delete;
    Watched& operator=(const Watched&) = delete;

    Watch watch() const { return Watch(m_pState); }
    void endSession() { ++m_pState->nSession; }

private:
    static void release(State* state)
    {
        if (--state->nUsers == 0)
            delete state;
    }

    State* m_pState;
};
} // namespace Nuvika
