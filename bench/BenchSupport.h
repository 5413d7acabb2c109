#pragma once
// Measuring helpers shared by the benchmarks: per-thread CPU time, percentiles, and a
// consumer that drains the element's output pin recording when each frame arrived.

#include <dirent.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <QtGlobal>

#include "MediaPin.h"

namespace bench {

using Clock = std::chrono::steady_clock;

// The element lists device names on Qt's debug output; keep the tables readable.
inline void quietQtDebug()
{
    qInstallMessageHandler([](QtMsgType type, const QMessageLogContext&, const QString& message) {
        if (type != QtDebugMsg)
            std::fprintf(stderr, "%s\n", qPrintable(message));
    });
}

inline double seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

// CPU seconds a thread of this process has used (Linux encodes per-thread clocks by tid).
inline double threadCpu(pid_t tid)
{
    const clockid_t clock = clockid_t((~unsigned(tid) << 3) | 6);
    timespec ts{};
    if (clock_gettime(clock, &ts) != 0)
        return 0;
    return double(ts.tv_sec) + double(ts.tv_nsec) / 1e9;
}

inline std::string threadName(pid_t tid)
{
    std::ifstream f("/proc/self/task/" + std::to_string(tid) + "/comm");
    std::string name;
    std::getline(f, name);
    return name;
}

inline std::set<pid_t> threads()
{
    std::set<pid_t> out;
    if (DIR* d = opendir("/proc/self/task")) {
        while (dirent* e = readdir(d))
            if (e->d_name[0] != '.')
                out.insert(pid_t(std::stoi(e->d_name)));
        closedir(d);
    }
    return out;
}

// CPU seconds of the threads that appeared since `before`, leaving out the given ones and
// the simulated camera's own clock threads.
inline double newThreadsCpu(const std::set<pid_t>& before, const std::set<pid_t>& exclude)
{
    double total = 0;
    for (pid_t tid : threads())
        if (!before.count(tid) && !exclude.count(tid) && threadName(tid) != "simcam-clock")
            total += threadCpu(tid);
    return total;
}

inline double percentile(std::vector<double> v, double p)
{
    if (v.empty())
        return 0;
    std::sort(v.begin(), v.end());
    return v[std::min(v.size() - 1, size_t(p * double(v.size() - 1) + 0.5))];
}

// Takes every frame the pin delivers, as fast as they come.
class Drain {
public:
    explicit Drain(MediaOutputPin* pin) : m_pin(pin)
    {
        m_pin->connect(&m_input);
        // A host's pool is backed before the stream starts; ours is touched lazily, which
        // would show as the sender's page faults the first time it reaches a frame.
        std::vector<MediaFrame*> pool;
        for (MediaFrame* f = nullptr; m_pin->dequeue(&f, 0, 0) == 0; f = nullptr)
            pool.push_back(f);
        for (MediaFrame* f : pool) {
            std::memset(f->data(), 0, f->capacity());
            m_input.release(f);
        }
        m_thread = std::thread([this] {
            m_tid = gettid();
            while (!m_stop) {
                if (MediaFrame* f = m_input.take(20)) {
                    m_arrivals.push_back(Clock::now());
                    m_bytes += uint64_t(f->size());
                    m_input.release(f);
                }
            }
        });
        while (m_tid == 0)
            std::this_thread::yield();
    }
    ~Drain() { stop(); }
    void stop()
    {
        m_stop = true;
        if (m_thread.joinable())
            m_thread.join();
        m_pin->disconnect();
    }
    pid_t tid() const { return m_tid; }
    // Valid once stopped.
    const std::vector<Clock::time_point>& arrivals() const { return m_arrivals; }
    uint64_t bytes() const { return m_bytes; }

private:
    MediaOutputPin* m_pin;
    MediaInputPin m_input;
    std::atomic<bool> m_stop{false};
    std::atomic<pid_t> m_tid{0};
    std::vector<Clock::time_point> m_arrivals;
    uint64_t m_bytes = 0;
    std::thread m_thread;
};

} // namespace bench
