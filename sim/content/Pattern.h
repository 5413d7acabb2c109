#pragma once
// The moving test picture all content is made from: a diagonal luma ramp that scrolls,
// drifting chroma ramps, a textured box that bounces around, and the frame index stamped
// in binary along the top edge so a consumer can tell which frame it got.
//
// The same (size, index) always gives the same picture. Raw formats render it per frame,
// the encoders are fed the I420 version.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

namespace simcam {

class Pattern {
public:
    // Width and height must be even and positive (every format here subsamples chroma
    // horizontally, and the 4:2:0 ones vertically too).
    Pattern(int width, int height);

    int width() const { return width_; }
    int height() const { return height_; }

    // Packed Y0 Cb Y1 Cr, `stride` bytes per row (at least 2 * width).
    void renderYUYV(uint64_t index, uint8_t* dst, size_t stride) const;
    // Y plane, then interleaved CbCr at half height.
    void renderNV12(uint64_t index, uint8_t* y, size_t yStride, uint8_t* uv,
                    size_t uvStride) const;
    // Three planes, chroma at half width and half height.
    void renderI420(uint64_t index, uint8_t* y, size_t yStride, uint8_t* u, size_t uStride,
                    uint8_t* v, size_t vStride) const;

    // The stamp: kStampBits cells, most significant bit left, in a band kStampRows high at
    // the top. Pictures narrower than kStampBits * 2 or lower than 4 * kStampRows carry none.
    static constexpr int kStampBits = 32;
    static constexpr int kStampRows = 8;
    static bool hasStamp(int width, int height);
    // Reads the low 32 bits of the frame index back from a luma plane; `pixelStep` is the
    // distance between luma samples (1 for planar, 2 for YUYV). False if there is no stamp.
    static bool readStamp(const uint8_t* luma, size_t rowStride, size_t pixelStep, int width,
                          int height, uint32_t* index);

private:
    struct Frame;
    Frame frameAt(uint64_t index) const;
    // Each returns a pointer to the finished row: straight into a ramp table when nothing
    // covers the row (the common case, which keeps 1080p rendering to a memcpy per row),
    // otherwise into `scratch` after drawing the box and stamp over it.
    const uint8_t* lumaRow(const Frame& f, int y, uint8_t* scratch) const;
    const uint8_t* cbRow(const Frame& f, int y, uint8_t* scratch) const;
    const uint8_t* crRow(const Frame& f, int y, uint8_t* scratch) const;
    // Fills the Y plane and hands each 4:2:0 chroma row pair (Cb, Cr) to `chroma`.
    using ChromaRow = std::function<void(int row, const uint8_t* cb, const uint8_t* cr)>;
    void renderPlanar(uint64_t index, uint8_t* y, size_t yStride, const ChromaRow& chroma) const;

    int width_;
    int height_;
    int boxW_, boxH_;
    bool stamp_;
    int cellW_;
    std::vector<uint8_t> lumaRamp_;   // one period plus a row's worth, so rows never wrap
    std::vector<uint8_t> cbRamp_;
    std::vector<uint8_t> crRamp_;
};

} // namespace simcam
