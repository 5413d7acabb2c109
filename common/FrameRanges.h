#pragma once
// A camera may describe its frame sizes as a range (stepwise, or continuous with a step of
// one) instead of a list. Nobody picks 1283x721 from such a range, so it is offered as the
// sizes a user would pick: its smallest, the common sizes within it that lie on its step,
// and its largest, smallest first.

#include <cstdint>
#include <vector>

struct RangeSize {
    uint32_t width = 0;
    uint32_t height = 0;
    friend bool operator==(const RangeSize& a, const RangeSize& b)
    {
        return a.width == b.width && a.height == b.height;
    }
};

struct FrameSizeRange {
    uint32_t minWidth = 0, maxWidth = 0, stepWidth = 1;
    uint32_t minHeight = 0, maxHeight = 0, stepHeight = 1;
};

inline std::vector<RangeSize> pickableSizes(const FrameSizeRange& r)
{
    static const RangeSize kCommon[] = {{160, 120},  {176, 144},  {320, 240},  {352, 288},   {640, 360},
                                        {640, 480},  {800, 600},  {1024, 768}, {1280, 720},  {1280, 960},
                                        {1920, 1080}, {2560, 1440}, {3840, 2160}, {4096, 2160}};
    const uint32_t stepW = r.stepWidth ? r.stepWidth : 1;
    const uint32_t stepH = r.stepHeight ? r.stepHeight : 1;
    if (r.minWidth == 0 || r.minHeight == 0 || r.maxWidth < r.minWidth || r.maxHeight < r.minHeight)
        return {};
    // The largest size the step actually reaches.
    const RangeSize largest{r.minWidth + (r.maxWidth - r.minWidth) / stepW * stepW,
                            r.minHeight + (r.maxHeight - r.minHeight) / stepH * stepH};
    std::vector<RangeSize> sizes{{r.minWidth, r.minHeight}};
    for (const RangeSize& c : kCommon) {
        const bool inside = c.width > r.minWidth && c.height > r.minHeight && c.width <= largest.width &&
                            c.height <= largest.height;
        if (inside && (c.width - r.minWidth) % stepW == 0 && (c.height - r.minHeight) % stepH == 0 &&
            !(c == largest))
            sizes.push_back(c);
    }
    if (!(largest == sizes.front()))
        sizes.push_back(largest);
    return sizes;
}
