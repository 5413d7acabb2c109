#include "Codec/MediaCodec.h"

#include <mutex>

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
    return nullptr;  // the built-in encoder is added with the raw capture path
}

void MediaCodec::setEncoderFactory(EncoderFactory f)
{
    std::lock_guard<std::mutex> lock(g_factoryMutex);
    factory() = std::move(f);
}

} // namespace Codec
