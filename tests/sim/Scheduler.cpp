#include "sim/Scheduler.h"

#include "sim/Report.h"

#include <algorithm>
#include <string>

#include <semaphore.h>
#include <sys/mman.h>

namespace sim
{
bool Scheduler::s_bActive = false;
thread_local Scheduler::Thread* Scheduler::t_self = nullptr;

struct Scheduler::Thread {
    Thread() { sem_init(&gate, 0, 0); }
    ~Thread() { sem_destroy(&gate); }
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;
    bool canRun(Time now) const { return ready == nullptr || deadline <= now || (*ready)(); }

    int nNumber = 0;
    sem_t gate;
    const char* where = "its start";
    const std::function<bool()>* ready = nullptr; // null: nothing to wait for
    Time deadline = kNever;
    pthread_t handle{};
    void* (*run)(void*) = nullptr;
    void* argument = nullptr;
};

namespace
{
constexpr std::size_t kStack = 1U << 21;
constexpr std::intptr_t kEndRounds = 3; // of destructors of thread-local data, before the thread is gone
} // namespace

Scheduler& Scheduler::get()
{
    static Scheduler& instance = *std::make_unique<Scheduler>().release();
    return instance;
}

void Scheduler::start(std::uint64_t seed)
{
    m_random = Random(seed);
    // Not from 0: the milliseconds of 32 bits may wrap during the run.
    m_nNow = m_random.chance(0.2) ? (0x100000000U - m_random.below(60000)) * kMs
                                  : m_random.between(1000, 100000000) * kMs;
    pthread_key_create(&m_endKey, &Scheduler::threadEnds);
    m_threads.push_back(std::make_unique<Thread>());
    t_self = m_threads.back().get();
    s_bActive = true;
}

int Scheduler::threadNumber() const { return t_self == nullptr ? 0 : t_self->nNumber; }

void Scheduler::at(Time due, std::function<void()> event)
{
    m_events.emplace(std::make_pair(due, ++m_nEvents), std::move(event));
}

void Scheduler::runDueEvents()
{
    while (!m_events.empty() && m_events.begin()->first.first <= m_nNow) {
        const std::function<void()> event = std::move(m_events.begin()->second);
        m_events.erase(m_events.begin());
        event();
    }
}

Scheduler::Thread& Scheduler::choose()
{
    for (;;) {
        runDueEvents();
        std::vector<Thread*> able;
        Time next = m_events.empty() ? kNever : m_events.begin()->first.first;
        for (const auto& thread : m_threads) {
            if (thread->canRun(m_nNow))
                able.push_back(thread.get());
            next = std::min(next, thread->ready == nullptr ? m_nNow : thread->deadline);
        }
        if (!able.empty())
            return *m_random.pick(able);
        if (next == kNever)
            deadlock();
        m_nNow = std::max(m_nNow, next);
    }
}

void Scheduler::deadlock()
{
    std::string text = "deadlock: nobody can go on, and nothing is to come";
    for (const auto& thread : m_threads)
        text += "\n  thread " + std::to_string(thread->nNumber) + " waits in " + thread->where;
    fail("%s", text.c_str());
}

void Scheduler::handOver(Thread& next)
{
    Thread& self = *t_self;
    if (&next == &self)
        return;
    trace("thread %d goes on", next.nNumber);
    sem_post(&next.gate);
    while (sem_wait(&self.gate) != 0) { }
    joinEnded();
}

// One that has ended is gone wholly before anything else happens: its memory and its stack, too.
void Scheduler::joinEnded()
{
    if (const std::unique_ptr<Thread> ended = std::move(m_pEnded))
        real(&pthread_join, "pthread_join")(ended->handle, nullptr);
}

bool Scheduler::wait(const char* where, const std::function<bool()>& ready, Time deadline)
{
    Thread& self = *t_self;
    self.where = where;
    self.ready = &ready;
    self.deadline = deadline;
    handOver(choose());
    self.ready = nullptr;
    self.deadline = kNever;
    return ready();
}

void Scheduler::yield()
{
    if (m_threads.size() > 1)
        wait("a yield", [] { return true; });
}

int Scheduler::createThread(pthread_t* thread, void* (*run)(void*), void* argument)
{
    auto created = std::make_unique<Thread>();
    created->nNumber = ++m_nThreads;
    created->run = run;
    created->argument = argument;
    pthread_attr_t joinable;
    pthread_attr_init(&joinable);
    // A stack of its own, so that no other thread ever has this one's handle.
    void* stack = mmap(nullptr, kStack, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    pthread_attr_setstack(&joinable, stack, kStack);
    const int result = real(&pthread_create, "pthread_create")(
        &created->handle, &joinable, &Scheduler::threadMain, created.get());
    trace("pthread_create() = %d: thread %d", result, created->nNumber);
    if (result != 0)
        return result;
    *thread = created->handle;
    m_threads.push_back(std::move(created));
    return 0;
}

void* Scheduler::threadMain(void* thread)
{
    t_self = static_cast<Thread*>(thread);
    while (sem_wait(&t_self->gate) != 0) { }
    get().joinEnded();
    pthread_setspecific(get().m_endKey, reinterpret_cast<void*>(kEndRounds));
    t_self->where = "nothing";
    return t_self->run(t_self->argument);
}

// After everybody's thread-local data: the baton goes on, and the next thread waits until this one is gone.
void Scheduler::threadEnds(void* rounds)
{
    Scheduler& scheduler = get();
    const auto left = reinterpret_cast<std::intptr_t>(rounds) - 1;
    if (left > 0) {
        pthread_setspecific(scheduler.m_endKey, reinterpret_cast<void*>(left));
        return;
    }
    trace("thread ends");
    auto& threads = scheduler.m_threads;
    const auto self
        = std::find_if(threads.begin(), threads.end(), [](const auto& t) { return t.get() == t_self; });
    std::unique_ptr<Thread> ended = std::move(*self);
    threads.erase(self);
    Thread& next = scheduler.choose();
    scheduler.m_pEnded = std::move(ended);
    sem_post(&next.gate);
}

void Scheduler::joinThread(pthread_t thread)
{
    wait("pthread_join", [=] {
        return std::none_of(m_threads.begin(), m_threads.end(),
            [=](const auto& running) { return pthread_equal(running->handle, thread) != 0; });
    });
}
} // namespace sim
