// Runs scenarios with seeds, each run in a process of its own, and tells what failed and how to repeat it.
#include "sim/World.h"

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <memory>

#include <fcntl.h>
#include <getopt.h>
#include <sys/mman.h>
#include <sys/personality.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace sim;

namespace
{
constexpr int kMostFailures = 10;
constexpr unsigned int kPatience = 120; // seconds of real time: then a run hangs
constexpr int kTraceDescriptors = 500;

struct Options {
    std::uint64_t nFirst = 1;
    std::uint64_t nLast = 100;
    std::string scenario; // empty: each
    std::size_t nJobs = static_cast<std::size_t>(sysconf(_SC_NPROCESSORS_ONLN));
    int bTrace = 0;
    int bHere = 0; // in this process, for a debugger
    int bTwice = 0; // each run twice, and the traces compared
    int bLong = 0; // the long ones, and no other

    bool has(const Scenario& it) const
    {
        return scenario.empty() ? it.bLong == (bLong != 0) : it.name == scenario;
    }
};

[[noreturn]] void tellUsage()
{
    std::fprintf(
        stderr, "sim [--seeds A-B] [--scenario NAME] [--jobs N] [--twice] [--long] [--trace] [--here]\n");
    for (const Scenario& scenario : Scenario::all())
        std::fprintf(stderr, "  %s\n", scenario.name);
    std::exit(2);
}

Options parse(int argc, char** argv)
{
    Options options;
    const option known[] = {{"seeds", required_argument, nullptr, 's'},
        {"scenario", required_argument, nullptr, 'n'}, {"jobs", required_argument, nullptr, 'j'},
        {"trace", no_argument, &options.bTrace, 1}, {"here", no_argument, &options.bHere, 1},
        {"twice", no_argument, &options.bTwice, 1}, {"long", no_argument, &options.bLong, 1}, {}};
    for (int name = 0; (name = getopt_long(argc, argv, "", known, nullptr)) != -1;) {
        if (name == 's' && std::sscanf(optarg, "%" SCNu64 "-%" SCNu64, &options.nFirst, &options.nLast) == 1)
            options.nLast = options.nFirst;
        else if (name == 'n')
            options.scenario = optarg;
        else if (name == 'j')
            options.nJobs = std::max(1UL, std::strtoul(optarg, nullptr, 10));
        else if (name == '?')
            tellUsage();
    }
    const auto& all = Scenario::all();
    if (optind < argc
        || std::none_of(all.begin(), all.end(), [&](const auto& it) { return options.has(it); }))
        tellUsage();
    return options;
}

// The same addresses, hashes and locale in each process.
void fixEnvironment(char** argv)
{
    if (std::getenv("QT_HASH_SEED") != nullptr)
        return;
    personality(ADDR_NO_RANDOMIZE); // where it is not allowed, only what hangs on addresses differs
    const char* asan = std::getenv("ASAN_OPTIONS");
    std::string variables[]
        = {"QT_HASH_SEED=0", "QT_NO_CPU_FEATURE=rdrnd", "QT_NO_GLIB=1", "LC_ALL=C", "TZ=UTC",
            "GLIBC_TUNABLES=glibc.malloc.tcache_count=0", std::string("ASAN_OPTIONS=") + (asan ? asan : "")};
    std::vector<char*> environment;
    for (std::string& variable : variables)
        environment.push_back(variable.data());
    environment.push_back(nullptr);
    execve("/proc/self/exe", argv, environment.data());
}

struct CloseFile {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, CloseFile>;

// Its descriptor is none that a run would get.
File makeTraceFile()
{
    const File low(std::tmpfile());
    return File(low ? fdopen(fcntl(fileno(low.get()), F_DUPFD, kTraceDescriptors), "w+") : nullptr);
}

// As it stands in a file, line by line.
struct Trace {
    explicit Trace(std::FILE* text) : file(text)
    {
        std::rewind(file);
        readLine();
    }
    void readLine()
    {
        char bytes[sizeof Report::lines[0] + 1];
        line = std::fgets(bytes, sizeof bytes, file) != nullptr ? bytes : ""; // empty: behind the last
        ++nLine;
    }

    std::FILE* file;
    std::string line;
    std::uint64_t nLine = 0;
};

class Runner
{
public:
    explicit Runner(const Options& options) : m_options(options) { }

    void add(const Scenario& scenario, std::uint64_t seed);
    void addKnownSeeds();
    int run();

private:
    struct Job {
        const Scenario* pScenario;
        std::uint64_t nSeed;
        Report* pReport = nullptr;
        File trace = nullptr; // of those that run twice
    };
    void start(Job job);
    void waitForOne();
    void compare(Job job);
    void tellFailure(const Job& job, const std::string& what);
    void tellDifference(const Job& first, const Job& second);

    const Options& m_options;
    std::deque<Job> m_jobs;
    std::map<pid_t, Job> m_running;
    std::map<std::pair<const Scenario*, std::uint64_t>, Job> m_first; // of those that run twice
    int m_nRuns = 0;
    int m_nFailures = 0;
    std::uint64_t m_nLines = 0;
    std::uint64_t m_nTime = 0;
};

void Runner::add(const Scenario& scenario, std::uint64_t seed)
{
    for (int i = 0; i <= m_options.bTwice; ++i)
        m_jobs.push_back({&scenario, seed});
}

// Those that have found something, one a line: scenario, seed, # and what.
void Runner::addKnownSeeds()
{
    std::ifstream file(NUVIKA_SIM_SEEDS);
    std::string name;
    std::uint64_t seed = 0;
    for (std::string line; file >> name; std::getline(file, line)) {
        for (const Scenario& scenario : Scenario::all()) {
            if (name == scenario.name && m_options.has(scenario) && file >> seed)
                add(scenario, seed);
        }
    }
}

void Runner::start(Job job)
{
    void* memory = mmap(nullptr, sizeof(Report), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        std::abort();
    job.pReport = static_cast<Report*>(memory);
    if (m_options.bTwice != 0)
        job.trace = makeTraceFile();
    if (m_options.bTwice != 0 && !job.trace)
        std::abort();
    std::fflush(stdout);
    const pid_t child = m_options.bHere != 0 ? 0 : fork();
    if (child == 0) {
        Report::text = m_options.bTrace != 0 ? stdout : job.trace.get();
        if (m_options.bHere == 0)
            alarm(job.pScenario->bLong ? 30 * kPatience : kPatience);
        else
            Report::onFailure = [&] { tellFailure(job, job.pReport->failure); };
        runHere(*job.pScenario, job.nSeed, *job.pReport);
    }
    m_running.emplace(child, std::move(job));
}

void Runner::waitForOne()
{
    int status = 0;
    auto ended = m_running.extract(waitpid(-1, &status, 0));
    if (ended.empty())
        return;
    Job& job = ended.mapped();
    const Report& report = *job.pReport;
    ++m_nRuns;
    m_nLines += report.nLines;
    m_nTime += report.nTime;
    if (WIFSIGNALED(status))
        tellFailure(job, std::string("ended by a signal: ") + strsignal(WTERMSIG(status)));
    else if (status != 0)
        tellFailure(job, report.failure[0] != '\0' ? report.failure : "ended without a word");
    else if (m_options.bTwice != 0)
        return compare(std::move(job));
    munmap(job.pReport, sizeof(Report));
}

// The first of two is kept until the second is there.
void Runner::compare(Job job)
{
    auto first = m_first.extract({job.pScenario, job.nSeed});
    if (first.empty()) {
        m_first.emplace(std::pair(job.pScenario, job.nSeed), std::move(job));
        return;
    }
    if (first.mapped().pReport->nHash != job.pReport->nHash)
        tellDifference(first.mapped(), job);
    munmap(first.mapped().pReport, sizeof(Report));
    munmap(job.pReport, sizeof(Report));
}

void Runner::tellFailure(const Job& job, const std::string& what)
{
    if (++m_nFailures > kMostFailures)
        return;
    const Report& report = *job.pReport;
    std::printf("--- %s, seed %" PRIu64 " ---\n", job.pScenario->name, job.nSeed);
    for (std::uint64_t i = report.nLines - std::min(report.nLines, Report::kLast); i < report.nLines; ++i)
        std::printf("%s\n", report.lines[i % Report::kLast]);
    std::printf("%s\nagain: tests/sim/run --scenario %s --seeds %" PRIu64 " --trace\n", what.c_str(),
        job.pScenario->name, job.nSeed);
}

// Both traces from the first line that differs.
void Runner::tellDifference(const Job& first, const Job& second)
{
    if (++m_nFailures > kMostFailures)
        return;
    Trace traces[] = {Trace(first.trace.get()), Trace(second.trace.get())};
    while (traces[0].line == traces[1].line && !traces[0].line.empty()) {
        for (Trace& trace : traces)
            trace.readLine();
    }
    std::printf("--- %s, seed %" PRIu64 " ---\n", first.pScenario->name, first.nSeed);
    for (Trace& trace : traces) {
        std::printf(
            "the %s run, from line %" PRIu64 ":\n", &trace == traces ? "first" : "second", trace.nLine);
        for (std::size_t left = Report::kLast; left > 0 && !trace.line.empty(); --left, trace.readLine())
            std::fputs(trace.line.c_str(), stdout);
    }
    std::printf("a second run has another trace\nagain: tests/sim/run --scenario %s --seeds %" PRIu64
                " --twice\n",
        second.pScenario->name, second.nSeed);
}

int Runner::run()
{
    const auto begin = std::chrono::steady_clock::now();
    while (!m_jobs.empty() || !m_running.empty()) {
        while (!m_jobs.empty() && m_running.size() < m_options.nJobs) {
            start(std::move(m_jobs.front()));
            m_jobs.pop_front();
        }
        waitForOne();
    }
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    std::printf("%d runs, %d failed; %.1f s for %.1f simulated hours, %.0f runs a second, %.1f million lines "
                "of trace\n",
        m_nRuns, m_nFailures, seconds, static_cast<double>(m_nTime) / 3.6e12,
        m_nRuns / std::max(seconds, 1e-9), static_cast<double>(m_nLines) / 1e6);
    return m_nFailures == 0 ? 0 : 1;
}
} // namespace

int main(int argc, char** argv)
{
    const Options options = parse(argc, argv);
    fixEnvironment(argv);
    setlinebuf(stdout);
    Runner runner(options);
    if (options.bTrace == 0 && options.bHere == 0)
        runner.addKnownSeeds();
    for (std::uint64_t seed = options.nFirst; seed <= options.nLast; ++seed) {
        for (const Scenario& scenario : Scenario::all()) {
            if (options.has(scenario))
                runner.add(scenario, seed);
        }
    }
    return runner.run();
}
