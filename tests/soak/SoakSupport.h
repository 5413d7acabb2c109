#pragma once
// Process gauges and settings shared by the soak tests.

#include <dirent.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>

namespace soak {

inline long envLong(const char* name, long fallback)
{
    const char* v = std::getenv(name);
    return v && *v ? std::strtol(v, nullptr, 10) : fallback;
}

inline int countEntries(const char* dir)
{
    int n = 0;
    if (DIR* d = opendir(dir)) {
        while (readdir(d))
            ++n;
        closedir(d);
    }
    return n;
}

struct Gauges {
    int fds = 0;
    int threads = 0;
    long rssKb = 0;
};

// Joined threads can stay listed for a moment, so counts are read until they hold still.
inline Gauges settledGauges()
{
    auto read = [] {
        Gauges g{countEntries("/proc/self/fd"), countEntries("/proc/self/task"), 0};
        std::ifstream status("/proc/self/status");
        for (std::string key; status >> key;)
            if (key == "VmRSS:")
                status >> g.rssKb;
        return g;
    };
    Gauges g = read();
    for (int still = 0; still < 5;) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        const Gauges h = read();
        still = h.fds == g.fds && h.threads == g.threads ? still + 1 : 0;
        g = h;
    }
    return g;
}

} // namespace soak
