// Setting the format and frame interval: adjustment as a driver does it, refusals, and the
// queue-owner rules.
#include "SimTest.h"

using namespace simcam;
using namespace simtest;

namespace {

struct FormatCase {
    uint32_t fourcc, width, height;                // asked
    uint32_t gotFourcc, gotWidth, gotHeight;        // granted
    uint32_t bytesperline, sizeimage;
};

class SetFormat : public SimTest, public ::testing::WithParamInterface<FormatCase> {};

TEST_P(SetFormat, AdjustsLikeADriver)
{
    ScopedModel model("multi");
    Fd fd = openNode("/dev/video0");
    const FormatCase& c = GetParam();
    int error = -1;
    v4l2_format f = setFormat(fd.get(), c.fourcc, c.width, c.height, &error);
    ASSERT_EQ(error, 0);
    EXPECT_EQ(f.fmt.pix.pixelformat, c.gotFourcc);
    EXPECT_EQ(f.fmt.pix.width, c.gotWidth);
    EXPECT_EQ(f.fmt.pix.height, c.gotHeight);
    EXPECT_EQ(f.fmt.pix.bytesperline, c.bytesperline);
    EXPECT_EQ(f.fmt.pix.sizeimage, c.sizeimage);
    EXPECT_EQ(f.fmt.pix.field, uint32_t(V4L2_FIELD_NONE));

    v4l2_format g{};
    g.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    ASSERT_EQ(xioctl(fd.get(), VIDIOC_G_FMT, &g), 0);
    EXPECT_EQ(g.fmt.pix.pixelformat, c.gotFourcc);
    EXPECT_EQ(g.fmt.pix.width, c.gotWidth);
    EXPECT_EQ(g.fmt.pix.sizeimage, c.sizeimage);
}

constexpr uint32_t kUnknown = fourcc('A', 'B', 'C', 'D');

INSTANTIATE_TEST_SUITE_P(
    Requests, SetFormat,
    ::testing::Values(
        FormatCase{kFourccH264, 1280, 720, kFourccH264, 1280, 720, 0, 1280 * 720 * 2},
        FormatCase{kFourccH264, 1000, 700, kFourccH264, 1280, 720, 0, 1280 * 720 * 2},
        FormatCase{kFourccMJPG, 4000, 3000, kFourccMJPG, 1920, 1080, 0, 1920 * 1080 * 2},
        FormatCase{kFourccYUYV, 600, 400, kFourccYUYV, 640, 480, 1280, 640 * 480 * 2},
        FormatCase{kFourccNV12, 1920, 1080, kFourccNV12, 1920, 1080, 1920, 1920 * 1080 * 3 / 2},
        // Unknown formats fall back to the first; a range clamps and rounds to its step.
        FormatCase{kUnknown, 1001, 701, kFourccRGB24, 1008, 704, 3 * 1008, 3 * 1008 * 704},
        FormatCase{kFourccRGB24, 10, 10, kFourccRGB24, 160, 120, 480, 160 * 120 * 3}));

TEST_F(SimTest, TryFormatAdjustsWithoutApplying)
{
    ScopedModel model("h264");
    Fd fd = openNode("/dev/video0");
    v4l2_format f{};
    f.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    f.fmt.pix.width = 700;
    f.fmt.pix.height = 500;
    f.fmt.pix.pixelformat = kFourccH264;
    ASSERT_EQ(xioctl(fd.get(), VIDIOC_TRY_FMT, &f), 0);
    EXPECT_EQ(f.fmt.pix.width, 640u);
    v4l2_format g{};
    g.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    ASSERT_EQ(xioctl(fd.get(), VIDIOC_G_FMT, &g), 0);
    EXPECT_EQ(g.fmt.pix.width, 1920u);
}

TEST_F(SimTest, RefusesTheNextNRequestsThenAccepts)
{
    ScopedModel model("h264,sfmt=EINTR*2");
    Fd fd = openNode("/dev/video0");
    std::vector<int> results;
    for (int i = 0; i < 4; ++i) {
        int error = -1;
        setFormat(fd.get(), kFourccH264, 640, 480, &error);
        results.push_back(error);
    }
    EXPECT_EQ(results, (std::vector<int>{EINTR, EINTR, 0, 0}));
    EXPECT_EQ(faults("video0").sfmtErrno, 0);

    // Refusals again after a success: consecutive counting restarts.
    modifyFaults([](Faults& f) {
        f.sfmtErrno = EINVAL;
        f.sfmtCount = 1;
    });
    int error = -1;
    setFormat(fd.get(), kFourccH264, 640, 480, &error);
    EXPECT_EQ(error, EINVAL);
    setFormat(fd.get(), kFourccH264, 640, 480, &error);
    EXPECT_EQ(error, 0);

    modifyFaults([](Faults& f) {
        f.sfmtErrno = EINVAL;
        f.sfmtCount = -1; // for good
    });
    for (int i = 0; i < 3; ++i) {
        setFormat(fd.get(), kFourccH264, 640, 480, &error);
        EXPECT_EQ(error, EINVAL);
    }
}

TEST_F(SimTest, QueueOwnedElsewhereMakesFormatAndBuffersBusy)
{
    ScopedModel model("h264");
    Fd owner = openNode("/dev/video0");
    Fd other = openNode("/dev/video0");
    v4l2_requestbuffers req{};
    req.count = 2;
    req.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    req.memory = V4L2_MEMORY_DMABUF;
    ASSERT_EQ(xioctl(owner.get(), VIDIOC_REQBUFS, &req), 0);

    int error = 0;
    setFormat(other.get(), kFourccH264, 640, 480, &error);
    EXPECT_EQ(error, EBUSY);
    setFormat(owner.get(), kFourccH264, 640, 480, &error);
    EXPECT_EQ(error, EBUSY); // buffers are allocated
    EXPECT_EQ(xioctl(other.get(), VIDIOC_REQBUFS, &req), EBUSY);

    owner.reset(); // closing frees the queue
    setFormat(other.get(), kFourccH264, 640, 480, &error);
    EXPECT_EQ(error, 0);
}

TEST_F(SimTest, BusyFaultStandsForAnotherProcess)
{
    ScopedModel model("h264,busy");
    Fd fd = openNode("/dev/video0");
    ASSERT_TRUE(fd.valid());
    int error = 0;
    setFormat(fd.get(), kFourccH264, 640, 480, &error);
    EXPECT_EQ(error, EBUSY);
    v4l2_requestbuffers req{};
    req.count = 4;
    req.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    req.memory = V4L2_MEMORY_DMABUF;
    EXPECT_EQ(xioctl(fd.get(), VIDIOC_REQBUFS, &req), EBUSY);
}

v4l2_fract getTimePerFrame(int fd, int* error = nullptr)
{
    v4l2_streamparm p{};
    p.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    int e = xioctl(fd, VIDIOC_G_PARM, &p);
    if (error)
        *error = e;
    return p.parm.capture.timeperframe;
}

TEST_F(SimTest, FrameIntervalFollowsFormatParmAndOverride)
{
    ScopedModel model("h264,fps=25/10");
    Fd fd = openNode("/dev/video0");
    setFormat(fd.get(), kFourccH264, 640, 480);
    EXPECT_EQ(getTimePerFrame(fd.get()).denominator, 25u);

    v4l2_streamparm p{};
    p.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    p.parm.capture.timeperframe = {1, 12}; // nearest offered: 1/10
    ASSERT_EQ(xioctl(fd.get(), VIDIOC_S_PARM, &p), 0);
    EXPECT_EQ(p.parm.capture.timeperframe.denominator, 10u);
    EXPECT_EQ(getTimePerFrame(fd.get()).denominator, 10u);

    setTimePerFrame("video0", {1001, 30000});
    EXPECT_EQ(getTimePerFrame(fd.get()).numerator, 1001u);
    setTimePerFrame("video0", {0, 0});
    EXPECT_EQ(getTimePerFrame(fd.get()).denominator, 10u);

    modifyFaults([](Faults& f) { f.parmErrno = EIO; });
    int error = 0;
    getTimePerFrame(fd.get(), &error);
    EXPECT_EQ(error, EIO);
}

} // namespace
