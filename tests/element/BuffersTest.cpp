// Capture buffers and the driver's streaming state.

#include <linux/videodev2.h>

#include <cerrno>

#include "SimElementFixture.h"

namespace {

using namespace testsupport;

class Buffers : public SimElementTest {};

int filledSlots(const V4LCameraCapturePlugin& e)
{
    int n = 0;
    for (const auto& frame : e.m_frames)
        n += frame != nullptr;
    return n;
}

// Buffers the driver grants, and the slots filled and queued.
class Grant : public Buffers, public testing::WithParamInterface<std::pair<int, int>> {};

TEST_P(Grant, FillsAndQueuesNoMoreThanFourSlots)
{
    const auto [granted, filled] = GetParam();
    useCamera(kH264, "grant=" + std::to_string(granted));
    prepare();
    EXPECT_EQ(filledSlots(*element), filled);
    EXPECT_EQ(simcam::stats().ioctlCount(VIDIOC_QBUF), uint64_t(filled));
    EXPECT_EQ(simcam::stats().buffersQueued, filled);
    EXPECT_NE(element->m_mediaMem, nullptr);

    element->v4l2_release_buffer();
    EXPECT_EQ(filledSlots(*element), 0);
    EXPECT_EQ(element->m_mediaMem, nullptr);
}

INSTANTIATE_TEST_SUITE_P(Counts, Grant, testing::Values(std::pair(0, 0), std::pair(2, 2), std::pair(8, 4)));

struct LayoutCase {
    uint32_t fourcc;
    int width, height;
    uint32_t bytes;
    uint32_t horStride;
    uint64_t pixelFormat;
};

class Layout : public Buffers, public testing::WithParamInterface<LayoutCase> {};

TEST_P(Layout, SizeStridesAndFormatFollowTheCaptureFormat)
{
    const LayoutCase& c = GetParam();
    useCamera(c.fourcc, "", c.width, c.height);
    prepare();
    for (const auto& frame : element->m_frames) {
        ASSERT_NE(frame, nullptr);
        EXPECT_TRUE(frame->fd >= 0 && frame->data != nullptr);
        EXPECT_EQ(std::tuple(frame->size, frame->width, frame->height, frame->horStride, frame->verStride, frame->format),
                  std::tuple(c.bytes, uint32_t(c.width), uint32_t(c.height), c.horStride, uint32_t(c.height), c.pixelFormat));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Formats, Layout,
    testing::Values(LayoutCase{kYUYV, 640, 480, 921600, 1280, Codec::PIXEL_FORMAT_YUYV},
                    LayoutCase{kNV12, 1920, 1080, 6266880, 1920, Codec::PIXEL_FORMAT_NV12},  // 1080 rows align to 1088
                    LayoutCase{kMJPG, 642, 362, 3 * 656 * 368, 0, 0}));

struct SetupFailure {
    const char* name;
    const char* fault;  // model text
    const char* message;
    int filledLeft;
    bool allocator;
};

class SetupFails : public Buffers, public testing::WithParamInterface<SetupFailure> {};

TEST_P(SetupFails, LeavesWhatItMadeForReleaseToFree)
{
    useCamera(kH264, GetParam().fault);
    ASSERT_EQ(element->v4l2_dev_open(), 0);
    ASSERT_EQ(element->v4l2_set_format(), 0);
    EXPECT_EQ(element->v4l2_init_buffer(), -1);
    EXPECT_TRUE(log.contains(GetParam().message, 0));
    EXPECT_EQ(filledSlots(*element), GetParam().filledLeft);
    EXPECT_EQ(element->m_mediaMem != nullptr, GetParam().allocator);

    // A second setup replaces what the first left, frames before their allocator (the
    // codec library reports the opposite order), then release frees all of it.
    simcam::setFaults({}, "video0");
    EXPECT_EQ(element->v4l2_init_buffer(), 0);
    EXPECT_EQ(filledSlots(*element), 4);
    element->v4l2_release_buffer();
    EXPECT_EQ(filledSlots(*element), 0);
    EXPECT_FALSE(log.contains("still attached"));
    EXPECT_FALSE(log.contains("after its allocator"));
}

INSTANTIATE_TEST_SUITE_P(
    Steps, SetupFails,
    testing::Values(SetupFailure{"reqbufs", "reqbufs=ENOMEM", "request buffer failed", 0, false},
                    SetupFailure{"querybuf", "querybuf=EINVAL@2", "VIDIOC_QUERYBUF failed!!  n_buffers=2", 2, true},
                    SetupFailure{"qbuf", "qbuf=EINVAL@1", "enqueue failed index = 1  error=-1", 2, true}),
    [](const testing::TestParamInfo<SetupFailure>& info) { return std::string(info.param.name); });

// The streaming flag is shared by every element of the process and guards stream on; a
// refused stream on leaves it down; stream off always asks the driver and always succeeds.
TEST_F(Buffers, StreamingFlagIsSharedAndStreamOffAlwaysSucceeds)
{
    useCamera(kH264);
    prepare();
    EXPECT_EQ(element->v4l2_stream_on(), 0);
    EXPECT_TRUE(V4LCameraCapturePlugin::m_isStreaming);
    EXPECT_TRUE(log.contains("open stream succed", 2));
    V4LCameraCapturePlugin other;
    other.m_fd = element->m_fd;
    EXPECT_EQ(other.v4l2_stream_on(), 0);
    EXPECT_TRUE(log.contains("v4l2_stream_on#m_isStreaming() true", 0));
    EXPECT_EQ(simcam::stats().ioctlCount(VIDIOC_STREAMON), 1u);
    other.m_fd = -1;
    EXPECT_EQ(element->v4l2_stream_off(), 0);
    EXPECT_FALSE(V4LCameraCapturePlugin::m_isStreaming);
    EXPECT_FALSE(simcam::stats().streaming());

    simcam::modifyFaults([](simcam::Faults& f) { f.streamonErrno = EIO; }, "video0");
    EXPECT_EQ(element->v4l2_stream_on(), -1);
    EXPECT_FALSE(V4LCameraCapturePlugin::m_isStreaming);
    EXPECT_TRUE(log.contains("v4l2_stream_on#open stream failed", 0));
    EXPECT_EQ(element->v4l2_stream_off(), 0);  // not streaming
    EXPECT_EQ(simcam::stats().ioctlCount(VIDIOC_STREAMOFF), 2u);

    V4LCameraCapturePlugin::m_isStreaming = true;
    const int fd = std::exchange(element->m_fd, -1);  // the driver refuses
    EXPECT_EQ(element->v4l2_stream_off(), 0);
    EXPECT_FALSE(V4LCameraCapturePlugin::m_isStreaming);
    EXPECT_TRUE(log.contains("off stream failed", 0));
    element->m_fd = fd;
}

} // namespace
