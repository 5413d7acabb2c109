// Structure of the coded clips: what a parser on the receiving side relies on. (camcap's
// recordings of them are decoded by an independent decoder in the tool tests.)
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>

namespace simcam {
namespace {

using test::frame;
using test::nalTypes;

struct Clip {
    const char* name;
    uint32_t fourcc;
    int w, h, clipFrames, keyInterval;
    size_t hevcMinFrameBytes;

    ContentOptions options() const { return test::clip(clipFrames, keyInterval, 30, hevcMinFrameBytes); }
};
void PrintTo(const Clip& c, std::ostream* os) { *os << c.name; }

void checkJpeg(const std::vector<uint8_t>& j, int w, int h)
{
    ASSERT_GT(j.size(), 4u);
    EXPECT_TRUE(j[0] == 0xFF && j[1] == 0xD8) << "SOI";
    EXPECT_TRUE(j[j.size() - 2] == 0xFF && j.back() == 0xD9) << "EOI";
    // Walk the header segments to the frame header (SOF0..3); it must be baseline (SOF0).
    size_t p = 2;
    while (p + 4 <= j.size() && j[p] == 0xFF && j[p + 1] != 0xDA && (j[p + 1] < 0xC0 || j[p + 1] > 0xC3))
        p += 2 + (size_t(j[p + 2]) << 8 | j[p + 3]);
    ASSERT_TRUE(p + 19 <= j.size() && j[p + 1] == 0xC0) << "no baseline frame header";
    const uint8_t* f = j.data() + p + 4;
    // 8 bit, h x w, three components: luma 2x1, chroma 1x1 (4:2:2).
    EXPECT_EQ((std::array<int, 7>{f[0], f[1] << 8 | f[2], f[3] << 8 | f[4], f[5], f[7], f[10], f[13]}),
              (std::array<int, 7>{8, h, w, 3, 0x21, 0x11, 0x11}));
}

void checkHevc(const std::vector<int>& t, bool key)
{
    const auto isVcl = [](int type) { return type < 32; };
    ASSERT_EQ(std::count_if(t.begin(), t.end(), isVcl), 1) << "one picture per unit";
    const auto at = [&t](int type) { return std::find(t.begin(), t.end(), type) - t.begin(); };
    const long vcl = std::find_if(t.begin(), t.end(), isVcl) - t.begin();
    EXPECT_EQ(t[size_t(vcl)] == 19 || t[size_t(vcl)] == 20, key) << "IDR, type " << t[size_t(vcl)];
    if (key) {
        EXPECT_LT(at(32), at(33)) << "VPS before SPS";
        EXPECT_LT(at(33), at(34)) << "SPS before PPS";
        EXPECT_LT(at(34), vcl) << "PPS before the picture";
    } else {
        EXPECT_EQ(at(32), long(t.size())) << "parameter sets only at IDRs";
    }
}

class CodedClip : public ::testing::TestWithParam<Clip> {};

TEST_P(CodedClip, RendersLoopingUnitsWithTheFormatsStructure)
{
    const Clip& c = GetParam();
    const auto s = ContentSource::get(c.fourcc, c.w, c.h, c.options());
    ASSERT_TRUE(s);
    test::checkRender(*s, 1);
    for (int i = 0; i < c.clipFrames + c.keyInterval + 1; ++i) {
        SCOPED_TRACE("frame " + std::to_string(i));
        const auto au = frame(*s, uint64_t(i));
        const bool key = c.fourcc == kFourccMJPG || i % c.clipFrames % c.keyInterval == 0;
        EXPECT_EQ(s->isKeyFrame(uint64_t(i)), key);
        if (i >= c.clipFrames) {
            EXPECT_EQ(au, frame(*s, uint64_t(i - c.clipFrames))) << "the clip loops";
        }
        if (c.fourcc == kFourccMJPG) {
            checkJpeg(au, c.w, c.h);
            continue;
        }
        ASSERT_TRUE(au.size() > 4 && au[0] == 0 && au[1] == 0 && (au[2] == 1 || au[3] == 1))
            << "starts with a start code";
        if (c.fourcc == kFourccH264)
            EXPECT_EQ(nalTypes(au, false), (key ? std::vector<int>{7, 8, 5} : std::vector<int>{1}));
        else
            checkHevc(nalTypes(au, true), key);
    }
    if (!c.hevcMinFrameBytes)
        return;
    // Padding appends exactly one filler NAL unit to the plain clip's unit.
    ContentOptions plainOptions = c.options();
    plainOptions.hevcMinFrameBytes = 0;
    const auto plain = ContentSource::get(c.fourcc, c.w, c.h, plainOptions);
    ASSERT_TRUE(plain);
    for (uint64_t i = 0; i < uint64_t(c.clipFrames); ++i) {
        const auto base = frame(*plain, i), big = frame(*s, i);
        EXPECT_GT(big.size(), c.hevcMinFrameBytes);
        ASSERT_TRUE(big.size() > base.size() && std::equal(base.begin(), base.end(), big.begin()));
        const auto types = nalTypes(big, true);
        EXPECT_EQ(types.size(), nalTypes(base, true).size() + 1);
        EXPECT_EQ(types.back(), 38) << "filler data";
    }
}

INSTANTIATE_TEST_SUITE_P(
    Clips, CodedClip,
    ::testing::Values(Clip{"H264", kFourccH264, 640, 480, 12, 5, 0},
                      // Not a multiple of 16: the encoders must crop, not refuse.
                      Clip{"H264Cropped", kFourccH264, 642, 362, 6, 3, 0},
                      Clip{"H264AllIdr", kFourccH264, 320, 240, 3, 1, 0},
                      Clip{"HEVC", kFourccHEVC, 640, 480, 8, 4, 0},
                      Clip{"HEVCCropped", kFourccHEVC, 642, 362, 4, 2, 0},
                      // Larger than a full HD YUYV picture, to exercise splitting big frames.
                      Clip{"HEVCPadded", kFourccHEVC, 640, 480, 4, 2, 3110401},
                      Clip{"MJPEG", kFourccMJPG, 640, 480, 3, 1, 0},
                      Clip{"MJPEGCropped", kFourccMJPG, 642, 362, 3, 1, 0}),
    ::testing::PrintToStringParamName());

} // namespace
} // namespace simcam
