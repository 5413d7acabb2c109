#pragma once
// Generated test pictures and the camera buffers that carry them.

#include <cstdint>
#include <vector>

#include "Codec/MediaBuffer.h"

namespace codectest {

// A 4:2:0 picture; what both camera formats below describe exactly.
struct I420Image {
    int width = 0;
    int height = 0;
    std::vector<uint8_t> y, u, v;  // tightly packed
};

// Picture `index` of a moving pattern: diagonal luma ramps, a bright box that travels,
// and U and V ramps that differ (so swapped planes show). `noise` adds up to +-noise of
// per-pixel noise to luma, which makes rate control work for its bits.
I420Image makePicture(int width, int height, int index, int noise = 0);

// A picture laid out in heap memory as a camera hands it over, every byte outside the
// picture (row and plane padding) filled with garbage. YUYV repeats each chroma row for
// both picture rows, so converting back to 4:2:0 gives the picture exactly. Strides of 0
// mean tight ones.
class CameraFrame {
public:
    CameraFrame(const I420Image& picture, uint64_t format, uint32_t horStride = 0,
                uint32_t verStride = 0);
    CameraFrame(const CameraFrame&) = delete;
    CameraFrame& operator=(const CameraFrame&) = delete;

    Codec::MediaFrame* get() { return &m_frame; }

private:
    std::vector<uint8_t> m_bytes;
    Codec::MediaFrame m_frame;
};

} // namespace codectest
