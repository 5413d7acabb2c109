#pragma once
// Internal to the content library: the kinds of ContentSource behind get().

#include "content/Clip.h"
#include "content/ContentSource.h"

#include <memory>

namespace simcam {

// YUYV or NV12 rendered per frame from the pattern.
std::shared_ptr<const ContentSource> makeRawSource(uint32_t fourcc, int width, int height);

// Replays `clip` in a loop; null for an empty clip.
std::shared_ptr<const ContentSource> makeClipSource(uint32_t fourcc, int width, int height,
                                                    CodedClip clip);

// `hevc`'s frames with a filler data NAL unit appended wherever a frame is not larger than
// minFrameBytes, so that every frame is.
std::shared_ptr<const ContentSource> makeHevcPaddedSource(
    std::shared_ptr<const ContentSource> hevc, size_t minFrameBytes);

} // namespace simcam
