#pragma once
// Helpers shared by the content tests: fetching and rendering frames, Annex B NAL units.

#include "content/ContentSource.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

namespace simcam::test {

inline ContentOptions clip(int clipFrames, int keyInterval = 30, int frameRate = 30, size_t hevcMinFrameBytes = 0)
{
    ContentOptions o;
    o.clipFrames = clipFrames;
    o.keyInterval = keyInterval;
    o.frameRate = frameRate;
    o.hevcMinFrameBytes = hevcMinFrameBytes;
    return o;
}

inline std::vector<uint8_t> frame(const ContentSource& s, uint64_t index)
{
    std::vector<uint8_t> buf(s.frameSize(index));
    buf.resize(s.render(index, buf.data(), buf.size()));
    return buf;
}

// render() writes exactly frameSize() bytes, and nothing at all into a smaller buffer.
inline void checkRender(const ContentSource& s, uint64_t index)
{
    const size_t n = s.frameSize(index);
    std::vector<uint8_t> buf(n + 16, 0x5A);
    const auto untouchedFrom = [&buf](size_t from) {
        return std::all_of(buf.begin() + long(from), buf.end(), [](uint8_t b) { return b == 0x5A; });
    };
    for (size_t capacity : {size_t(0), n / 2, n - 1})
        EXPECT_EQ(s.render(index, buf.data(), capacity), 0u) << "capacity " << capacity;
    EXPECT_TRUE(untouchedFrom(0)) << "wrote while refusing";
    EXPECT_EQ(s.render(index, buf.data(), buf.size()), n);
    EXPECT_TRUE(untouchedFrom(n)) << "wrote past frameSize";
}

// nal_unit_type of each NAL unit after a 00 00 01 start code (a 4-byte code ends in one).
inline std::vector<int> nalTypes(const std::vector<uint8_t>& b, bool hevc)
{
    std::vector<int> t;
    for (size_t i = 0; i + 3 < b.size(); ++i)
        if (b[i] == 0 && b[i + 1] == 0 && b[i + 2] == 1) {
            i += 3;
            t.push_back(hevc ? b[i] >> 1 & 0x3f : b[i] & 0x1f);
        }
    return t;
}

} // namespace simcam::test
