// ContentSource::get: refusing bad requests, raw pictures, caching.
#include "TestSupport.h"

#include "content/Pattern.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

namespace simcam {
namespace {

using test::clip;
using test::frame;

TEST(ContentSource, RefusesBadRequests)
{
    const struct {
        const char* what;
        uint32_t fourcc;
        int w, h;
        ContentOptions options;
    } bad[] = {
        {"unknown fourcc", fourcc('R', 'G', 'B', '3'), 640, 480, {}},
        {"zero width", kFourccYUYV, 0, 480, {}},
        {"negative height", kFourccNV12, 640, -480, {}},
        {"odd width", kFourccYUYV, 641, 480, {}},
        {"odd height", kFourccH264, 640, 479, {}},
        {"too wide", kFourccMJPG, ContentSource::kMaxDimension + 2, 480, {}},
        {"empty clip", kFourccMJPG, 640, 480, clip(0)},
        {"zero key interval", kFourccH264, 640, 480, clip(30, 0)},
        {"zero frame rate", kFourccHEVC, 640, 480, clip(30, 30, 0)},
    };
    for (const auto& b : bad)
        EXPECT_EQ(ContentSource::get(b.fourcc, b.w, b.h, b.options), nullptr) << b.what;
}

// Both raw layouts come from one picture: catches plane offsets and strides. NV12 takes
// the chroma of even rows, and YUYV's odd bytes run Cb Cr Cb Cr like an NV12 chroma row.
TEST(RawContent, YuyvAndNv12ShowTheSameMovingPicture)
{
    for (auto [w, h] : {std::pair{640, 480}, {66, 34}}) {
        SCOPED_TRACE(std::to_string(w) + "x" + std::to_string(h));
        const auto yuyvSource = ContentSource::get(kFourccYUYV, w, h);
        const auto nv12Source = ContentSource::get(kFourccNV12, w, h);
        const size_t W = size_t(w), H = size_t(h);
        for (uint64_t i : {9ull, 123456ull}) {
            const auto yuyv = frame(*yuyvSource, i), nv12 = frame(*nv12Source, i);
            ASSERT_EQ(yuyv.size(), W * H * 2);
            ASSERT_EQ(nv12.size(), W * H * 3 / 2);
            test::checkRender(*yuyvSource, i);
            test::checkRender(*nv12Source, i);
            size_t lumaDiffs = 0, chromaDiffs = 0;
            for (size_t y = 0; y < H; ++y)
                for (size_t x = 0; x < W; ++x) {
                    lumaDiffs += nv12[y * W + x] != yuyv[y * 2 * W + 2 * x];
                    if (y % 2 == 0)
                        chromaDiffs += nv12[W * H + y / 2 * W + x] != yuyv[y * 2 * W + 2 * x + 1];
                }
            EXPECT_EQ(lumaDiffs, 0u);
            EXPECT_EQ(chromaDiffs, 0u);
            uint32_t stamp = 0;
            ASSERT_TRUE(Pattern::readStamp(nv12.data(), W, 1, w, h, &stamp));
            EXPECT_EQ(stamp, uint32_t(i));
            // The stamp alone would make neighbours differ; the picture must move too.
            const auto next = frame(*nv12Source, i + 1);
            const long skip = long(W) * Pattern::kStampRows;
            EXPECT_FALSE(std::equal(nv12.begin() + skip, nv12.end(), next.begin() + skip));
        }
    }
}

TEST(ContentSourceCache, ConcurrentFirstRequestsShareOneSource)
{
    // A size nobody else asks for, so the threads race to encode it first.
    std::vector<std::shared_ptr<const ContentSource>> got(6);
    std::vector<std::thread> threads;
    for (size_t t = 0; t < got.size(); ++t)
        threads.emplace_back([&got, t] {
            got[t] = ContentSource::get(t % 2 ? kFourccH264 : kFourccHEVC, 352, 288, clip(3, 3));
        });
    for (auto& t : threads)
        t.join();
    for (size_t t = 0; t < got.size(); ++t) {
        ASSERT_TRUE(got[t]) << t;
        EXPECT_EQ(got[t], got[t % 2]) << t;
    }
    EXPECT_NE(got[0], got[1]);
    EXPECT_NE(got[1], ContentSource::get(kFourccH264, 352, 288, clip(3, 1))) << "options ignored";
}

} // namespace
} // namespace simcam
