// Private: the one way in which threads of the library start. The system may refuse a thread: whoever asks
// for one looks at the answer, and waits only for a thread that has started.
#pragma once

#include <cstddef>

#include <pthread.h>

class QThread;

namespace Nuvika::Threads
{
// A thread that takes no signals (they are the host's affair); to be joined by its owner.
bool start(pthread_t* thread, std::size_t stackSize, void* (*run)(void*), void* argument);
// With the starter's priority. QThread::start() itself only warns when it fails.
bool start(QThread& thread);
} // namespace Nuvika::Threads
