#pragma once
// The consuming end of the element's output pin: takes every delivered frame, stamps it with
// the time it arrived, hands it to the sink and gives the pin frame back to the pool. It
// runs on the element's sender thread, inside the pin's queue(): no thread of its own to wake.

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <vector>

#include "FrameSink.h"
#include "MediaPin.h"

class Recorder {
public:
    // Called on the element's sender thread.
    struct Events {
        std::function<void()> done;  // frame limit reached or writing failed
        std::function<void()> keyFrameDue;
        long long keyFrameEvery = 0;
    };

    // When to stop: after `frames`, or with the first frame not below `durationUs` from the
    // first (half a frame interval early, so that 3 s at 30 fps are 90 frames); 0: never.
    struct Limits {
        long long frames = 0;
        int64_t durationUs = 0;
    };

    // `sink` may be null (frames are counted, not written).
    Recorder(MediaOutputPin* pin, FrameSink* sink, int codec, Limits limits, Events events);
    ~Recorder();
    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;

    // Waits for a frame being written and writes what is still held; the sink is then the
    // caller's again. Frames delivered while stopped go back to the pool unrecorded, so the
    // element never sees a stalled consumer while the host is stopping it.
    void stop();
    // Records again after stop(), counting on.
    void resume();

    long long frames() const { return m_frames.load(); }
    uint64_t bytes() const { return m_bytes.load(); }
    bool limitReached() const
    {
        return (m_limits.frames > 0 && frames() >= m_limits.frames) || m_durationReached.load();
    }
    bool writeFailed() const { return m_writeFailed.load(); }
    PinStats pinStats() const { return m_pin->stats(); }
    // Steady-clock microseconds of the first and latest frame; -1 before the first.
    int64_t firstFrameUs() const { return m_firstUs.load(); }
    int64_t lastFrameUs() const { return m_lastUs.load(); }
    // Where the recorded frames end: the last one's time plus a frame interval; -1 before the
    // first. What a file of them lasts, whenever the run is told to stop.
    int64_t recordedUntilUs() const { return m_recordedUntilUs.load(); }
    // The longest time between two recorded frames (a camera that was away included).
    int64_t largestGapUs() const { return m_largestGapUs.load(); }

    static int64_t nowUs();

private:
    void onFrame(MediaFrame* frame);
    void take(const uint8_t* data, size_t size, int64_t timeUs);
    void deliver(const uint8_t* data, size_t size, int64_t timeUs);
    // Follows the usual time between frames; a gap (the camera was away) does not count.
    void measureInterval(int64_t timeUs);

    MediaOutputPin* m_pin;
    MediaInputPin m_input;
    FrameSink* m_sink;
    const int m_codec;
    const Limits m_limits;
    Events m_events;
    // An HEVC access unit may reach the pin in pieces; it is held until the next begins.
    std::vector<uint8_t> m_held;
    int64_t m_heldUs = -1;
    std::mutex m_gate;  // held while a frame is recorded; stop() takes it
    bool m_stop = false;
    std::atomic<long long> m_frames{0};
    std::atomic<uint64_t> m_bytes{0};
    std::atomic<bool> m_writeFailed{false};
    std::atomic<bool> m_durationReached{false};
    int64_t m_previousUs = -1;
    int64_t m_intervalUs = 0;
    int m_outliers = 0;
    std::atomic<int64_t> m_firstUs{-1};
    std::atomic<int64_t> m_lastUs{-1};
    std::atomic<int64_t> m_recordedUntilUs{-1};
    std::atomic<int64_t> m_largestGapUs{0};
};
