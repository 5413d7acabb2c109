// Structure of the coded frames: what a parser on the receiving side relies on.
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>

namespace simcam {
namespace {

using test::frame;
using test::nalTypes;
using test::splitAnnexB;

struct GopCase {
    int w, h, clipFrames, keyInterval;
};

std::string describe(const GopCase& c)
{
    return std::to_string(c.w) + "x" + std::to_string(c.h) + "_clip" +
           std::to_string(c.clipFrames) + "_key" + std::to_string(c.keyInterval);
}
void PrintTo(const GopCase& c, std::ostream* os) { *os << describe(c); }
std::string gopName(const ::testing::TestParamInfo<GopCase>& i) { return describe(i.param); }

ContentOptions gop(const GopCase& c)
{
    ContentOptions o;
    o.clipFrames = c.clipFrames;
    o.keyInterval = c.keyInterval;
    return o;
}

bool startsWithStartCode(const std::vector<uint8_t>& b)
{
    static const uint8_t four[] = {0, 0, 0, 1}, three[] = {0, 0, 1};
    return (b.size() >= 4 && std::equal(four, four + 4, b.begin())) ||
           (b.size() >= 3 && std::equal(three, three + 3, b.begin()));
}

// Position of the first `type` in `types`, or -1.
int find(const std::vector<int>& types, int type)
{
    auto it = std::find(types.begin(), types.end(), type);
    return it == types.end() ? -1 : int(it - types.begin());
}

// The parameter-set NAL units of one access unit, keyed by type, header included.
std::map<int, std::vector<uint8_t>> parameterSets(const std::vector<uint8_t>& au, bool hevc)
{
    std::map<int, std::vector<uint8_t>> out;
    for (const auto& n : splitAnnexB(au)) {
        const int t = hevc ? test::hevcType(au, n) : test::h264Type(au, n);
        if (hevc ? (t >= 32 && t <= 34) : (t == 7 || t == 8))
            out[t].assign(au.begin() + long(n.payload), au.begin() + long(n.end));
    }
    return out;
}

class H264Gop : public ::testing::TestWithParam<GopCase> {};

TEST_P(H264Gop, IdrsCarryParameterSetsAndPFramesFillTheGap)
{
    const GopCase c = GetParam();
    const auto s = ContentSource::get(kFourccH264, c.w, c.h, gop(c));
    ASSERT_TRUE(s);
    for (int i = 0; i < c.clipFrames; ++i) {
        SCOPED_TRACE("frame " + std::to_string(i));
        const auto au = frame(*s, uint64_t(i));
        ASSERT_TRUE(startsWithStartCode(au));
        const auto t = nalTypes(au, false);
        const int slices = int(std::count(t.begin(), t.end(), 1) + std::count(t.begin(), t.end(), 5));
        EXPECT_EQ(slices, 1) << "one picture, one slice per access unit";
        if (i % c.keyInterval == 0) {
            EXPECT_EQ(t, (std::vector<int>{7, 8, 5}));
            EXPECT_TRUE(s->isKeyFrame(uint64_t(i)));
            // Unchanged at every IDR, so a receiver's stored stream headers stay valid.
            EXPECT_EQ(parameterSets(au, false), parameterSets(frame(*s, 0), false));
        } else {
            EXPECT_EQ(t, std::vector<int>{1});
            EXPECT_FALSE(s->isKeyFrame(uint64_t(i)));
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Clips, H264Gop,
                         ::testing::Values(GopCase{640, 480, 12, 5}, GopCase{1280, 720, 10, 10},
                                           GopCase{640, 480, 4, 1}, GopCase{1280, 720, 6, 30},
                                           GopCase{1920, 1080, 8, 4}),
                         gopName);

bool isHevcIdr(int t) { return t == 19 || t == 20; }
bool isHevcVcl(int t) { return t < 32; }

class HevcGop : public ::testing::TestWithParam<GopCase> {};

TEST_P(HevcGop, IdrsCarryParameterSetsAndEachUnitIsOnePicture)
{
    const GopCase c = GetParam();
    const auto s = ContentSource::get(kFourccHEVC, c.w, c.h, gop(c));
    ASSERT_TRUE(s);
    for (int i = 0; i < c.clipFrames; ++i) {
        SCOPED_TRACE("frame " + std::to_string(i));
        const auto au = frame(*s, uint64_t(i));
        ASSERT_TRUE(startsWithStartCode(au));
        const auto t = nalTypes(au, true);
        ASSERT_EQ(std::count_if(t.begin(), t.end(), isHevcVcl), 1) << "one picture per unit";
        const int vcl = int(std::find_if(t.begin(), t.end(), isHevcVcl) - t.begin());
        if (i % c.keyInterval == 0) {
            EXPECT_TRUE(isHevcIdr(t[size_t(vcl)])) << "type " << t[size_t(vcl)];
            const int vps = find(t, 32), sps = find(t, 33), pps = find(t, 34);
            ASSERT_GE(vps, 0);
            EXPECT_LT(vps, sps);
            EXPECT_LT(sps, pps);
            EXPECT_LT(pps, vcl);
            EXPECT_TRUE(s->isKeyFrame(uint64_t(i)));
            EXPECT_EQ(parameterSets(au, true), parameterSets(frame(*s, 0), true));
        } else {
            EXPECT_FALSE(isHevcIdr(t[size_t(vcl)]));
            EXPECT_EQ(find(t, 32), -1) << "parameter sets only at IDRs";
            EXPECT_FALSE(s->isKeyFrame(uint64_t(i)));
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Clips, HevcGop,
                         ::testing::Values(GopCase{640, 480, 12, 5}, GopCase{1280, 720, 10, 10},
                                           GopCase{640, 480, 4, 1}, GopCase{1920, 1080, 8, 4}),
                         gopName);

// Padding to a minimum size: checked against the same clip unpadded.
struct PadCase {
    const char* name;
    int w, h;
    // The minimum, from the unpadded clip's sizes: either fixed, or relative to frame 1.
    size_t fixed;
    long relativeToFrame1;
};

void PrintTo(const PadCase& c, std::ostream* os) { *os << c.name; }

class HevcPadding : public ::testing::TestWithParam<PadCase> {};

TEST_P(HevcPadding, EveryUnitExceedsTheMinimumAndKeepsItsPicture)
{
    const PadCase c = GetParam();
    ContentOptions o;
    o.clipFrames = 4;
    o.keyInterval = 2;
    const auto plain = ContentSource::get(kFourccHEVC, c.w, c.h, o);
    ASSERT_TRUE(plain);
    o.hevcMinFrameBytes = c.fixed ? c.fixed : size_t(long(plain->frameSize(1)) + c.relativeToFrame1);
    const auto padded = ContentSource::get(kFourccHEVC, c.w, c.h, o);
    ASSERT_TRUE(padded);
    ASSERT_NE(plain, padded);
    for (uint64_t i = 0; i < 8; ++i) {
        SCOPED_TRACE("frame " + std::to_string(i));
        const auto base = frame(*plain, i);
        const auto big = frame(*padded, i);
        EXPECT_EQ(padded->isKeyFrame(i), plain->isKeyFrame(i));
        if (base.size() > o.hevcMinFrameBytes) {
            EXPECT_EQ(big, base) << "already large enough";
            continue;
        }
        EXPECT_GT(big.size(), o.hevcMinFrameBytes);
        ASSERT_TRUE(std::equal(base.begin(), base.end(), big.begin()));
        // Exactly one NAL unit added, a filler: 0xFF bytes closed by the stop bit.
        const auto nals = splitAnnexB(big);
        const auto& fd = nals.back();
        EXPECT_EQ(fd.start, base.size());
        EXPECT_EQ(nals.size(), splitAnnexB(base).size() + 1);
        EXPECT_EQ(test::hevcType(big, fd), 38);
        EXPECT_EQ(big[fd.payload + 1], 0x01) << "layer 0, temporal id 0";
        EXPECT_TRUE(std::all_of(big.begin() + long(fd.payload + 2), big.end() - 1,
                                [](uint8_t b) { return b == 0xFF; }));
        EXPECT_EQ(big.back(), 0x80);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Sizes, HevcPadding,
    ::testing::Values(PadCase{"LargerThanAFullHdYuyvPicture", 640, 480, 3110401, 0},
                      PadCase{"JustBelowFrame1", 640, 480, 0, -1},
                      PadCase{"EqualToFrame1", 640, 480, 0, 0},
                      PadCase{"JustAboveFrame1", 1280, 720, 0, 1}),
    [](const ::testing::TestParamInfo<PadCase>& i) { return std::string(i.param.name); });

struct JpegCase {
    int w, h;
};
void PrintTo(const JpegCase& c, std::ostream* os) { *os << c.w << "x" << c.h; }

class MjpegFrames : public ::testing::TestWithParam<JpegCase> {};

TEST_P(MjpegFrames, AreCompleteBaselineJpegsSampled422)
{
    const JpegCase c = GetParam();
    ContentOptions o;
    o.clipFrames = 3;
    const auto s = ContentSource::get(kFourccMJPG, c.w, c.h, o);
    ASSERT_TRUE(s);
    for (uint64_t i = 0; i < 3; ++i) {
        SCOPED_TRACE("frame " + std::to_string(i));
        const auto j = frame(*s, i);
        ASSERT_GT(j.size(), 4u);
        EXPECT_EQ(j[0], 0xFF);
        EXPECT_EQ(j[1], 0xD8);
        EXPECT_EQ(j[j.size() - 2], 0xFF);
        EXPECT_EQ(j[j.size() - 1], 0xD9);
        // Walk the header segments up to the scan.
        size_t p = 2;
        bool sof0 = false;
        while (p + 4 <= j.size() && j[p] == 0xFF && j[p + 1] != 0xDA) {
            const uint8_t marker = j[p + 1];
            const size_t len = size_t(j[p + 2]) << 8 | j[p + 3];
            EXPECT_NE(marker, 0xC2) << "progressive";
            if (marker == 0xC0) {
                sof0 = true;
                ASSERT_GE(len, 17u);
                const uint8_t* f = j.data() + p + 4;
                EXPECT_EQ(f[0], 8) << "precision";
                EXPECT_EQ(int(f[1]) << 8 | f[2], c.h);
                EXPECT_EQ(int(f[3]) << 8 | f[4], c.w);
                ASSERT_EQ(f[5], 3);
                EXPECT_EQ(f[7], 0x21) << "luma 2x1";
                EXPECT_EQ(f[10], 0x11);
                EXPECT_EQ(f[13], 0x11);
            }
            p += 2 + len;
        }
        EXPECT_TRUE(sof0);
        ASSERT_LT(p + 1, j.size());
        EXPECT_EQ(j[p + 1], 0xDA) << "scan follows the headers";
    }
}

INSTANTIATE_TEST_SUITE_P(Sizes, MjpegFrames,
                         ::testing::Values(JpegCase{640, 480}, JpegCase{1280, 720},
                                           JpegCase{1920, 1080}, JpegCase{642, 362}),
                         [](const ::testing::TestParamInfo<JpegCase>& i) {
                             return std::to_string(i.param.w) + "x" + std::to_string(i.param.h);
                         });

} // namespace
} // namespace simcam
