// Runs scenarios with seeds, each run in a process of its own, and tells what failed and how to repeat it.
#include "sim/Run.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>

#include <sys/mman.h>
#include <sys/personality.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace sim;

namespace
{
constexpr int kLastLines = 40;
constexpr int kMostFailures = 10;

struct Options {
    std::uint64_t nFirst = 1;
    std::uint64_t nLast = 100;
    std::string scenario; // empty: each
    int nJobs = 2;
    bool bTrace = false;
    bool bHere = false; // in this process, for a debugger
    bool bTwice = false; // each run twice, and the traces compared
    bool bLong = false; // the long ones, and no other
};

struct Job {
    const Scenario* pScenario;
    std::uint64_t nSeed;
    std::uint64_t nHash = 0; // of the run before, when this is the second
    std::uint64_t nLines = 0;
};

int usage()
{
    std::fprintf(
        stderr, "sim [--seeds A-B] [--scenario NAME] [--jobs N] [--twice] [--long] [--trace] [--here]\n");
    for (const Scenario& scenario : Scenario::all())
        std::fprintf(stderr, "  %s\n", scenario.name);
    return 2;
}

bool parse(int argc, char** argv, Options* options)
{
    for (int i = 1; i < argc; ++i) {
        const std::string name = argv[i];
        const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
        if (name == "--long") {
            options->bLong = true;
            continue;
        }
        if (name == "--trace" || name == "--here" || name == "--twice") {
            (name == "--trace"         ? options->bTrace
                    : name == "--here" ? options->bHere
                                       : options->bTwice)
                = true;
            continue;
        }
        if (value == nullptr)
            return false;
        ++i;
        if (name == "--seeds") {
            char* end = nullptr;
            options->nFirst = options->nLast = std::strtoull(value, &end, 10);
            if (*end == '-')
                options->nLast = std::strtoull(end + 1, nullptr, 10);
        } else if (name == "--scenario") {
            options->scenario = value;
        } else if (name == "--jobs") {
            options->nJobs = std::max(1, std::atoi(value));
        } else {
            return false;
        }
    }
    return true;
}

// The same addresses, hashes and locale in each process.
void fixEnvironment(char** argv)
{
    if (std::getenv("QT_HASH_SEED") != nullptr)
        return;
    personality(ADDR_NO_RANDOMIZE); // where it is not allowed, only what hangs on addresses differs
    std::string asan = "ASAN_OPTIONS=";
    if (const char* value = std::getenv("ASAN_OPTIONS"))
        asan += value;
    char* environment[] = {const_cast<char*>("QT_HASH_SEED=0"), const_cast<char*>("QT_NO_CPU_FEATURE=rdrnd"),
        const_cast<char*>("QT_NO_GLIB=1"), const_cast<char*>("LC_ALL=C"), const_cast<char*>("TZ=UTC"),
        const_cast<char*>("GLIBC_TUNABLES=glibc.malloc.tcache_count=0"), asan.data(), nullptr};
    execve("/proc/self/exe", argv, environment);
}

void printLastLines(const Report& report)
{
    std::string text;
    const std::uint64_t size = std::min<std::uint64_t>(report.nWritten, Report::kRing);
    for (std::uint64_t i = report.nWritten - size; i < report.nWritten; ++i)
        text += report.ring[i % Report::kRing];
    std::size_t begin = text.size();
    for (int i = 0; i <= kLastLines && begin != std::string::npos && begin > 0; ++i)
        begin = text.rfind('\n', begin - 1);
    std::printf("%s", text.c_str() + (begin == std::string::npos ? 0 : begin + 1));
}

class Runner
{
public:
    explicit Runner(const Options& options) : m_options(options) { }

    void add(const Job& job) { m_jobs.push_back(job); }
    int run();

private:
    struct Running {
        Job job;
        Report* pReport;
    };
    void startNext();
    void waitForOne();
    void ended(const Running& running, int status);
    void tellFailure(const Running& running, int status);

    const Options& m_options;
    std::deque<Job> m_jobs;
    std::map<pid_t, Running> m_running;
    int m_nRuns = 0;
    int m_nFailures = 0;
    std::uint64_t m_nLines = 0;
    std::uint64_t m_nTime = 0;
};

void Runner::startNext()
{
    const Job job = m_jobs.front();
    m_jobs.pop_front();
    void* memory = mmap(nullptr, sizeof(Report), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        std::abort();
    auto* report = static_cast<Report*>(memory);
    std::fflush(stdout);
    const pid_t child = m_options.bHere ? 0 : fork();
    if (child == 0) {
        Report::text = m_options.bTrace ? stdout : nullptr;
        runHere(*job.pScenario, job.nSeed, *report);
    }
    m_running.emplace(child, Running{job, report});
}

void Runner::waitForOne()
{
    int status = 0;
    const pid_t child = waitpid(-1, &status, 0);
    const auto found = m_running.find(child);
    if (found == m_running.end())
        return;
    const Running running = found->second;
    m_running.erase(found);
    ended(running, status);
    munmap(running.pReport, sizeof(Report));
}

void Runner::ended(const Running& running, int status)
{
    const Report& report = *running.pReport;
    ++m_nRuns;
    m_nLines += report.nLines;
    m_nTime += report.nTime;
    if (status != 0) {
        tellFailure(running, status);
    } else if (running.job.nHash != 0 && running.job.nHash != report.nHash) {
        ++m_nFailures;
        std::printf("%s %llu: a second run has another trace (%llu lines, %llu before)\n",
            running.job.pScenario->name, static_cast<unsigned long long>(running.job.nSeed),
            static_cast<unsigned long long>(report.nLines),
            static_cast<unsigned long long>(running.job.nLines));
    } else if (running.job.nHash == 0 && m_options.bTwice) {
        m_jobs.push_front({running.job.pScenario, running.job.nSeed, report.nHash, report.nLines});
    }
}

void Runner::tellFailure(const Running& running, int status)
{
    const Report& report = *running.pReport;
    if (++m_nFailures > kMostFailures)
        return;
    std::printf("--- %s, seed %llu ---\n", running.job.pScenario->name,
        static_cast<unsigned long long>(running.job.nSeed));
    printLastLines(report);
    if (WIFSIGNALED(status))
        std::printf("ended by signal %d: %s\n", WTERMSIG(status), strsignal(WTERMSIG(status)));
    else
        std::printf("%s\n", report.failure[0] != '\0' ? report.failure : "ended without a word");
    std::printf("again: tests/sim/run --scenario %s --seeds %llu --trace\n", running.job.pScenario->name,
        static_cast<unsigned long long>(running.job.nSeed));
}

int Runner::run()
{
    const auto begin = std::chrono::steady_clock::now();
    while (!m_jobs.empty() || !m_running.empty()) {
        while (!m_jobs.empty() && m_running.size() < static_cast<std::size_t>(m_options.nJobs))
            startNext();
        waitForOne();
    }
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    std::printf("%d runs, %d failed; %.1f s for %.1f simulated hours, %.0f runs a second, %.1f million lines "
                "of trace\n",
        m_nRuns, m_nFailures, seconds, static_cast<double>(m_nTime) / 3.6e12,
        m_nRuns / std::max(seconds, 1e-9), static_cast<double>(m_nLines) / 1e6);
    return m_nFailures == 0 ? 0 : 1;
}

const Scenario* scenarioOf(const std::string& name)
{
    for (const Scenario& scenario : Scenario::all()) {
        if (name == scenario.name)
            return &scenario;
    }
    return nullptr;
}

// Those that have found something, one a line: scenario, seed, # and what.
void addKnownSeeds(Runner& runner, const Options& options)
{
    std::ifstream file(NUVIKA_SIM_SEEDS);
    for (std::string line; std::getline(file, line);) {
        std::istringstream words(line);
        std::string name;
        std::uint64_t seed = 0;
        if (!(words >> name >> seed) || (!options.scenario.empty() && options.scenario != name))
            continue;
        if (const Scenario* scenario = scenarioOf(name))
            runner.add({scenario, seed});
    }
}
} // namespace

int main(int argc, char** argv)
{
    Options options;
    options.nJobs = static_cast<int>(sysconf(_SC_NPROCESSORS_ONLN));
    if (!parse(argc, argv, &options)
        || (!options.scenario.empty() && scenarioOf(options.scenario) == nullptr))
        return usage();
    fixEnvironment(argv);
    setlinebuf(stdout);
    Runner runner(options);
    if (!options.bTrace && !options.bHere)
        addKnownSeeds(runner, options);
    for (std::uint64_t seed = options.nFirst; seed <= options.nLast; ++seed) {
        for (const Scenario& scenario : Scenario::all()) {
            if (options.scenario.empty() ? scenario.bLong == options.bLong
                                         : options.scenario == scenario.name)
                runner.add({&scenario, seed});
        }
    }
    return runner.run();
}
