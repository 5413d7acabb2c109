#pragma once
// Picture and bitstream content for the simulated camera (and any other test camera).
//
// Coded formats (H.264, HEVC, MJPEG) come from a short clip encoded once, when first asked
// for, with Debian's encoders, and then replayed in a loop. Raw formats (YUYV, NV12) are
// rendered per frame: a moving pattern that makes every picture differ.

#include <cstddef>
#include <cstdint>
#include <memory>

namespace simcam {

// V4L2 FourCC codes, first character in the lowest byte.
constexpr uint32_t fourcc(char a, char b, char c, char d)
{
    return uint32_t(uint8_t(a)) | uint32_t(uint8_t(b)) << 8 | uint32_t(uint8_t(c)) << 16 |
           uint32_t(uint8_t(d)) << 24;
}
constexpr uint32_t kFourccH264 = fourcc('H', '2', '6', '4');
constexpr uint32_t kFourccHEVC = fourcc('H', 'E', 'V', 'C');
constexpr uint32_t kFourccMJPG = fourcc('M', 'J', 'P', 'G');
constexpr uint32_t kFourccYUYV = fourcc('Y', 'U', 'Y', 'V');
constexpr uint32_t kFourccNV12 = fourcc('N', 'V', '1', '2');

struct ContentOptions {
    int clipFrames = 30;      // length of the looping clip for coded formats
    int keyInterval = 30;     // H.264/HEVC: an IDR (with SPS/PPS, VPS) every this many frames
    int frameRate = 30;       // rate the coded clip is encoded for
    // HEVC only: pad every access unit with filler data so it exceeds this many bytes
    // (0 = no padding). Used to exercise splitting of very large frames.
    size_t hevcMinFrameBytes = 0;
};

class ContentSource {
public:
    virtual ~ContentSource() = default;

    // Shared, cached per (fourcc, size, options). Returns null for an unsupported fourcc
    // (any other than the five above), a non-positive or odd width or height (every format
    // here subsamples chroma), one above kMaxDimension, a non-positive option the format
    // uses (MJPEG: clipFrames; H.264/HEVC: also keyInterval, frameRate), or when an encoder
    // refuses the settings. Raw formats ignore the options. Thread-safe; the first call for
    // a coded format encodes the clip (up to about a second at 1080p) and later calls share
    // it. Every picture carries its frame index, see Pattern::readStamp.
    static std::shared_ptr<const ContentSource> get(uint32_t fourcc, int width, int height,
                                                    const ContentOptions& options = {});

    virtual uint32_t fourcc() const = 0;
    virtual int width() const = 0;
    virtual int height() const = 0;

    // Bytes of frame `index` (any index; coded clips loop, raw pictures keep moving).
    virtual size_t frameSize(uint64_t index) const = 0;

    // Writes frame `index` to dst. Raw pictures use tight strides (YUYV 2*width, NV12 width
    // with the UV plane right after the Y plane). Returns the bytes written, or 0 when
    // `capacity` is smaller than frameSize(index) (nothing is written then).
    virtual size_t render(uint64_t index, uint8_t* dst, size_t capacity) const = 0;

    // Whether frame `index` decodes on its own: an IDR for H.264/HEVC, always for MJPEG and
    // raw pictures.
    virtual bool isKeyFrame(uint64_t /*index*/) const { return true; }

    static constexpr int kMaxDimension = 8192;
};

} // namespace simcam
