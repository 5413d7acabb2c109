// Faults on demand: each setup fault stops an element-style session at its step, and each
// streaming fault shows after its number of good frames.
#include "SimTest.h"

using namespace simcam;
using namespace simtest;

namespace {

struct SetupFault {
    const char* faults;
    const char* failedAt; // "" : the session starts
    int error;
};

class SetupFaults : public SimTest, public ::testing::WithParamInterface<SetupFault> {};

TEST_P(SetupFaults, StopTheSessionAtTheirStep)
{
    ScopedModel model(std::string("mjpeg,size=320x240,fps=100,") + GetParam().faults);
    Stream s("/dev/video0", kFourccMJPG, 320, 240);
    EXPECT_EQ(s.failedAt, GetParam().failedAt);
    EXPECT_EQ(s.error, GetParam().error);
}

INSTANTIATE_TEST_SUITE_P(
    Faults, SetupFaults,
    ::testing::Values(SetupFault{"open=ENOENT", "open", ENOENT},
                      SetupFault{"open=EBUSY", "open", EBUSY},
                      SetupFault{"open=EACCES", "open", EACCES},
                      SetupFault{"video1.open=EBUSY", "", 0}, // another node's fault
                      SetupFault{"busy", "S_FMT", EBUSY},
                      SetupFault{"sfmt=EINVAL", "S_FMT", EINVAL},
                      SetupFault{"reqbufs=ENOMEM", "REQBUFS", ENOMEM},
                      SetupFault{"qbuf=EIO@2", "QBUF", EIO},
                      SetupFault{"streamon=EIO", "STREAMON", EIO},
                      SetupFault{"grant=0", "STREAMON", EINVAL},
                      SetupFault{"grant=2", "", 0}),
    [](const auto& info) {
        std::string name = info.param.faults;
        for (char& c : name)
            if (!isalnum(static_cast<unsigned char>(c)))
                c = '_';
        return name;
    });

TEST_F(SimTest, QueueFaultHitsOnlyItsIndex)
{
    ScopedModel model("mjpeg,size=320x240,qbuf=EIO@2");
    Stream s("/dev/video0", kFourccMJPG, 320, 240);
    EXPECT_EQ(s.failedAt, "QBUF");
    EXPECT_EQ(stats().buffersQueued, 2); // indexes 0 and 1 went in
}

TEST_F(SimTest, CapabilityQueryCanFail)
{
    ScopedModel model("h264,querycap=EIO");
    Fd fd = openNode("/dev/video0", O_RDONLY);
    v4l2_capability cap{};
    EXPECT_EQ(xioctl(fd.get(), VIDIOC_QUERYCAP, &cap), EIO);
}

struct StreamFault {
    const char* faults;
    int goodFrames; // frames before the fault shows
    int error;      // DQBUF (or requeue, below) error; 0: frames go on
    bool onRequeue;
};

class StreamFaults : public SimTest, public ::testing::WithParamInterface<StreamFault> {};

TEST_P(StreamFaults, ShowAfterTheirGoodFrames)
{
    ScopedModel model(std::string("mjpeg,size=320x240,fps=100,") + GetParam().faults);
    Stream s("/dev/video0", kFourccMJPG, 320, 240);
    ASSERT_EQ(s.error, 0) << s.failedAt;
    const StreamFault& f = GetParam();
    for (int i = 0; i < f.goodFrames; ++i) {
        v4l2_buffer b{};
        ASSERT_EQ(s.dequeue(b), 0) << "frame " << i;
        ASSERT_EQ(s.requeue(b), 0) << "frame " << i;
    }
    v4l2_buffer b{};
    if (f.onRequeue) {
        ASSERT_EQ(s.dequeue(b), 0);
        EXPECT_EQ(s.requeue(b), f.error);
    } else {
        // The fault wakes select at once, as a driver's error does.
        EXPECT_EQ(s.dequeue(b, 500), f.error);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Faults, StreamFaults,
    ::testing::Values(StreamFault{"dqbuf=EIO@3", 3, EIO, false},
                      StreamFault{"dqbuf=EIO", 0, EIO, false},
                      StreamFault{"unplug=2", 2, ENODEV, false},
                      StreamFault{"qbuf-stream=EIO@2", 2, EIO, true},
                      StreamFault{"stall", 0, ETIMEDOUT, false}));

struct EmptyCase {
    const char* faults;
    std::vector<bool> empty; // per frame: bytesused 0
};

class EmptyFrames : public SimTest, public ::testing::WithParamInterface<EmptyCase> {};

TEST_P(EmptyFrames, CarryNoPayload)
{
    ScopedModel model(std::string("mjpeg,size=320x240,fps=200,") + GetParam().faults);
    Stream s("/dev/video0", kFourccMJPG, 320, 240);
    ASSERT_EQ(s.error, 0) << s.failedAt;
    std::vector<bool> empty;
    for (size_t i = 0; i < GetParam().empty.size(); ++i) {
        v4l2_buffer b{};
        ASSERT_EQ(s.dequeue(b), 0);
        empty.push_back(b.bytesused == 0);
        if (b.bytesused) {
            EXPECT_EQ(s.data(b)[0], 0xff) << "frames around empty ones stay whole";
        }
        ASSERT_EQ(s.requeue(b), 0);
    }
    EXPECT_EQ(empty, GetParam().empty);
}

INSTANTIATE_TEST_SUITE_P(Faults, EmptyFrames,
                         ::testing::Values(EmptyCase{"empty=3", {false, false, true, false, false, true}},
                                           EmptyCase{"empty=1", {true, true, true}}));

TEST_F(SimTest, UnplugKillsTheDescriptorAndHidesTheNode)
{
    ScopedModel model("mjpeg,size=320x240,fps=100,unplug=1");
    Stream s("/dev/video0", kFourccMJPG, 320, 240);
    ASSERT_EQ(s.error, 0) << s.failedAt;
    v4l2_buffer b{};
    ASSERT_EQ(s.dequeue(b), 0);
    EXPECT_EQ(s.dequeue(b, 500), ENODEV);
    v4l2_format f{};
    f.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    EXPECT_EQ(xioctl(s.fd.get(), VIDIOC_G_FMT, &f), ENODEV);
    int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    EXPECT_EQ(xioctl(s.fd.get(), VIDIOC_STREAMOFF, &type), ENODEV);
    errno = 0;
    EXPECT_FALSE(openNode("/dev/video0").valid());
    EXPECT_EQ(errno, ENOENT);

    replug();
    EXPECT_EQ(xioctl(s.fd.get(), VIDIOC_G_FMT, &f), ENODEV) << "old descriptors stay dead";
    Stream again("/dev/video0", kFourccMJPG, 320, 240);
    ASSERT_EQ(again.error, 0) << again.failedAt;
    EXPECT_EQ(again.dequeue(b), 0) << "the unplug fault does not recur";
}

TEST_F(SimTest, ClearingAFaultLetsFramesFlowAgain)
{
    ScopedModel model("mjpeg,size=320x240,fps=100,dqbuf=EIO");
    Stream s("/dev/video0", kFourccMJPG, 320, 240);
    ASSERT_EQ(s.error, 0) << s.failedAt;
    v4l2_buffer b{};
    EXPECT_EQ(s.dequeue(b, 500), EIO);
    setFaults(Faults{});
    EXPECT_EQ(s.dequeue(b, 500), 0);
}

} // namespace
