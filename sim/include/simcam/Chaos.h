#pragma once
// A camera from hell: a seeded schedule of faults arriving one after another, and sometimes
// together, while a client streams. The schedule is drawn from the seed alone (printed at
// start), so a run that broke something replays with the same seed; what the client was
// doing when each fault hit still depends on timing.
//
// Kinds: stalls of 0.5-2 s, runs of empty frames, bursts of VIDIOC_DQBUF errors, a
// bytesused beyond the buffer, a dequeue reporting an index the client never queued, an
// unplug (a USB reset brings the camera back, or the model's replug=MS), a format refusal at the next S_FMT, and on
// the consumer side pauses a client's consumer is expected to honour (consumerPaused()).

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <thread>

namespace simcam {

class Chaos {
public:
    struct Options {
        // Quiet time between two faults, drawn uniformly.
        std::chrono::milliseconds minGap{300};
        std::chrono::milliseconds maxGap{2500};
        std::chrono::milliseconds maxConsumerPause{8000};
        int camera = 0; // the camera unplugged
    };

    // Starts the schedule against the configured model; prints the seed to stderr.
    explicit Chaos(uint64_t seed) : Chaos(seed, Options{}) {}
    Chaos(uint64_t seed, Options options);
    // Ends the schedule and clears every node's faults (an unplugged camera stays
    // unplugged until a reset, replug() or its replug=MS time).
    ~Chaos();
    Chaos(const Chaos&) = delete;
    Chaos& operator=(const Chaos&) = delete;

    // Faults injected so far, by kind ("stall", "empty", "dqbuf-error", "oversize",
    // "stray-index", "unplug", "format-refusal", "consumer-pause").
    std::map<std::string, uint64_t> counts() const;
    // True while the consumer should take nothing.
    bool consumerPaused() const { return paused_.load(); }
    uint64_t seed() const { return seed_; }

    // Called by the simulated queue on every VIDIOC_DQBUF with a buffer ready; `filled`
    // when it holds bytes (an overstated count is a driver's lie about a real frame).
    enum class Dequeue { Normal, Fail, StrayIndex, Oversize };
    static Dequeue nextDequeue(bool filled);

private:
    void run();
    bool pause(std::chrono::milliseconds d); // false when stopping
    std::chrono::milliseconds between(int minMs, int maxMs);
    void count(const char* kind);
    Dequeue takeDequeue(bool filled);

    const uint64_t seed_;
    const Options options_;
    std::mt19937_64 random_;
    mutable std::mutex m_;
    std::condition_variable cv_;
    bool stop_ = false;
    std::map<std::string, uint64_t> counts_;
    int failDequeues_ = 0;    // DQBUFs still to fail in the current burst
    bool strayPending_ = false;
    bool oversizePending_ = false;
    std::atomic<bool> paused_{false};
    std::thread thread_;
};

} // namespace simcam
