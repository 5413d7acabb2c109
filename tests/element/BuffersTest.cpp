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

struct GrantCase {
    int granted;
    int filled;
};

class Grant : public Buffers, public testing::WithParamInterface<GrantCase> {};

TEST_P(Grant, FillsAndQueuesNoMoreThanFourSlots)
{
    simcam::Model model = smallCamera(kH264);
    model.cameras[0].nodes[0].faults.grantBuffers = GetParam().granted;
    useCamera(model);
    ASSERT_EQ(element->v4l2_dev_open(), 0);
    ASSERT_EQ(element->v4l2_set_format(), 0);
    EXPECT_EQ(element->v4l2_init_buffer(), 0);
    EXPECT_EQ(filledSlots(*element), GetParam().filled);
    EXPECT_EQ(simcam::stats().ioctlCount(VIDIOC_QBUF), uint64_t(GetParam().filled));
    EXPECT_EQ(simcam::stats().buffersQueued, GetParam().filled);
    EXPECT_NE(element->m_mediaMem, nullptr);

    element->v4l2_release_buffer();
    EXPECT_EQ(filledSlots(*element), 0);
    EXPECT_EQ(element->m_mediaMem, nullptr);
}

INSTANTIATE_TEST_SUITE_P(Counts, Grant,
                         testing::Values(GrantCase{0, 0}, GrantCase{2, 2}, GrantCase{4, 4}, GrantCase{8, 4}));

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
    useCamera(camera({format(c.fourcc, {{uint32_t(c.width), uint32_t(c.height)}})}), c.fourcc, c.width, c.height);
    prepare();
    for (const auto& frame : element->m_frames) {
        ASSERT_NE(frame, nullptr);
        EXPECT_EQ(frame->size, c.bytes);
        EXPECT_GE(frame->fd, 0);
        EXPECT_NE(frame->data, nullptr);
        EXPECT_EQ(frame->width, uint32_t(c.width));
        EXPECT_EQ(frame->height, uint32_t(c.height));
        EXPECT_EQ(frame->verStride, uint32_t(c.height));
        EXPECT_EQ(frame->horStride, c.horStride);
        EXPECT_EQ(frame->format, c.pixelFormat);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Formats, Layout,
    testing::Values(LayoutCase{kYUYV, 640, 480, 921600, 1280, Codec::PIXEL_FORMAT_YUYV},
                    LayoutCase{kNV12, 1920, 1080, 6266880, 1920, Codec::PIXEL_FORMAT_NV12},  // 1080 rows align to 1088
                    LayoutCase{kMJPG, 642, 362, 3 * 656 * 368, 0, 0}));

struct SetupFailure {
    const char* name;
    std::function<void(simcam::Faults&)> fault;
    const char* message;
    int filledLeft;
    bool allocator;
};

class SetupFails : public Buffers, public testing::WithParamInterface<SetupFailure> {};

TEST_P(SetupFails, LeavesWhatItMadeForReleaseToFree)
{
    simcam::Model model = smallCamera(kH264);
    GetParam().fault(model.cameras[0].nodes[0].faults);
    useCamera(model);
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
    testing::Values(
        SetupFailure{"reqbufs", [](simcam::Faults& f) { f.reqbufsErrno = ENOMEM; }, "request buffer failed", 0, false},
        SetupFailure{"querybuf", [](simcam::Faults& f) { f.querybufErrno = EINVAL, f.querybufIndex = 2; },
                     "VIDIOC_QUERYBUF failed!!  n_buffers=2", 2, true},
        SetupFailure{"qbuf", [](simcam::Faults& f) { f.qbufErrno = EINVAL, f.qbufIndex = 1; },
                     "enqueue failed index = 1  error=-1", 2, true}),
    [](const testing::TestParamInfo<SetupFailure>& info) { return std::string(info.param.name); });

TEST_F(Buffers, StreamingFlagIsSharedAndGuardsStreamOn)
{
    useCamera(smallCamera(kH264));
    prepare();
    EXPECT_EQ(element->v4l2_stream_on(), 0);
    EXPECT_TRUE(V4LCameraCapturePlugin::m_isStreaming);
    EXPECT_TRUE(log.contains("open stream succed", 2));

    // Any element of the process sees the flag and does not call the driver.
    V4LCameraCapturePlugin other;
    other.m_fd = element->m_fd;
    EXPECT_EQ(other.v4l2_stream_on(), 0);
    EXPECT_TRUE(log.contains("v4l2_stream_on#m_isStreaming() true", 0));
    EXPECT_EQ(simcam::stats().ioctlCount(VIDIOC_STREAMON), 1u);
    other.m_fd = -1;

    EXPECT_EQ(element->v4l2_stream_off(), 0);
    EXPECT_FALSE(V4LCameraCapturePlugin::m_isStreaming);
    EXPECT_FALSE(simcam::stats().streaming());
}

// Streaming off always asks the driver and always succeeds; a refused stream on leaves the
// flag down.
TEST_F(Buffers, StreamOffAlwaysSucceedsAndRefusedStreamOnLeavesTheFlagDown)
{
    simcam::Model model = smallCamera(kH264);
    model.cameras[0].nodes[0].faults.streamonErrno = EIO;
    useCamera(model);
    prepare();
    EXPECT_EQ(element->v4l2_stream_on(), -1);
    EXPECT_FALSE(V4LCameraCapturePlugin::m_isStreaming);
    EXPECT_TRUE(log.contains("v4l2_stream_on#open stream failed", 0));
    EXPECT_EQ(element->v4l2_stream_off(), 0);  // never streamed
    EXPECT_EQ(simcam::stats().ioctlCount(VIDIOC_STREAMOFF), 1u);

    V4LCameraCapturePlugin::m_isStreaming = true;
    const int fd = std::exchange(element->m_fd, -1);  // the driver refuses
    EXPECT_EQ(element->v4l2_stream_off(), 0);
    EXPECT_FALSE(V4LCameraCapturePlugin::m_isStreaming);
    EXPECT_TRUE(log.contains("off stream failed", 0));
    element->m_fd = fd;
}

} // namespace
