#include "FormatMath.h"

#include <numeric>

#include <algorithm>
#include <cmath>
#include <limits>

namespace simcam {

bool isCoded(uint32_t fourcc)
{
    return fourcc == kFourccH264 || fourcc == kFourccHEVC || fourcc == kFourccMJPG;
}

PixFormat layoutFor(uint32_t fourcc, uint32_t width, uint32_t height,
                    const ContentOptions& content)
{
    PixFormat p{fourcc, width, height, 0, 0};
    const uint64_t pixels = uint64_t(width) * height;
    switch (fourcc) {
    case kFourccYUYV:
        p.bytesperline = 2 * width;
        p.sizeimage = uint32_t(2 * pixels);
        break;
    case kFourccNV12:
        p.bytesperline = width;
        p.sizeimage = uint32_t(pixels * 3 / 2);
        break;
    case kFourccRGB24:
        p.bytesperline = 3 * width;
        p.sizeimage = uint32_t(3 * pixels);
        break;
    default: {
        // Coded: room for the largest access unit, like a camera's dwMaxVideoFrameSize.
        uint64_t size = 2 * pixels;
        if (fourcc == kFourccHEVC && content.hevcMinFrameBytes > 0)
            size = std::max<uint64_t>(size, content.hevcMinFrameBytes + 65536);
        p.sizeimage = uint32_t(std::min<uint64_t>(size, std::numeric_limits<uint32_t>::max()));
        break;
    }
    }
    return p;
}

const Format* findFormat(const Node& node, uint32_t fourcc)
{
    for (const Format& f : node.formats)
        if (f.fourcc == fourcc)
            return &f;
    return nullptr;
}

namespace {

uint32_t clampToStep(uint32_t v, uint32_t min, uint32_t max, uint32_t step)
{
    v = std::clamp(v, min, max);
    step = std::max<uint32_t>(step, 1);
    uint32_t steps = (v - min + step / 2) / step;
    return std::min(min + steps * step, max);
}

} // namespace

void nearestSize(const Format& format, uint32_t& width, uint32_t& height)
{
    if (format.stepwise) {
        const StepwiseSize& s = *format.stepwise;
        width = clampToStep(width, s.minWidth, s.maxWidth, s.stepWidth);
        height = clampToStep(height, s.minHeight, s.maxHeight, s.stepHeight);
        return;
    }
    uint64_t best = std::numeric_limits<uint64_t>::max();
    uint32_t bw = width, bh = height;
    for (const FrameSize& f : format.sizes) {
        uint64_t common = uint64_t(std::min(width, f.width)) * std::min(height, f.height);
        uint64_t d = uint64_t(width) * height + uint64_t(f.width) * f.height - 2 * common;
        if (d < best) {
            best = d;
            bw = f.width;
            bh = f.height;
        }
    }
    width = bw;
    height = bh;
}

const std::vector<Interval>* intervalsAt(const Format& format, uint32_t width, uint32_t height)
{
    if (format.stepwise) {
        const StepwiseSize& s = *format.stepwise;
        bool inRange = width >= s.minWidth && width <= s.maxWidth && height >= s.minHeight &&
                       height <= s.maxHeight &&
                       (width - s.minWidth) % std::max<uint32_t>(s.stepWidth, 1) == 0 &&
                       (height - s.minHeight) % std::max<uint32_t>(s.stepHeight, 1) == 0;
        return inRange ? &s.intervals : nullptr;
    }
    for (const FrameSize& f : format.sizes)
        if (f.width == width && f.height == height)
            return &f.intervals;
    return nullptr;
}

Interval nearestInterval(const std::vector<Interval>& offered, Interval wanted)
{
    if (offered.empty())
        return Interval{};
    if (wanted.denominator == 0 || wanted.numerator == 0)
        return offered.front();
    const double target = double(wanted.numerator) / wanted.denominator;
    Interval best = offered.front();
    double bestDistance = std::numeric_limits<double>::max();
    for (const Interval& i : offered) {
        double d = std::fabs(double(i.numerator) / i.denominator - target);
        if (d < bestDistance) {
            bestDistance = d;
            best = i;
        }
    }
    return best;
}

Interval nearestInterval(const IntervalRange& r, Interval wanted)
{
    if (wanted.denominator == 0 || wanted.numerator == 0)
        return r.min;
    const auto seconds = [](Interval i) { return double(i.numerator) / i.denominator; };
    const double target = std::clamp(seconds(wanted), seconds(r.min), seconds(r.max));
    const bool continuous = r.step.numerator == 1 && r.step.denominator == 1;
    if (continuous)
        return target == seconds(wanted) ? wanted : target == seconds(r.min) ? r.min : r.max;
    // min + k * step, exactly: a/b + k*c/d = (a*d + k*c*b) / (b*d).
    const uint64_t k = uint64_t(std::llround((target - seconds(r.min)) / seconds(r.step)));
    const uint64_t num = uint64_t(r.min.numerator) * r.step.denominator + k * r.step.numerator * r.min.denominator;
    const uint64_t den = uint64_t(r.min.denominator) * r.step.denominator;
    const uint64_t g = std::gcd(num, den);
    return {uint32_t(num / g), uint32_t(den / g)};
}

void defaultSize(const Format& format, uint32_t& width, uint32_t& height)
{
    if (format.stepwise) {
        width = format.stepwise->maxWidth;
        height = format.stepwise->maxHeight;
    } else if (!format.sizes.empty()) {
        width = format.sizes.front().width;
        height = format.sizes.front().height;
    } else {
        width = height = 0;
    }
}

} // namespace simcam
