// ContentSource::get and the frame contract every format shares: sizes, looping,
// refusing small buffers, caching.
#include "TestSupport.h"

#include "content/Pattern.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <thread>
#include <tuple>

namespace simcam {
namespace {

using test::fourccName;
using test::frame;

struct Case {
    uint32_t fourcc;
    int w, h;
};

std::string describe(const Case& c)
{
    return fourccName(c.fourcc) + "_" + std::to_string(c.w) + "x" + std::to_string(c.h);
}
void PrintTo(const Case& c, std::ostream* os) { *os << describe(c); }
std::string caseName(const ::testing::TestParamInfo<Case>& i) { return describe(i.param); }

bool isRaw(uint32_t f) { return f == kFourccYUYV || f == kFourccNV12; }

ContentOptions shortClip()
{
    ContentOptions o;
    o.clipFrames = 6;
    o.keyInterval = 3;
    return o;
}

class EveryFormat : public ::testing::TestWithParam<Case> {
protected:
    std::shared_ptr<const ContentSource> source() const
    {
        const Case c = GetParam();
        return ContentSource::get(c.fourcc, c.w, c.h, shortClip());
    }
};

TEST_P(EveryFormat, RenderWritesExactlyFrameSize)
{
    const Case c = GetParam();
    const auto s = source();
    ASSERT_TRUE(s);
    EXPECT_EQ(std::tuple(s->fourcc(), s->width(), s->height()), std::tuple(c.fourcc, c.w, c.h));
    for (uint64_t i : {0ull, 1ull, 4ull, 1000001ull}) {
        const size_t n = s->frameSize(i);
        if (c.fourcc == kFourccYUYV)
            EXPECT_EQ(n, size_t(c.w) * c.h * 2);
        else if (c.fourcc == kFourccNV12)
            EXPECT_EQ(n, size_t(c.w) * c.h * 3 / 2);
        else
            EXPECT_GT(n, 0u);
        std::vector<uint8_t> buf(n + 16, 0x5A);
        EXPECT_EQ(s->render(i, buf.data(), buf.size()), n);
        EXPECT_TRUE(std::all_of(buf.begin() + n, buf.end(), [](uint8_t b) { return b == 0x5A; }))
            << "wrote past frameSize";
    }
}

TEST_P(EveryFormat, RefusesTooSmallBufferWithoutWriting)
{
    const auto s = source();
    ASSERT_TRUE(s);
    const size_t n = s->frameSize(2);
    std::vector<uint8_t> buf(n, 0x5A);
    for (size_t cap : {size_t(0), n / 2, n - 1}) {
        EXPECT_EQ(s->render(2, buf.data(), cap), 0u) << "capacity " << cap;
        EXPECT_TRUE(std::all_of(buf.begin(), buf.end(), [](uint8_t b) { return b == 0x5A; }));
    }
}

TEST_P(EveryFormat, CodedClipsLoopAndRawPicturesKeepMoving)
{
    const Case c = GetParam();
    const auto s = source();
    ASSERT_TRUE(s);
    const uint64_t len = uint64_t(shortClip().clipFrames);
    if (isRaw(c.fourcc)) {
        EXPECT_NE(frame(*s, 0), frame(*s, len));
        EXPECT_NE(frame(*s, 3), frame(*s, 4));
        EXPECT_EQ(frame(*s, 3), frame(*s, 3));
        return;
    }
    for (uint64_t i = 0; i < len; ++i) {
        EXPECT_EQ(frame(*s, i), frame(*s, i + len)) << "frame " << i;
        EXPECT_EQ(frame(*s, i), frame(*s, i + 7 * len)) << "frame " << i;
    }
    for (uint64_t i = 1; i < len; ++i)
        EXPECT_NE(frame(*s, i - 1), frame(*s, i)) << "frame " << i;
}

TEST_P(EveryFormat, KeyFramesFollowTheKeyInterval)
{
    const Case c = GetParam();
    const auto s = source();
    ASSERT_TRUE(s);
    const ContentOptions o = shortClip();
    for (uint64_t i = 0; i < uint64_t(3 * o.clipFrames); ++i) {
        const bool expected = (c.fourcc != kFourccH264 && c.fourcc != kFourccHEVC) ||
                              (i % uint64_t(o.clipFrames)) % uint64_t(o.keyInterval) == 0;
        EXPECT_EQ(s->isKeyFrame(i), expected) << "frame " << i;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Formats, EveryFormat,
    ::testing::Values(Case{kFourccYUYV, 640, 480}, Case{kFourccNV12, 640, 480},
                      Case{kFourccMJPG, 640, 480}, Case{kFourccH264, 640, 480},
                      Case{kFourccHEVC, 640, 480}, Case{kFourccYUYV, 1280, 720},
                      Case{kFourccNV12, 1280, 720}, Case{kFourccMJPG, 1280, 720},
                      Case{kFourccH264, 1280, 720}, Case{kFourccHEVC, 1280, 720},
                      Case{kFourccNV12, 1920, 1080}, Case{kFourccH264, 1920, 1080},
                      // Not a multiple of 16: encoders must crop, not refuse.
                      Case{kFourccH264, 642, 362}, Case{kFourccHEVC, 642, 362},
                      Case{kFourccMJPG, 642, 362}),
    caseName);

class RawFormat : public EveryFormat {};

TEST_P(RawFormat, PicturesCarryTheirIndex)
{
    const Case c = GetParam();
    const auto s = source();
    ASSERT_TRUE(s);
    const size_t step = c.fourcc == kFourccYUYV ? 2 : 1;
    for (uint64_t i : {0ull, 7ull, 123456ull}) {
        const auto f = frame(*s, i);
        uint32_t got = 0;
        ASSERT_TRUE(Pattern::readStamp(f.data(), size_t(c.w) * step, step, c.w, c.h, &got));
        EXPECT_EQ(got, i);
    }
}

INSTANTIATE_TEST_SUITE_P(Formats, RawFormat,
                         ::testing::Values(Case{kFourccYUYV, 640, 480}, Case{kFourccNV12, 640, 480},
                                           Case{kFourccYUYV, 1920, 1080}),
                         caseName);

TEST(RawLayouts, Nv12AndYuyvFramesShowTheSamePicture)
{
    // Catches plane offsets and strides: both layouts come from one picture, NV12 taking
    // the chroma of even rows.
    for (auto [w, h] : {std::pair{640, 480}, {1280, 720}, {66, 34}}) {
        SCOPED_TRACE(std::to_string(w) + "x" + std::to_string(h));
        const auto yuyv = frame(*ContentSource::get(kFourccYUYV, w, h), 9);
        const auto nv12 = frame(*ContentSource::get(kFourccNV12, w, h), 9);
        const size_t W = size_t(w), H = size_t(h);
        ASSERT_EQ(nv12.size(), W * H * 3 / 2);
        size_t lumaDiffs = 0, chromaDiffs = 0;
        for (size_t y = 0; y < H; ++y)
            for (size_t x = 0; x < W; ++x) {
                lumaDiffs += nv12[y * W + x] != yuyv[y * 2 * W + 2 * x];
                // YUYV's odd bytes run Cb Cr Cb Cr..., just like an NV12 chroma row.
                if (y % 2 == 0)
                    chromaDiffs += nv12[W * H + y / 2 * W + x] != yuyv[y * 2 * W + 2 * x + 1];
            }
        EXPECT_EQ(lumaDiffs, 0u);
        EXPECT_EQ(chromaDiffs, 0u);
    }
}

struct BadRequest {
    const char* what;
    uint32_t fourcc;
    int w, h;
    ContentOptions options;
};

ContentOptions with(int clipFrames, int keyInterval, int frameRate)
{
    ContentOptions o;
    o.clipFrames = clipFrames;
    o.keyInterval = keyInterval;
    o.frameRate = frameRate;
    return o;
}

void PrintTo(const BadRequest& b, std::ostream* os) { *os << b.what; }

class BadRequests : public ::testing::TestWithParam<BadRequest> {};

TEST_P(BadRequests, GiveNull)
{
    const BadRequest& b = GetParam();
    EXPECT_EQ(ContentSource::get(b.fourcc, b.w, b.h, b.options), nullptr) << b.what;
}

INSTANTIATE_TEST_SUITE_P(
    Cases, BadRequests,
    ::testing::Values(BadRequest{"unknown fourcc", fourcc('R', 'G', 'B', '3'), 640, 480, {}},
                      BadRequest{"zero fourcc", 0, 640, 480, {}},
                      BadRequest{"zero width", kFourccYUYV, 0, 480, {}},
                      BadRequest{"negative height", kFourccNV12, 640, -480, {}},
                      BadRequest{"odd width", kFourccYUYV, 641, 480, {}},
                      BadRequest{"odd height", kFourccH264, 640, 479, {}},
                      BadRequest{"too wide", kFourccMJPG, ContentSource::kMaxDimension + 2, 480, {}},
                      BadRequest{"empty clip", kFourccMJPG, 640, 480, with(0, 30, 30)},
                      BadRequest{"zero key interval", kFourccH264, 640, 480, with(30, 0, 30)},
                      BadRequest{"zero frame rate", kFourccHEVC, 640, 480, with(30, 30, 0)}),
    [](const ::testing::TestParamInfo<BadRequest>& i) {
        std::string n = i.param.what;
        std::replace(n.begin(), n.end(), ' ', '_');
        return n;
    });

TEST(ContentSourceCache, SharesOneSourcePerRequest)
{
    const auto a = ContentSource::get(kFourccMJPG, 320, 240, with(4, 2, 30));
    ASSERT_TRUE(a);
    EXPECT_EQ(a, ContentSource::get(kFourccMJPG, 320, 240, with(4, 2, 30)));
    // Options MJPEG ignores do not make a new clip; its length does.
    EXPECT_EQ(a, ContentSource::get(kFourccMJPG, 320, 240, with(4, 9, 15)));
    EXPECT_NE(a, ContentSource::get(kFourccMJPG, 320, 240, with(5, 2, 30)));
    EXPECT_NE(a, ContentSource::get(kFourccMJPG, 320, 242, with(4, 2, 30)));
    // Raw pictures ignore every option.
    EXPECT_EQ(ContentSource::get(kFourccYUYV, 320, 240, with(4, 2, 30)),
              ContentSource::get(kFourccYUYV, 320, 240, with(9, 9, 9)));
    // Raw options that would be invalid for a coded clip don't matter either.
    EXPECT_TRUE(ContentSource::get(kFourccNV12, 320, 240, with(0, 0, 0)));
}

TEST(ContentSourceCache, ConcurrentFirstRequestsShareOneEncode)
{
    // A size nobody else asks for, so the threads race to be first.
    std::vector<std::shared_ptr<const ContentSource>> got(6);
    std::vector<std::thread> threads;
    for (size_t t = 0; t < got.size(); ++t)
        threads.emplace_back([&got, t] {
            got[t] = ContentSource::get(t % 2 ? kFourccH264 : kFourccHEVC, 352, 288, with(3, 3, 30));
        });
    for (auto& t : threads)
        t.join();
    for (size_t t = 0; t < got.size(); ++t) {
        ASSERT_TRUE(got[t]) << t;
        EXPECT_EQ(got[t], got[t % 2]) << t;
    }
    EXPECT_NE(got[0], got[1]);
}

} // namespace
} // namespace simcam
