// Raw camera pictures, drawn fresh for every frame so no two neighbours are alike.
#include "content/Pattern.h"
#include "content/Sources.h"

namespace simcam {

namespace {

class RawSource final : public ContentSource {
public:
    RawSource(uint32_t fourcc, int width, int height)
        : fourcc_(fourcc), pattern_(width, height),
          // YUYV: 16 bits per pixel; NV12: 12.
          size_(fourcc == kFourccYUYV ? size_t(width) * height * 2 : size_t(width) * height * 3 / 2)
    {
    }

    uint32_t fourcc() const override { return fourcc_; }
    int width() const override { return pattern_.width(); }
    int height() const override { return pattern_.height(); }
    size_t frameSize(uint64_t) const override { return size_; }

    size_t render(uint64_t index, uint8_t* dst, size_t capacity) const override
    {
        if (!dst || capacity < size_)
            return 0;
        const size_t w = size_t(pattern_.width());
        if (fourcc_ == kFourccYUYV) {
            pattern_.renderYUYV(index, dst, 2 * w);
        } else {
            uint8_t* uv = dst + w * size_t(pattern_.height());
            pattern_.renderNV12(index, dst, w, uv, w);
        }
        return size_;
    }

private:
    uint32_t fourcc_;
    Pattern pattern_;
    size_t size_;
};

} // namespace

std::shared_ptr<const ContentSource> makeRawSource(uint32_t fourcc, int width, int height)
{
    return std::make_shared<RawSource>(fourcc, width, height);
}

} // namespace simcam
