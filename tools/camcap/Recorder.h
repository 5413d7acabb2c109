#pragma once
// The consuming end of the element's output pin: takes every delivered frame, writes it
// to the output as is, and gives the frame back to the pool.

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <thread>

#include "MediaPin.h"

class Recorder {
public:
    // `out` may be null (frames are counted, not written); `frameLimit` 0 means no limit.
    Recorder(MediaOutputPin* pin, FILE* out, long long frameLimit);
    ~Recorder();
    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;

    void stop();

    long long frames() const { return m_frames.load(); }
    uint64_t bytes() const { return m_bytes.load(); }
    bool limitReached() const { return m_frameLimit > 0 && frames() >= m_frameLimit; }
    bool writeFailed() const { return m_writeFailed.load(); }
    PinStats pinStats() const { return m_pin->stats(); }

private:
    void run();

    MediaOutputPin* m_pin;
    MediaInputPin m_input;
    FILE* m_out;
    const long long m_frameLimit;
    std::atomic<bool> m_stop{false};
    std::atomic<long long> m_frames{0};
    std::atomic<uint64_t> m_bytes{0};
    std::atomic<bool> m_writeFailed{false};
    std::thread m_thread;
};
