#include "platform/Thread_p.h"

#include <QtCore/QThread>

#include <csignal>

bool Nuvika::Threads::start(pthread_t* thread, std::size_t stackSize, void* (*run)(void*), void* argument)
{
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_attr_t attributes;
    if (pthread_attr_init(&attributes) != 0)
        return false;
    pthread_attr_setstacksize(&attributes, stackSize);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    const bool bStarted = pthread_create(thread, &attributes, run, argument) == 0;
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    pthread_attr_destroy(&attributes);
    return bStarted;
}

bool Nuvika::Threads::start(QThread& thread)
{
    thread.QThread::start(QThread::InheritPriority);
    // One that failed to start is neither; in this order, because a running thread may just finish.
    return thread.isRunning() || thread.isFinished();
}
