#include "simcam/Chaos.h"

#include "simcam/SimCamera.h"

#include <cerrno>
#include <cstdio>
#include <stdexcept>

namespace simcam {

namespace {

// The one schedule that dequeues consult; set while a Chaos lives.
std::mutex g_activeMutex;
Chaos* g_active = nullptr;

// Fault changes race the client's close of the model; a cleared model just skips them.
template <typename F>
void tryChange(F&& f)
{
    try {
        f();
    } catch (const std::logic_error&) {
    }
}

} // namespace

Chaos::Chaos(uint64_t seed, Options options) : seed_(seed), options_(options), random_(seed)
{
    std::fprintf(stderr, "simcam chaos: seed %llu\n", static_cast<unsigned long long>(seed));
    {
        std::lock_guard lock(g_activeMutex);
        if (g_active)
            throw std::logic_error("simcam: one chaos schedule at a time");
        g_active = this;
    }
    thread_ = std::thread([this] { run(); });
}

Chaos::~Chaos()
{
    {
        std::lock_guard lock(m_);
        stop_ = true;
    }
    cv_.notify_all();
    thread_.join();
    {
        std::lock_guard lock(g_activeMutex);
        g_active = nullptr;
    }
    paused_ = false;
    tryChange([] { setFaults(Faults{}); });
}

std::map<std::string, uint64_t> Chaos::counts() const
{
    std::lock_guard lock(m_);
    return counts_;
}

void Chaos::count(const char* kind)
{
    ++counts_[kind];
}

bool Chaos::pause(std::chrono::milliseconds d)
{
    std::unique_lock lock(m_);
    return !cv_.wait_for(lock, d, [this] { return stop_; });
}

std::chrono::milliseconds Chaos::between(int minMs, int maxMs)
{
    return std::chrono::milliseconds(std::uniform_int_distribution<int>(minMs, maxMs)(random_));
}

void Chaos::run()
{
    enum Kind { Stall, Empty, DqbufBurst, Oversize, Stray, Unplug, FormatRefusal, ConsumerPause };
    // Unplugs and refusals cost the client a reopen; keep them rarer than the rest.
    std::discrete_distribution<int> draw({4, 3, 2, 3, 3, 1, 1, 6});
    while (pause(between(int(options_.minGap.count()), int(options_.maxGap.count())))) {
        switch (draw(random_)) {
        case Stall: {
            const auto d = between(500, 2000);
            { std::lock_guard lock(m_); count("stall"); }
            tryChange([] { modifyFaults([](Faults& f) { f.stall = true; }); });
            pause(d);
            tryChange([] { modifyFaults([](Faults& f) { f.stall = false; }); });
            break;
        }
        case Empty: {
            const int every = std::uniform_int_distribution<int>(1, 3)(random_);
            const auto d = between(200, 1000);
            { std::lock_guard lock(m_); count("empty"); }
            tryChange([every] { modifyFaults([every](Faults& f) { f.emptyEvery = every; }); });
            pause(d);
            tryChange([] { modifyFaults([](Faults& f) { f.emptyEvery = 0; }); });
            break;
        }
        case DqbufBurst: {
            const int n = std::uniform_int_distribution<int>(1, 2)(random_);
            std::lock_guard lock(m_);
            failDequeues_ = n;
            break;
        }
        case Oversize: {
            std::lock_guard lock(m_);
            oversizePending_ = true;
            break;
        }
        case Stray: {
            std::lock_guard lock(m_);
            strayPending_ = true;
            break;
        }
        case Unplug:
            { std::lock_guard lock(m_); count("unplug"); }
            tryChange([this] { unplug(options_.camera); });
            break;
        case FormatRefusal:
            { std::lock_guard lock(m_); count("format-refusal"); }
            tryChange([] { modifyFaults([](Faults& f) { f.sfmtErrno = EBUSY, f.sfmtCount = 1; }); });
            break;
        case ConsumerPause: {
            const auto d = between(100, int(options_.maxConsumerPause.count()));
            { std::lock_guard lock(m_); count("consumer-pause"); }
            paused_ = true;
            pause(d);
            paused_ = false;
            break;
        }
        }
    }
}

Chaos::Dequeue Chaos::takeDequeue(bool filled)
{
    std::lock_guard lock(m_);
    if (failDequeues_ > 0) {
        --failDequeues_;
        count("dqbuf-error");
        return Dequeue::Fail;
    }
    if (strayPending_) {
        strayPending_ = false;
        count("stray-index");
        return Dequeue::StrayIndex;
    }
    if (oversizePending_ && filled) {
        oversizePending_ = false;
        count("oversize");
        return Dequeue::Oversize;
    }
    return Dequeue::Normal;
}

Chaos::Dequeue Chaos::nextDequeue(bool filled)
{
    std::lock_guard lock(g_activeMutex);
    return g_active ? g_active->takeDequeue(filled) : Dequeue::Normal;
}

} // namespace simcam
