// Private: a scope lock for QMutex that ThreadSanitizer can see. Qt's own binaries are not instrumented, so
// without these marks every access that a QMutex orders would look like a race.
#pragma once

#include <QtCore/QMutex>

#if defined(__SANITIZE_THREAD__)
#define NUVIKA_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define NUVIKA_TSAN 1
#endif
#endif

#if defined(NUVIKA_TSAN)
#include <sanitizer/tsan_interface.h>
#endif

namespace Nuvika
{
class MutexGuard
{
public:
    // Not recursive; taken as its base, whose uncontended lock is inline.
    explicit MutexGuard(QBasicMutex& mutex) : m_mutex(mutex)
    {
        m_mutex.lock();
#if defined(NUVIKA_TSAN)
        __tsan_acquire(&m_mutex);
#endif
    }
    ~MutexGuard()
    {
#if defined(NUVIKA_TSAN)
        __tsan_release(&m_mutex);
#endif
        m_mutex.unlock();
    }
    MutexGuard(const MutexGuard&) = delete;
    MutexGuard& operator=(const MutexGuard&) = delete;

private:
    QBasicMutex& m_mutex;
};
} // namespace Nuvika
