#include "sim/World.h"

#include <KepNuvikaUtil/KepNuvikaUtil.h>

#include <QtCore/QAbstractEventDispatcher>
#include <QtCore/QCoreApplication>

#include <openssl/rand.h>

#include <cstdlib>
#include <memory>
#include <thread>

#include <malloc.h>
#include <unistd.h>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

namespace sim
{
namespace
{
constexpr Time kLookups = 100'000 * kMs;

void logToTrace(QtMsgType, const QMessageLogContext&, const QString& text)
{
    trace("log: %s", qUtf8Printable(text));
}

int randomBytes(unsigned char* out, int size)
{
    for (int i = 0; i < size; ++i)
        out[i] = static_cast<unsigned char>(Kernel::get().random().next());
    return 1;
}
int isSeeded() { return 1; }

QT_WARNING_PUSH
QT_WARNING_DISABLE_DEPRECATED
void fixRandomness(std::uint64_t seed)
{
    static const RAND_METHOD method{nullptr, &randomBytes, nullptr, nullptr, &randomBytes, &isSeeded};
    RAND_set_rand_method(&method);
    std::srand(static_cast<unsigned int>(seed));
}
QT_WARNING_POP

// With an application object and the library, as a program has them.
void runScenario(const Scenario& scenario, std::uint64_t seed)
{
    int argc = 1;
    char name[] = "sim";
    char* argv[] = {name, nullptr};
    const QCoreApplication application(argc, argv);
    KepNuvikaUtilInit(); // in fine weather
    {
        World world(seed);
        scenario.run(world);
        world.weather() = Weather();
        world.run(1000); // what was left to be done later
    }
    KepNuvikaUtilCleanup();
    QAbstractEventDispatcher::instance()->wakeUp();
    QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    if (!Kernel::get().bPolledEndlessly)
        fail("timers are left");
}
} // namespace

void runHere(const Scenario& scenario, std::uint64_t seed, Report& report)
{
    mallopt(M_ARENA_MAX, 1); // addresses are the same in each run, too
    report.nHash = 0xcbf29ce484222325U;
    Report::current = &report;
    qInstallMessageHandler(&logToTrace);
    std::uint64_t mixed = seed;
    for (const char* letter = scenario.name; *letter != '\0'; ++letter)
        mixed = (mixed ^ static_cast<unsigned char>(*letter)) * 0x100000001b3U;
    Scheduler& scheduler = Scheduler::get();
    scheduler.start(mixed);
    const Time begin = scheduler.now();
    fixRandomness(mixed);
    std::thread([&] { runScenario(scenario, mixed); }).join();
    // A lookup that hangs outlives the library's clean-up.
    scheduler.wait(
        "the last threads", [&] { return scheduler.threads() == 1; }, scheduler.now() + kLookups);
    report.nTime = scheduler.now() - begin;
    if (Kernel::get().openDescriptors() != 0)
        fail("descriptors are left open: %s", Kernel::get().describeOpen().c_str());
    if (scheduler.threads() != 1)
        fail("%zu threads are left", scheduler.threads() - 1);
    if (Report::text != nullptr)
        std::fflush(Report::text);
#if defined(__SANITIZE_ADDRESS__)
    __lsan_do_leak_check();
#endif
    _exit(0);
}
} // namespace sim
