// A network of the test's own, with interfaces that the host does not have.
#pragma once

#include "support/OwnThread.h"

#include <cstdlib>
#include <functional>
#include <sched.h>
#include <string>

// Runs the body in a thread with an empty network, loopback up, behind the given arguments of ip(8). False
// when this process may not make one, or the system lacks what the arguments name.
inline bool inOwnNetwork(const std::initializer_list<std::string>& ipArguments, std::function<void()> body)
{
    bool bMade = false;
    inOwnThread([&] {
        const auto ip = [](const std::string& arguments) {
            return std::system(("ip " + arguments + " >/dev/null 2>&1").c_str()) == 0;
        };
        bMade = unshare(CLONE_NEWNET) == 0 && ip("link set lo up");
        for (const std::string& arguments : ipArguments)
            bMade = bMade && ip(arguments);
        if (bMade)
            body();
    });
    return bMade;
}

constexpr char kNoOwnNetwork[] = "may not make a network of its own here: root and iproute2 can";
