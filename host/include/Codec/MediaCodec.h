#pragma once
// The codec library's encoder interface.

#include <functional>
#include <memory>

#include "Codec/MediaBuffer.h"

namespace Codec {

enum CodecType { CODEC_H264 = 0 };

// Encoder settings, by the library's key numbers.
enum Configure {
    CONFIG_BITRATE = 10,
    CONFIG_INPUT_FORMAT = 5,
    CONFIG_WIDTH = 6,
    CONFIG_HEIGHT = 7,
    CONFIG_HOR_STRIDE = 8,
    CONFIG_VER_STRIDE = 9,
    CONFIG_INPUT_FPS_DEN = 14,
    CONFIG_INPUT_FPS_NUM = 15,
    CONFIG_OUTPUT_FPS_DEN = 17,
    CONFIG_OUTPUT_FPS_NUM = 18,
    CONFIG_RATE_CONTROL = 20,
    CONFIG_GOP = 21,
};

// One encoded packet record, owned by whoever getPacket returned it to.
struct MediaPacket {
    int32_t status = -1;            // 0 when `buffer` carries a packet
    // With status 0: owned by the receiver, delete through its destructor. With any other
    // status it stays the encoder's (valid until its next call), and deleting it aborts.
    MediaBuffer* buffer = nullptr;
};

class Encoder {
public:
    virtual ~Encoder();
    virtual int set(Configure key, unsigned int value) = 0;
    virtual int configure() = 0;
    virtual int putFrame(MediaFrame* frame) = 0;
    virtual std::unique_ptr<MediaPacket> getPacket() = 0;
    virtual int reset() = 0;
};

class MediaCodec {
public:
    static Encoder* createEncoder(CodecType type);

    // Replaces the built-in encoder factory (tests put scripted encoders in its place);
    // an empty function restores the built-in one.
    using EncoderFactory = std::function<Encoder*(CodecType)>;
    static void setEncoderFactory(EncoderFactory factory);
};

} // namespace Codec
