// Oversized HEVC frames: the plain clip's access units with filler data appended.
//
// The filler is written at render time rather than stored, since at the sizes this exists
// for (several MB a frame) a padded copy of a clip would cost hundreds of MB.
#include "content/Sources.h"

#include <algorithm>
#include <cstring>

namespace simcam {

namespace {

// Filler data NAL unit: start code, a two-byte header for type 38 (FD_NUT) in layer 0 with
// temporal id 0, any number of 0xFF bytes, then the rbsp stop bit.
constexpr uint8_t kFillerHead[] = {0x00, 0x00, 0x01, 38 << 1, 0x01};
constexpr size_t kFillerOverhead = sizeof kFillerHead + 1;

class HevcPaddedSource final : public ContentSource {
public:
    HevcPaddedSource(std::shared_ptr<const ContentSource> base, size_t minFrameBytes)
        : base_(std::move(base)), min_(minFrameBytes)
    {
    }

    uint32_t fourcc() const override { return base_->fourcc(); }
    int width() const override { return base_->width(); }
    int height() const override { return base_->height(); }
    bool isKeyFrame(uint64_t index) const override { return base_->isKeyFrame(index); }

    size_t frameSize(uint64_t index) const override
    {
        const size_t n = base_->frameSize(index);
        return n + filler(n);
    }

    size_t render(uint64_t index, uint8_t* dst, size_t capacity) const override
    {
        const size_t n = base_->frameSize(index);
        const size_t pad = filler(n);
        if (!dst || capacity < n + pad || base_->render(index, dst, capacity) != n)
            return 0;
        if (pad > 0) {
            // Goes last: filler may not precede the picture's first slice.
            uint8_t* p = dst + n;
            std::memcpy(p, kFillerHead, sizeof kFillerHead);
            std::memset(p + sizeof kFillerHead, 0xFF, pad - kFillerOverhead);
            p[pad - 1] = 0x80;
        }
        return n + pad;
    }

private:
    // Bytes of filler NAL unit after a frame of `n` bytes; 0 when it is large enough.
    size_t filler(size_t n) const
    {
        return n > min_ ? 0 : std::max(kFillerOverhead, min_ + 1 - n);
    }

    std::shared_ptr<const ContentSource> base_;
    size_t min_;
};

} // namespace

std::shared_ptr<const ContentSource> makeHevcPaddedSource(
    std::shared_ptr<const ContentSource> hevc, size_t minFrameBytes)
{
    if (!hevc)
        return nullptr;
    return std::make_shared<HevcPaddedSource>(std::move(hevc), minFrameBytes);
}

} // namespace simcam
