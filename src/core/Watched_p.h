// Private: lets code look, after it has called out, whether its object is still there and in the same
// session.
#pragma once

#include <memory>

namespace Nuvika
{
class Watched
{
public:
    class Watch
    {
    public:
        // False when the object is gone or has begun another session: touch nothing of it then.
        bool holds() const
        {
            const std::shared_ptr<const int> session = m_pSession.lock();
            return session && *session == m_nSession;
        }
        // The object is there, in whatever session.
        bool lives() const { return !m_pSession.expired(); }

    private:
        friend class Watched;
        explicit Watch(const std::shared_ptr<int>& session) : m_pSession(session), m_nSession(*session) { }
        std::weak_ptr<const int> m_pSession;
        int m_nSession;
    };

    Watch watch() const { return Watch(m_pSession); }
    void endSession() { ++*m_pSession; }

private:
    std::shared_ptr<int> m_pSession = std::make_shared<int>(0);
};
} // namespace Nuvika
