#include "Codec/MediaCodec.h"

#include <mutex>

#include "OpenH264Encoder.h"

namespace Codec {

namespace {
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
    if (factory())
        return factory()(type);
    if (type == CODEC_H264)
        return new OpenH264Encoder();  // the caller owns it
    return nullptr;
}

void MediaCodec::setEncoderFactory(EncoderFactory f)
{
    std::lock_guard<std::mutex> lock(g_factoryMutex);
    factory() = std::move(f);
}

} // namespace Codec
