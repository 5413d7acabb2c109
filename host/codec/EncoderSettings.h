#pragma once
// What the element sets on the encoder, by key, and the checks configure() applies to it.

#include <cstdint>

#include "Codec/MediaCodec.h"

namespace Codec {

struct EncoderSettings {
    static constexpr uint32_t kUnset = UINT32_MAX;

    uint32_t inputFormat = kUnset;  // MediaPixelFormat; must be set
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t horStride = 0;  // 0: rows are packed tightly
    uint32_t verStride = 0;  // 0: the height
    uint32_t inputFpsNum = 30, inputFpsDen = 1;
    uint32_t outputFpsNum = 30, outputFpsDen = 1;
    uint32_t keyInterval = 60;  // 0: only the first picture is an IDR
    bool rateControl = true;
    uint32_t bitRate = 0;  // bit/s; 0: derived from the picture size and rate

    // Records one setting. -1 for an unknown key or a value that can never be valid; such
    // a value is still recorded where it belongs, so configure() refuses it too.
    int set(Configure key, unsigned int value);

    // Empty when configure() may go ahead, else why not.
    const char* problem() const;

    // Bytes per row and rows of the first plane when the frame itself does not say.
    uint32_t rowBytes() const;
    uint32_t effectiveHorStride() const { return horStride ? horStride : rowBytes(); }
    uint32_t effectiveVerStride() const { return verStride ? verStride : height; }

    // Pictures per second the encoder should plan for (output rate, else input rate).
    double frameRate() const;
    uint32_t effectiveBitRate() const;
};

} // namespace Codec
