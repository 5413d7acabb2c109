#include "Recorder.h"

#include <chrono>

#include "AnnexB.h"

int64_t Recorder::nowUs()
{
    return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

Recorder::Recorder(MediaOutputPin* pin, FrameSink* sink, int codec, long long frameLimit, Events events)
    : m_pin(pin), m_sink(sink), m_codec(codec), m_frameLimit(frameLimit), m_events(std::move(events))
{
    m_pin->connect(&m_input);
    m_thread = std::thread(&Recorder::run, this);
}

Recorder::~Recorder() { stop(); }

void Recorder::stop()
{
    m_stop = true;
    if (m_thread.joinable())
        m_thread.join();
    if (m_heldUs >= 0) {
        deliver(m_held.data(), m_held.size(), m_heldUs);
        m_heldUs = -1;
    }
}

void Recorder::run()
{
    while (!m_stop) {
        MediaFrame* frame = m_input.take(100);
        if (!frame)
            continue;
        const int64_t now = nowUs();
        m_lastUs = now;
        int64_t expected = -1;
        if (m_firstUs.compare_exchange_strong(expected, now) && m_events.firstFrame)
            m_events.firstFrame();
        // Past the limit frames are still taken, so the element never sees a stalled
        // consumer while the host is stopping it, but they are not recorded.
        if (!limitReached() && !m_writeFailed && frame->size() > 0)
            take(frame->bytes(), size_t(frame->size()), now);
        m_input.release(frame);
    }
}

void Recorder::take(const uint8_t* data, size_t size, int64_t timeUs)
{
    if (m_codec != CODEC_TYPE_HEVC) {
        deliver(data, size, timeUs);
        return;
    }
    if (m_heldUs >= 0 && !annexb::startsWithStartCode(data, size)) {
        m_held.insert(m_held.end(), data, data + size);
        return;
    }
    if (m_heldUs >= 0)
        deliver(m_held.data(), m_held.size(), m_heldUs);
    m_held.assign(data, data + size);
    m_heldUs = timeUs;
}

void Recorder::deliver(const uint8_t* data, size_t size, int64_t timeUs)
{
    if (limitReached() || m_writeFailed)
        return;
    const Frame frame{data, size, timeUs, annexb::isKeyFrame(m_codec, data, size)};
    if (m_sink && !m_sink->write(frame))
        m_writeFailed = true;
    m_bytes += size;
    const long long frames = ++m_frames;
    if (m_events.keyFrameEvery > 0 && frames % m_events.keyFrameEvery == 0 && m_events.keyFrameDue)
        m_events.keyFrameDue();
    if ((limitReached() || m_writeFailed) && m_events.done)
        m_events.done();
}
