#pragma once
// Internal to the content library: a coded clip and the encoders that make one from the
// moving pattern.

#include "content/ContentSource.h"

#include <cstdint>
#include <vector>

namespace simcam {

class Pattern;

struct CodedClip {
    std::vector<std::vector<uint8_t>> units; // one complete access unit / JPEG per frame
    std::vector<bool> key;                   // frame decodes on its own (IDR, every JPEG)

    bool empty() const { return units.empty(); }
};

// Each encodes options.clipFrames pictures of `pattern`. An empty clip means the encoder
// refused the settings; the reason has gone to stderr.
CodedClip encodeH264Clip(const Pattern& pattern, const ContentOptions& options);
CodedClip encodeHevcClip(const Pattern& pattern, const ContentOptions& options);
CodedClip encodeMjpegClip(const Pattern& pattern, const ContentOptions& options);

// Bitrate the coded clips aim at: about 0.1 bit per pixel, a typical camera setting.
inline int clipBitrate(int width, int height, int frameRate)
{
    const int64_t bps = int64_t(width) * height * frameRate / 10;
    return int(bps < 64000 ? 64000 : bps > 100000000 ? 100000000 : bps);
}

} // namespace simcam
