// Coded clips replayed in a loop.
#include "content/Sources.h"

#include <cstring>

namespace simcam {

namespace {

class ClipSource final : public ContentSource {
public:
    ClipSource(uint32_t fourcc, int width, int height, CodedClip clip)
        : fourcc_(fourcc), width_(width), height_(height), clip_(std::move(clip))
    {
    }

    uint32_t fourcc() const override { return fourcc_; }
    int width() const override { return width_; }
    int height() const override { return height_; }
    size_t frameSize(uint64_t index) const override { return unit(index).size(); }
    bool isKeyFrame(uint64_t index) const override
    {
        return clip_.key[size_t(index % clip_.key.size())];
    }

    size_t render(uint64_t index, uint8_t* dst, size_t capacity) const override
    {
        const std::vector<uint8_t>& u = unit(index);
        if (!dst || capacity < u.size())
            return 0;
        std::memcpy(dst, u.data(), u.size());
        return u.size();
    }

private:
    const std::vector<uint8_t>& unit(uint64_t index) const
    {
        return clip_.units[size_t(index % clip_.units.size())];
    }

    uint32_t fourcc_;
    int width_, height_;
    CodedClip clip_;
};

} // namespace

std::shared_ptr<const ContentSource> makeClipSource(uint32_t fourcc, int width, int height,
                                                    CodedClip clip)
{
    if (clip.empty() || clip.key.size() != clip.units.size())
        return nullptr;
    return std::make_shared<ClipSource>(fourcc, width, height, std::move(clip));
}

} // namespace simcam
