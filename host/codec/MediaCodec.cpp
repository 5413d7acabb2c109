#include "Codec/MediaCodec.h"

#include <mutex>

#include "KeptBuffers.h"
#include "OpenH264Encoder.h"

namespace Codec {

namespace {

// Wraps every encoder the library hands out. A packet buffer that comes with a non-zero
// status stays the encoder's until its next getPacket, reset or destruction; the receiver
// owns only what comes with status 0.
class KeepingEncoder final : public Encoder {
public:
    explicit KeepingEncoder(Encoder* inner) : m_inner(inner) {}
    ~KeepingEncoder() override { dropKept(); }

    int set(Configure key, unsigned int value) override { return m_inner->set(key, value); }
    int configure() override { return m_inner->configure(); }
    int putFrame(MediaFrame* frame) override { return m_inner->putFrame(frame); }
    std::unique_ptr<MediaPacket> getPacket() override
    {
        dropKept();
        std::unique_ptr<MediaPacket> packet = m_inner->getPacket();
        if (packet && packet->status != 0 && packet->buffer) {
            m_kept.reset(packet->buffer);
            keepBuffer(packet->buffer);
        }
        return packet;
    }
    int reset() override
    {
        dropKept();
        return m_inner->reset();
    }

private:
    void dropKept()
    {
        if (m_kept)
            unkeepBuffer(m_kept.get());
        m_kept.reset();
    }

    std::unique_ptr<Encoder> m_inner;
    std::unique_ptr<MediaBuffer> m_kept;
};

std::mutex g_factoryMutex;
MediaCodec::EncoderFactory& factory()
{
    static MediaCodec::EncoderFactory f;
    return f;
}
} // namespace

Encoder::~Encoder() = default;

Encoder* MediaCodec::createEncoder(CodecType type)
{
    std::lock_guard<std::mutex> lock(g_factoryMutex);
    std::unique_ptr<Encoder> made;
    if (factory())
        made.reset(factory()(type));
    else if (type == CODEC_H264)
        made = std::make_unique<OpenH264Encoder>();
    // The caller owns what it gets.
    return made ? new KeepingEncoder(made.release()) : nullptr;
}

void MediaCodec::setEncoderFactory(EncoderFactory f)
{
    std::lock_guard<std::mutex> lock(g_factoryMutex);
    factory() = std::move(f);
}

} // namespace Codec
