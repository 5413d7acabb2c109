#pragma once
// Format arithmetic a UVC driver does: picking the supported size nearest to a request,
// the image layout of a format, and frame intervals.

#include "simcam/Model.h"

#include <cstdint>
#include <vector>

namespace simcam {

struct PixFormat {
    uint32_t fourcc = 0;
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t bytesperline = 0; // 0 for coded formats
    uint32_t sizeimage = 0;
};

bool isCoded(uint32_t fourcc);

// Layout of a picture of this format and size as the driver reports it.
PixFormat layoutFor(uint32_t fourcc, uint32_t width, uint32_t height,
                    const ContentOptions& content);

// The format of the node with this FourCC, or null.
const Format* findFormat(const Node& node, uint32_t fourcc);

// The supported size nearest to the request (smallest area not shared by both pictures,
// as the UVC driver measures it; the first on ties). Stepwise ranges clamp and round.
void nearestSize(const Format& format, uint32_t& width, uint32_t& height);

// Intervals offered at exactly this size, or null when the size is not supported.
const std::vector<Interval>* intervalsAt(const Format& format, uint32_t width,
                                         uint32_t height);

// The offered interval nearest to `wanted` (the first when `wanted` is zero).
Interval nearestInterval(const std::vector<Interval>& offered, Interval wanted);
// The interval of a range nearest to `wanted`: clamped, and on the step from the minimum
// (the minimum when `wanted` is zero).
Interval nearestInterval(const IntervalRange& range, Interval wanted);

// The size a format starts at: its first discrete size, or the largest of a range.
void defaultSize(const Format& format, uint32_t& width, uint32_t& height);

} // namespace simcam
