// The moving picture itself: deterministic, moving, carrying its index, and drawn the same
// through every output layout.
#include "content/Pattern.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>
#include <time.h>
#include <vector>

namespace simcam {
namespace {

enum class Layout { YUYV, NV12, I420 };

// Renders with rows `pad` bytes longer than needed; returns the luma samples packed.
struct Rendered {
    std::vector<uint8_t> buffer;
    std::vector<uint8_t> luma;
};

Rendered draw(const Pattern& p, Layout layout, uint64_t index, size_t pad = 0)
{
    const size_t w = size_t(p.width()), h = size_t(p.height());
    Rendered r;
    r.luma.resize(w * h);
    if (layout == Layout::YUYV) {
        const size_t stride = 2 * w + pad;
        r.buffer.assign(stride * h, 0xA5);
        p.renderYUYV(index, r.buffer.data(), stride);
        for (size_t y = 0; y < h; ++y)
            for (size_t x = 0; x < w; ++x)
                r.luma[y * w + x] = r.buffer[y * stride + 2 * x];
        return r;
    }
    const size_t ys = w + pad;
    const size_t cs = (layout == Layout::NV12 ? w : w / 2) + pad;
    r.buffer.assign(ys * h + cs * h, 0xA5); // chroma area generous for both
    uint8_t* c = r.buffer.data() + ys * h;
    if (layout == Layout::NV12)
        p.renderNV12(index, r.buffer.data(), ys, c, cs);
    else
        p.renderI420(index, r.buffer.data(), ys, c, cs, c + cs * (h / 2), cs);
    for (size_t y = 0; y < h; ++y)
        std::copy_n(r.buffer.data() + y * ys, w, r.luma.data() + y * w);
    return r;
}

struct Case {
    Layout layout;
    int w, h;
};

std::string describe(const Case& c)
{
    static const char* const names[] = {"YUYV", "NV12", "I420"};
    return std::string(names[int(c.layout)]) + "_" + std::to_string(c.w) + "x" + std::to_string(c.h);
}
void PrintTo(const Case& c, std::ostream* os) { *os << describe(c); }

class PatternLayouts : public ::testing::TestWithParam<Case> {};

TEST_P(PatternLayouts, StampCarriesTheIndex)
{
    const Case c = GetParam();
    const Pattern p(c.w, c.h);
    for (uint64_t index : {0ull, 1ull, 29ull, 0x5555AAAAull, 0xFFFFFFFFull, (1ull << 40) + 7}) {
        const Rendered r = draw(p, c.layout, index);
        uint32_t got = 0;
        ASSERT_TRUE(Pattern::readStamp(r.luma.data(), size_t(c.w), 1, c.w, c.h, &got));
        EXPECT_EQ(got, uint32_t(index)) << "index " << index;
    }
}

TEST_P(PatternLayouts, SameIndexSamePictureAndNeighboursDifferBelowTheStamp)
{
    const Case c = GetParam();
    const Pattern p(c.w, c.h);
    const auto a = draw(p, c.layout, 17).buffer;
    EXPECT_EQ(a, draw(Pattern(c.w, c.h), c.layout, 17).buffer);
    // The stamp alone would make neighbours differ; the picture must move too.
    const size_t skip = size_t(c.w) * Pattern::kStampRows;
    const auto l0 = draw(p, c.layout, 17).luma;
    const auto l1 = draw(p, c.layout, 18).luma;
    EXPECT_FALSE(std::equal(l0.begin() + skip, l0.end(), l1.begin() + skip));
}

TEST_P(PatternLayouts, PaddedStridesGiveTheSamePictureAndLeavePaddingAlone)
{
    const Case c = GetParam();
    const Pattern p(c.w, c.h);
    const size_t pad = 24;
    const Rendered tight = draw(p, c.layout, 5);
    const Rendered padded = draw(p, c.layout, 5, pad);
    EXPECT_EQ(tight.luma, padded.luma);
    const size_t rowBytes = c.layout == Layout::YUYV ? 2 * size_t(c.w) : size_t(c.w);
    for (int y = 0; y < c.h; ++y) {
        const uint8_t* tail = padded.buffer.data() + y * (rowBytes + pad) + rowBytes;
        ASSERT_TRUE(std::all_of(tail, tail + pad, [](uint8_t b) { return b == 0xA5; }))
            << "row " << y;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Sizes, PatternLayouts,
    ::testing::Values(Case{Layout::YUYV, 640, 480}, Case{Layout::NV12, 640, 480},
                      Case{Layout::I420, 640, 480}, Case{Layout::YUYV, 1280, 720},
                      Case{Layout::NV12, 1280, 720}, Case{Layout::I420, 1280, 720},
                      Case{Layout::NV12, 1920, 1080}, Case{Layout::YUYV, 66, 34}),
    [](const ::testing::TestParamInfo<Case>& i) { return describe(i.param); });

TEST(Pattern, AllLayoutsDrawTheSameLuma)
{
    const Pattern p(320, 240);
    for (uint64_t index : {0u, 3u, 200u}) {
        const auto yuyv = draw(p, Layout::YUYV, index).luma;
        EXPECT_EQ(yuyv, draw(p, Layout::NV12, index).luma);
        EXPECT_EQ(yuyv, draw(p, Layout::I420, index).luma);
    }
}

TEST(Pattern, TinyPicturesWorkWithoutAStamp)
{
    const Pattern p(16, 8);
    const Rendered r = draw(p, Layout::YUYV, 3);
    uint32_t got = 0;
    EXPECT_FALSE(Pattern::readStamp(r.luma.data(), 16, 1, 16, 8, &got));
}

TEST(Pattern, RejectsOddOrEmptySizes)
{
    for (auto [w, h] : {std::pair{641, 480}, {640, 481}, {0, 480}, {640, -2}})
        EXPECT_THROW(Pattern(w, h), std::invalid_argument) << w << "x" << h;
}

#if defined(NDEBUG) && !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
double threadCpuMs()
{
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return double(ts.tv_sec) * 1e3 + double(ts.tv_nsec) / 1e6;
}

TEST(Pattern, FullHdFrameRendersInAFewMilliseconds)
{
    // CPU time, not wall time, so a busy build machine doesn't fail it.
    const Pattern p(1920, 1080);
    std::vector<uint8_t> buf(1920 * 1080 * 2);
    std::vector<double> ms;
    for (int i = 0; i < 15; ++i) {
        const double t0 = threadCpuMs();
        p.renderYUYV(uint64_t(i), buf.data(), 1920 * 2);
        ms.push_back(threadCpuMs() - t0);
    }
    std::nth_element(ms.begin(), ms.begin() + 7, ms.end());
    RecordProperty("median_ms", std::to_string(ms[7]));
    EXPECT_LT(ms[7], 10.0);
}
#endif

} // namespace
} // namespace simcam
