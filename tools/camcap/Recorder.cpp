#include "Recorder.h"

#include <chrono>

#include "AnnexB.h"

int64_t Recorder::nowUs()
{
    return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

Recorder::Recorder(MediaOutputPin* pin, FrameSink* sink, int codec, Limits limits, Events events)
    : m_pin(pin), m_sink(sink), m_codec(codec), m_limits(limits), m_events(std::move(events))
{
    m_input.setHandler([this](MediaFrame* frame) { onFrame(frame); });
    m_pin->connect(&m_input);
}

void Recorder::resume()
{
    std::lock_guard<std::mutex> lock(m_gate);
    m_stop = false;
}

// The pin waits for a frame being handled before it lets go of the recorder.
Recorder::~Recorder()
{
    stop();
    m_input.close();
}

void Recorder::stop()
{
    std::lock_guard<std::mutex> lock(m_gate);
    m_stop = true;
    if (m_heldUs >= 0) {
        deliver(m_held.data(), m_held.size(), m_heldUs);
        m_heldUs = -1;
    }
}

void Recorder::onFrame(MediaFrame* frame)
{
    {
        std::lock_guard<std::mutex> lock(m_gate);
        if (!m_stop) {
            const int64_t now = nowUs();
            m_lastUs = now;
            int64_t expected = -1;
            m_firstUs.compare_exchange_strong(expected, now);
            // Past the limit frames are still taken, so the element never sees a stalled
            // consumer while the host is stopping it, but they are not recorded.
            if (!limitReached() && !m_writeFailed && frame->size() > 0)
                take(frame->bytes(), size_t(frame->size()), now);
        }
    }
    m_input.release(frame);
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

void Recorder::measureInterval(int64_t timeUs)
{
    const int64_t delta = m_previousUs >= 0 ? timeUs - m_previousUs : 0;
    m_previousUs = timeUs;
    if (delta <= 0)
        return;
    if (delta > m_largestGapUs.load())
        m_largestGapUs = delta;
    const bool usual = m_intervalUs == 0 || (delta < 4 * m_intervalUs && 4 * delta > m_intervalUs);
    if (usual || ++m_outliers >= 8) {
        m_intervalUs = usual && m_intervalUs ? (7 * m_intervalUs + delta) / 8 : delta;
        m_outliers = 0;
    }
}

void Recorder::deliver(const uint8_t* data, size_t size, int64_t timeUs)
{
    if (limitReached() || m_writeFailed)
        return;
    measureInterval(timeUs);
    if (m_limits.durationUs > 0 && timeUs - m_firstUs >= m_limits.durationUs - m_intervalUs / 2) {
        m_durationReached = true;
        if (m_events.done)
            m_events.done();
        return;
    }
    const Frame frame{data, size, timeUs, m_intervalUs, annexb::isKeyFrame(m_codec, data, size)};
    if (m_sink && !m_sink->write(frame))
        m_writeFailed = true;
    m_bytes += size;
    m_recordedUntilUs = timeUs + m_intervalUs;
    const long long frames = ++m_frames;
    if (m_events.keyFrameEvery > 0 && frames % m_events.keyFrameEvery == 0 && m_events.keyFrameDue)
        m_events.keyFrameDue();
    if ((limitReached() || m_writeFailed) && m_events.done)
        m_events.done();
}
