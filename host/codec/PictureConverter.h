#pragma once
// Turns camera pictures (packed YUYV 4:2:2 or NV12) into I420, the only input openh264
// takes, in memory the converter owns.

#include <cstddef>
#include <cstdint>
#include <vector>

namespace Codec {

struct I420Picture {
    const uint8_t* y = nullptr;
    const uint8_t* u = nullptr;
    const uint8_t* v = nullptr;
    int yStride = 0;
    int cStride = 0;  // of both chroma planes
    int width = 0;
    int height = 0;
};

class PictureConverter {
public:
    // Fixes the source format (MediaPixelFormat) and size, and allocates the I420 picture.
    // false for an unknown format or a zero or odd size.
    bool configure(uint64_t format, uint32_t width, uint32_t height);

    // Bytes a source buffer must hold for the configured picture laid out with these
    // strides, or 0 when they cannot hold it. YUYV: rows of horStride bytes. NV12: a Y
    // plane of verStride rows of horStride bytes, then the interleaved UV plane with the
    // same row stride.
    uint64_t requiredBytes(uint32_t horStride, uint32_t verStride) const;

    // Converts one picture. false, converting nothing, when requiredBytes() is 0 or more
    // than `size`.
    bool convert(const uint8_t* data, uint64_t size, uint32_t horStride, uint32_t verStride);

    I420Picture picture() const;

private:
    size_t lumaBytes() const { return size_t(m_width) * size_t(m_height); }

    uint64_t m_format = 0;
    int m_width = 0;
    int m_height = 0;
    std::vector<uint8_t> m_planes;  // Y, then U, then V, tightly packed
};

} // namespace Codec
