// Capture buffers and the driver's streaming state.

#include <linux/videodev2.h>

#include <cerrno>

#include "SimElementFixture.h"

namespace {

using namespace testsupport;

class Buffers : public SimElementTest {};

int filledSlots(const ElementProbe& probe)
{
    int n = 0;
    for (size_t i = 0; i < 4; ++i)
        n += probe.frame(i) != nullptr;
    return n;
}

// Buffers the driver grants, and the slots filled and queued.
class Grant : public Buffers, public testing::WithParamInterface<std::pair<int, int>> {};

TEST_P(Grant, FillsAndQueuesNoMoreThanFourSlots)
{
    const auto [granted, filled] = GetParam();
    useCamera(kH264, "grant=" + std::to_string(granted));
    prepare();
    EXPECT_EQ(filledSlots(probe), filled);
    EXPECT_EQ(simcam::stats().ioctlCount(VIDIOC_QBUF), uint64_t(filled));
    EXPECT_EQ(simcam::stats().buffersQueued, filled);
    EXPECT_TRUE(probe.hasAllocator());

    element->v4l2_release_buffer();
    EXPECT_EQ(filledSlots(probe), 0);
    EXPECT_FALSE(probe.hasAllocator());
}

INSTANTIATE_TEST_SUITE_P(Counts, Grant, testing::Values(std::pair(0, 0), std::pair(2, 2), std::pair(8, 4)),
                         [](const testing::TestParamInfo<std::pair<int, int>>& info) {
                             return "Granted" + std::to_string(info.param.first);
                         });

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
    for (size_t i = 0; i < 4; ++i) {
        const Codec::MediaFrame* frame = probe.frame(i);
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
                    LayoutCase{kMJPG, 642, 362, 3 * 656 * 368, 0, 0}),
    [](const testing::TestParamInfo<LayoutCase>& info) {
        return fourccName(info.param.fourcc) + "_" + std::to_string(info.param.width) + "x" + std::to_string(info.param.height);
    });

// A size no camera has never reaches the driver or the allocator (whose byte count is an
// int): the setup is refused first.
TEST_F(Buffers, SizeNoCameraHasIsRefusedBeforeTheDriver)
{
    useCamera(kH264);
    ASSERT_EQ(element->v4l2_dev_open(), 0);
    ASSERT_EQ(element->v4l2_set_format(), 0);
    for (const auto& [w, h] : {std::pair(0, 480), std::pair(640, -2), std::pair(8193, 480), std::pair(640, 60000)}) {
        probe.setCapture(kH264, w, h);
        EXPECT_EQ(element->v4l2_init_buffer(), -1) << w << "x" << h;
        EXPECT_TRUE(log.contains("capture size " + std::to_string(w) + "x" + std::to_string(h) + " refused", 0));
    }
    EXPECT_EQ(simcam::stats().ioctlCount(VIDIOC_REQBUFS), 0u);
    EXPECT_FALSE(probe.hasAllocator());
    probe.setCapture(kH264, 8192, 64);  // the largest side a camera may have
    EXPECT_EQ(element->v4l2_init_buffer(), 0);
}

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
    EXPECT_EQ(filledSlots(probe), GetParam().filledLeft);
    EXPECT_EQ(probe.hasAllocator(), GetParam().allocator);

    // A second setup replaces what the first left, frames before their allocator (the
    // codec library reports the opposite order), then release frees all of it.
    simcam::setFaults({}, "video0");
    EXPECT_EQ(element->v4l2_init_buffer(), 0);
    EXPECT_EQ(filledSlots(probe), 4);
    element->v4l2_release_buffer();
    EXPECT_EQ(filledSlots(probe), 0);
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
    EXPECT_TRUE(ElementProbe::streaming());
    EXPECT_TRUE(log.contains("open stream succed", 2));
    V4LCameraCapturePlugin other;
    ElementProbe(other).fd() = probe.fd();
    EXPECT_EQ(other.v4l2_stream_on(), 0);
    EXPECT_TRUE(log.contains("v4l2_stream_on#m_isStreaming() true", 0));
    EXPECT_EQ(simcam::stats().ioctlCount(VIDIOC_STREAMON), 1u);
    ElementProbe(other).fd() = -1;
    EXPECT_EQ(element->v4l2_stream_off(), 0);
    EXPECT_FALSE(ElementProbe::streaming());
    EXPECT_FALSE(simcam::stats().streaming());

    simcam::modifyFaults([](simcam::Faults& f) { f.streamonErrno = EIO; }, "video0");
    EXPECT_EQ(element->v4l2_stream_on(), -1);
    EXPECT_FALSE(ElementProbe::streaming());
    EXPECT_TRUE(log.contains("v4l2_stream_on#open stream failed", 0));
    EXPECT_EQ(element->v4l2_stream_off(), 0);  // not streaming
    EXPECT_EQ(simcam::stats().ioctlCount(VIDIOC_STREAMOFF), 2u);

    ElementProbe::streaming() = true;
    const int fd = std::exchange(probe.fd(), -1);  // the driver refuses
    EXPECT_EQ(element->v4l2_stream_off(), 0);
    EXPECT_FALSE(ElementProbe::streaming());
    EXPECT_TRUE(log.contains("off stream failed", 0));
    probe.fd() = fd;
}

} // namespace
