#include "platform/Process_p.h"

#include <array>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include <pwd.h>
#include <sched.h>
#include <unistd.h>

bool Nuvika::Process::isDebuggerAttached()
{
    std::ifstream status("/proc/self/status");
    const std::string key = "TracerPid:";
    for (std::string line; std::getline(status, line);) {
        if (line.compare(0, key.size(), key) == 0)
            return std::atoi(line.c_str() + key.size()) != 0;
    }
    return false;
}

void Nuvika::Process::debugBreak() { std::raise(SIGTRAP); }

void Nuvika::Process::fatalExit() { std::abort(); }

std::string Nuvika::Process::effectiveUserName()
{
    std::vector<char> text(32767);
    passwd entry{};
    passwd* found = nullptr;
    if (getpwuid_r(geteuid(), &entry, text.data(), text.size(), &found) != 0 || found == nullptr)
        return {};
    return found->pw_name;
}

int Nuvika::Process::usableCpus()
{
    cpu_set_t set;
    CPU_ZERO(&set);
    if (sched_getaffinity(0, sizeof set, &set) != 0)
        return 1;
    return CPU_COUNT(&set) > 0 ? CPU_COUNT(&set) : 1;
}
