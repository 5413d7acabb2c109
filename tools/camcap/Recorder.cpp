#include "Recorder.h"

Recorder::Recorder(MediaOutputPin* pin, FILE* out, long long frameLimit)
    : m_pin(pin), m_out(out), m_frameLimit(frameLimit)
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
    if (m_out)
        std::fflush(m_out);
}

void Recorder::run()
{
    while (!m_stop) {
        MediaFrame* frame = m_input.take(100);
        if (!frame)
            continue;
        // Past the limit frames are still taken, so the element never sees a stalled
        // consumer while the host is stopping it, but they are not recorded.
        if (!limitReached() && !m_writeFailed) {
            const size_t size = size_t(frame->size());
            if (m_out && size > 0 && std::fwrite(frame->bytes(), 1, size, m_out) != size)
                m_writeFailed = true;
            m_bytes += size;
            ++m_frames;
        }
        m_input.release(frame);
    }
}
