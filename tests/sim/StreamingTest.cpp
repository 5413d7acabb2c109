// Streaming: what lands in the imported memory, the pace frames come at, and when select()
// reports the descriptor readable.
#include "SimTest.h"

#include <algorithm>
#include <chrono>
#include <cstring>

using namespace simcam;
using namespace simtest;
using Clock = std::chrono::steady_clock;

namespace {

struct ContentCase {
    const char* model;
    uint32_t fourcc;
    std::vector<uint8_t> head, tail; // the payload's first and last bytes
    uint32_t rawBytes;               // raw formats: the exact bytesused
};
// Rows show by name in test listings, not as the bytes of the struct.
std::ostream& operator<<(std::ostream& os, const ContentCase& c) { return os << c.model; }

class Content : public SimTest, public ::testing::WithParamInterface<ContentCase> {};

TEST_P(Content, FramesAreWrittenIntoTheImportedMemory)
{
    const ContentCase& c = GetParam();
    ScopedModel model(std::string(c.model) + ",size=320x240,fps=100");
    Stream s(c.fourcc, 320, 240);
    ASSERT_EQ(s.error, 0) << s.failedAt;
    for (uint32_t i = 0; i < 5; ++i) {
        v4l2_buffer b{};
        ASSERT_EQ(s.dequeue(b), 0);
        EXPECT_EQ(b.sequence, i);
        EXPECT_EQ(b.m.fd, s.buffers[b.index].fd.get());
        EXPECT_FALSE(b.flags & V4L2_BUF_FLAG_ERROR);
        ASSERT_GE(b.bytesused, c.head.size() + c.tail.size());
        ASSERT_LE(b.bytesused, s.format.fmt.pix.sizeimage);
        if (c.rawBytes) {
            EXPECT_EQ(b.bytesused, c.rawBytes);
        } else if (i == 0) {
            EXPECT_TRUE(b.flags & V4L2_BUF_FLAG_KEYFRAME);
        }
        const uint8_t* d = s.data(b);
        EXPECT_TRUE(std::equal(c.head.begin(), c.head.end(), d));
        EXPECT_TRUE(std::equal(c.tail.begin(), c.tail.end(), d + b.bytesused - c.tail.size()));
        EXPECT_TRUE(std::any_of(d, d + b.bytesused, [](uint8_t v) { return v != 0; }));
        ASSERT_EQ(s.requeue(b), 0);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Formats, Content,
    ::testing::Values(ContentCase{"mjpeg", kFourccMJPG, {0xff, 0xd8}, {0xff, 0xd9}, 0},
                      ContentCase{"h264", kFourccH264, {0, 0, 0, 1}, {}, 0},
                      ContentCase{"hevc", kFourccHEVC, {0, 0, 0, 1}, {}, 0},
                      ContentCase{"yuyv", kFourccYUYV, {}, {}, 320 * 240 * 2},
                      ContentCase{"nv12", kFourccNV12, {}, {}, 320 * 240 * 3 / 2}),
    [](const auto& info) { return std::string(info.param.model); });

// Frames come at the configured rate, and timestamps keep the camera's rhythm, counting
// any frame a slow reader made it drop. (Unthrottled cameras pace the element's tests.)
TEST_F(SimTest, FramesComeAtTheConfiguredRate)
{
    ScopedModel model("yuyv,size=320x240,fps=50");
    Stream s(kFourccYUYV, 320, 240);
    ASSERT_EQ(s.error, 0) << s.failedAt;
    v4l2_buffer first{}, b{};
    ASSERT_EQ(s.dequeue(first), 0);
    ASSERT_EQ(s.requeue(first), 0);
    const auto start = Clock::now();
    for (int i = 0; i < 10; ++i) {
        ASSERT_EQ(s.dequeue(b), 0);
        ASSERT_EQ(s.requeue(b), 0);
    }
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    EXPECT_GT(seconds, 0.15);
    EXPECT_LT(seconds, 2.0);
    const double stamped = double(b.timestamp.tv_sec - first.timestamp.tv_sec) +
                           double(b.timestamp.tv_usec - first.timestamp.tv_usec) / 1e6;
    const uint32_t frames = b.sequence - first.sequence;
    EXPECT_GE(frames, 10u);
    // Wide enough for a clock thread that a loaded machine keeps waiting; a wrong period
    // (a unit slip, a halved or doubled rate) is off by far more.
    EXPECT_NEAR(stamped / frames, 0.02, 0.01) << frames << " in " << stamped << " s";
}

// The descriptor is readable exactly when a driver's poll would report input or an error.
TEST_F(SimTest, ReadableExactlyWhenADriversPollWouldBe)
{
    ScopedModel model("mjpeg,size=320x240,fps=100,stall");
    Stream s(kFourccMJPG, 320, 240);
    ASSERT_EQ(s.error, 0) << s.failedAt;
    v4l2_buffer b = captureBuffer();
    EXPECT_FALSE(readable(s.fd.get(), 200)) << "streaming, nothing filled";
    EXPECT_EQ(xioctl(s.fd.get(), VIDIOC_DQBUF, &b), EAGAIN);

    modifyFaults([](Faults& f) { f.dqbufErrno = EIO; });
    EXPECT_TRUE(readable(s.fd.get(), 100)) << "a pending error";
    EXPECT_EQ(s.dequeue(b, 0), EIO);
    modifyFaults([](Faults& f) { f.dqbufErrno = 0; });
    EXPECT_FALSE(readable(s.fd.get(), 100)) << "the error was cleared";

    modifyFaults([](Faults& f) { f.stall = false; });
    EXPECT_EQ(s.dequeue(b, 1000), 0) << "a filled buffer";

    ASSERT_EQ(s.streamCtl(VIDIOC_STREAMOFF), 0);
    EXPECT_EQ(s.dequeue(b, 0), EINVAL) << "a stopped queue is readable";
    b = captureBuffer(0, s.buffers[0].fd.get(), uint32_t(s.buffers[0].size));
    ASSERT_EQ(s.requeue(b), 0);
    EXPECT_TRUE(readable(s.fd.get(), 0)) << "stopped, even with a buffer queued";
}

} // namespace
