// Finding, opening, describing, configuring and resetting the camera.

#include <fcntl.h>
#include <linux/usbdevice_fs.h>
#include <linux/videodev2.h>

#include <cerrno>

#include "SimElementFixture.h"

namespace {

using namespace testsupport;

class Device : public SimElementTest {};

simcam::Model withNodes(const std::vector<std::string>& names)
{
    simcam::Model model = smallCamera(kH264);
    simcam::Node prototype = model.cameras[0].nodes[0];
    model.cameras[0].nodes.clear();
    for (const std::string& name : names) {
        simcam::Node node = prototype;
        node.name = name;
        model.cameras[0].nodes.push_back(node);
    }
    return model;
}

struct NodeCase {
    std::vector<std::string> names;
    std::vector<std::string> acceptable;  // equal keys may come out in either order
};

class NodeChoice : public Device, public testing::WithParamInterface<NodeCase> {};

TEST_P(NodeChoice, LowestNumberAfterTheVideoPrefixWins)
{
    useCamera(withNodes(GetParam().names));
    ASSERT_EQ(element->v4l2_dev_open(), 0);
    const auto opens = simcam::stats().opens;
    ASSERT_EQ(opens.size(), 1u);
    EXPECT_TRUE(std::find(GetParam().acceptable.begin(), GetParam().acceptable.end(), opens[0].path) !=
                GetParam().acceptable.end())
        << opens[0].path;
}

INSTANTIATE_TEST_SUITE_P(
    Names, NodeChoice,
    testing::Values(NodeCase{{"video2", "video10", "video0", "video1"}, {"/dev/video0"}},
                    NodeCase{{"video12", "video3"}, {"/dev/video3"}},  // not a string sort
                    NodeCase{{"video2", "Video1"}, {"/dev/Video1"}},   // any letter case
                    NodeCase{{"video4", "videodev"}, {"/dev/videodev"}},  // no number reads as 0
                    NodeCase{{"video0", "video"}, {"/dev/video0", "/dev/video"}},
                    NodeCase{{"video-enc", "video0"}, {"/dev/video-enc", "/dev/video0"}}));

TEST_F(Device, OpenFormsUseTheirOwnFlagsAndKeepTheirOwnDescriptor)
{
    useCamera(smallCamera(kH264));
    ASSERT_EQ(element->v4l2_dev_open(), 0);
    EXPECT_GT(element->m_fd, 0);
    EXPECT_TRUE(log.contains("INFO: open camera success", 2));
    const int captureFd = element->m_fd;

    int probe = -1;
    ASSERT_EQ(element->v4l2_dev_open(&probe), 0);
    EXPECT_GE(probe, 0);
    EXPECT_NE(probe, captureFd);
    EXPECT_EQ(element->m_fd, captureFd);  // a probe never touches the capture descriptor
    ::close(probe);

    const auto opens = simcam::stats().opens;
    ASSERT_EQ(opens.size(), 2u);
    EXPECT_EQ(opens[0].flags & (O_ACCMODE | O_NONBLOCK), O_RDWR | O_NONBLOCK);
    EXPECT_EQ(opens[1].flags & (O_ACCMODE | O_NONBLOCK), O_RDONLY);
    EXPECT_EQ(log.count("open camera success"), 1);  // the probe is silent
}

TEST_F(Device, ReopeningClosesTheDescriptorItReplaces)
{
    useCamera(smallCamera(kH264));
    ASSERT_EQ(element->v4l2_dev_open(), 0);
    ASSERT_EQ(element->v4l2_dev_open(), 0);
    EXPECT_EQ(simcam::stats().openDescriptors, 1);
}

// Every way an open fails leaves no descriptor; only a capture open that the system
// refused queues a USB reset, run later on the element's thread.
struct OpenCase {
    const char* name;
    std::function<void(simcam::Model&)> fault;
    const char* line;
    bool reset;
};

class OpenFails : public Device, public testing::WithParamInterface<OpenCase> {};

TEST_P(OpenFails, LeavesNothingOpen)
{
    simcam::Model model = smallCamera(kH264);
    GetParam().fault(model);
    useCamera(model);
    int probe = 7;
    EXPECT_EQ(element->v4l2_dev_open(&probe), -1);
    EXPECT_EQ(probe, -1);
    EXPECT_EQ(element->v4l2_dev_open(), -1);
    EXPECT_EQ(element->m_fd, -1);
    EXPECT_TRUE(log.contains(GetParam().line, 0));
    EXPECT_EQ(simcam::stats().openDescriptors, 0);
    EXPECT_TRUE(simcam::stats().resets.empty());  // queued, not run yet
    runQueuedCalls();
    EXPECT_EQ(simcam::stats().resetCount("/dev/bus/usb/001/002"), GetParam().reset ? 1 : 0);
}

INSTANTIATE_TEST_SUITE_P(
    Faults, OpenFails,
    testing::Values(
        OpenCase{"Missing", [](simcam::Model& m) { m.cameras[0].nodes[0].faults.openErrno = ENOENT; },
                 "open camera failed\n\n", true},
        OpenCase{"Busy", [](simcam::Model& m) { m.cameras[0].nodes[0].faults.openErrno = EBUSY; },
                 "open camera failed  v4l2_dev_open(int)\n\n", true},
        OpenCase{"NoVideoEntry", [](simcam::Model& m) { m = withNodes({"camera0"}); }, "open camera failed\n\n",
                 true},
        OpenCase{"MetadataNodeFirst",
                 [](simcam::Model& m) { std::swap(m.cameras[0].nodes[0].name, m.cameras[0].nodes[1].name); },
                 "Error: No capture video device!", false},
        OpenCase{"CapabilityQueryFails", [](simcam::Model& m) { m.cameras[0].nodes[0].faults.querycapErrno = EIO; },
                 "Error: No capture video device!", false}),
    [](const testing::TestParamInfo<OpenCase>& info) { return std::string(info.param.name); });

// ---- formats --------------------------------------------------------------------------

std::vector<std::tuple<int, int, int>> entries(const QList<MediaFormat>& list)
{
    std::vector<std::tuple<int, int, int>> out;
    for (const MediaFormat& f : list) {
        out.emplace_back(f.codecType, f.width, f.height);
        EXPECT_EQ(f.majorType, -1);  // nothing but codec and size is filled
        EXPECT_EQ(f.frameRateNum, -1);
    }
    return out;
}

TEST_F(Device, ListsUsableFormatsInDriverOrder)
{
    simcam::Format rgb = format(simcam::kFourccRGB24, {{320, 240}});
    useCamera(camera({rgb, format(kMJPG, {{1920, 1080}, {1280, 720}}), format(kYUYV, {{640, 480}}),
                      format(kHEVC, {{1280, 720}}), format(kNV12, {{640, 480}}), format(kH264, {{800, 600}})}));
    int fd = -1;
    ASSERT_EQ(element->v4l2_dev_open(&fd), 0);
    const auto list = entries(element->listCameraFormat(fd));
    ::close(fd);
    const std::vector<std::tuple<int, int, int>> expected = {
        {9, 1920, 1080}, {9, 1280, 720}, {11, 640, 480}, {7, 1280, 720}, {12, 640, 480}, {6, 800, 600}};
    EXPECT_EQ(list, expected);
    EXPECT_TRUE(element->listCameraFormat(-1).isEmpty());
}

struct RangeCase {
    simcam::StepwiseSize range;
    std::vector<std::pair<int, int>> sizes;
};

class SizeRange : public Device, public testing::WithParamInterface<RangeCase> {};

TEST_P(SizeRange, ListsTheSizesAUserWouldPick)
{
    simcam::Format yuyv;
    yuyv.fourcc = kYUYV;
    yuyv.stepwise = GetParam().range;
    yuyv.stepwise->intervals = {{1, 30}};
    useCamera(camera({yuyv}));
    int fd = -1;
    ASSERT_EQ(element->v4l2_dev_open(&fd), 0);
    const auto list = entries(element->listCameraFormat(fd));
    ::close(fd);
    std::vector<std::pair<int, int>> sizes;
    for (const auto& [codec, w, h] : list)
        sizes.emplace_back(w, h);
    EXPECT_EQ(sizes, GetParam().sizes);
    EXPECT_TRUE(log.contains("size:640x480 [1/30]", 4) ==
                (std::find(sizes.begin(), sizes.end(), std::make_pair(640, 480)) != sizes.end()));
}

INSTANTIATE_TEST_SUITE_P(
    Ranges, SizeRange,
    testing::Values(
        // Stepwise: the common sizes on the step between the ends.
        RangeCase{{160, 1280, 16, 120, 720, 8, {}},
                  {{160, 120}, {176, 144}, {320, 240}, {352, 288}, {640, 360}, {640, 480}, {800, 600},
                   {1280, 720}}},
        // A coarse step leaves most out, and the largest is the one the step reaches.
        RangeCase{{160, 1920, 320, 120, 1080, 240, {}}, {{160, 120}, {800, 600}, {1760, 1080}}},
        // Continuous: every common size inside.
        RangeCase{{100, 700, 1, 100, 500, 1, {}},
                  {{100, 100}, {160, 120}, {176, 144}, {320, 240}, {352, 288}, {640, 360}, {640, 480},
                   {700, 500}}},
        RangeCase{{640, 640, 1, 480, 480, 1, {}}, {{640, 480}}}));

struct GuardCase {
    int width, height;
    uint32_t format;
    int result;
};

class SetFormatGuard : public Device, public testing::WithParamInterface<GuardCase> {};

TEST_P(SetFormatGuard, RefusesNonPositiveHeightOrFormatBeforeTheDriver)
{
    useCamera(smallCamera(kH264), GetParam().format, GetParam().width, GetParam().height);
    ASSERT_EQ(element->v4l2_dev_open(), 0);
    EXPECT_EQ(element->v4l2_set_format(), GetParam().result);
    const bool guarded = GetParam().result == -1;
    EXPECT_EQ(log.contains("v4l2_set_format failed [m_height <= 0 || m_format <= 0]"), guarded);
    EXPECT_EQ(simcam::stats().ioctlCount(VIDIOC_S_FMT), guarded ? 0u : 1u);
}

INSTANTIATE_TEST_SUITE_P(Requests, SetFormatGuard,
                         testing::Values(GuardCase{640, 0, kH264, -1}, GuardCase{640, 480, 0, -1},
                                         GuardCase{640, 480, 0x80000000u, -1}, GuardCase{0, 480, kH264, 0}));

TEST_F(Device, AdjustedSizeSucceedsAndKeepsTheRequest)
{
    useCamera(camera({format(kMJPG, {{1280, 720}})}), kMJPG, 1920, 1080);
    ASSERT_EQ(element->v4l2_dev_open(), 0);
    EXPECT_EQ(element->v4l2_set_format(), 0);
    EXPECT_EQ(element->m_width, 1920);
    EXPECT_EQ(element->m_height, 1080);
}

TEST_F(Device, FrameIntervalIsReadBackOrLeftAlone)
{
    useCamera(camera({format(kH264, {{640, 480}}, {1, 25})}));
    ASSERT_EQ(element->v4l2_dev_open(), 0);
    ASSERT_EQ(element->v4l2_set_format(), 0);
    EXPECT_EQ(element->m_frameRateNum, 25);
    EXPECT_EQ(element->m_frameRateDen, 1);

    simcam::modifyFaults([](simcam::Faults& f) { f.parmErrno = EINVAL; }, "video0");
    element->m_frameRateNum = 7;
    element->m_frameRateDen = 3;
    EXPECT_EQ(element->v4l2_set_format(), 0);
    EXPECT_EQ(element->m_frameRateNum, 7);
    EXPECT_EQ(element->m_frameRateDen, 3);
}

TEST_F(Device, FifthConsecutiveRefusalQueuesExactlyOneReset)
{
    useCamera(smallCamera(kH264));
    ASSERT_EQ(element->v4l2_dev_open(), 0);
    ASSERT_EQ(element->v4l2_set_format(), 0);  // the process-wide count starts from zero

    auto refuse = [&](int times) {
        simcam::modifyFaults([times](simcam::Faults& f) {
            f.sfmtErrno = EINVAL;
            f.sfmtCount = times;
        }, "video0");
        for (int i = 0; i < times; ++i)
            EXPECT_EQ(element->v4l2_set_format(), -1);
        runQueuedCalls();
    };

    refuse(4);
    EXPECT_TRUE(simcam::stats().resets.empty());
    EXPECT_TRUE(log.contains("set format failed ret Invalid argument", 0));
    ASSERT_EQ(element->v4l2_set_format(), 0);  // a success starts the count again
    refuse(4);
    EXPECT_TRUE(simcam::stats().resets.empty());
    refuse(1);
    EXPECT_EQ(simcam::stats().resetCount("/dev/bus/usb/001/002"), 1);

    // The reset re-enumerated the camera: the old descriptor is dead and the count restarted.
    ASSERT_EQ(element->v4l2_dev_open(), 0);
    ASSERT_EQ(element->v4l2_set_format(), 0);
}

// ---- USB reset walk -------------------------------------------------------------------

struct WalkCase {
    simcam::Attachment attachment;
    int busnum, devnum;
    std::string expected;  // usbfs path reset, empty: none (the "-3" line)
};

class ResetWalk : public Device, public testing::WithParamInterface<WalkCase> {};

TEST_P(ResetWalk, FindsBusAndDeviceNumbers)
{
    simcam::Model model = smallCamera(kH264);
    model.cameras[0].attachment = GetParam().attachment;
    model.cameras[0].busnum = GetParam().busnum;
    model.cameras[0].devnum = GetParam().devnum;
    useCamera(model);
    EXPECT_EQ(element->resetUsbCamera(), 0);
    runQueuedCalls();
    const auto resets = simcam::stats().resets;
    if (GetParam().expected.empty()) {
        EXPECT_TRUE(resets.empty());
        EXPECT_TRUE(log.contains("ERROR: resetUsbCamera failed -3\n\n", 0));
    } else {
        ASSERT_EQ(resets.size(), 1u);
        EXPECT_EQ(resets.begin()->first, GetParam().expected);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Trees, ResetWalk,
    testing::Values(WalkCase{simcam::Attachment::UsbDevice, 1, 4, "/dev/bus/usb/001/004"},
                    WalkCase{simcam::Attachment::UsbInterface, 2, 7, "/dev/bus/usb/002/007"},
                    WalkCase{simcam::Attachment::UsbDevice, 12, 123, "/dev/bus/usb/012/123"},
                    WalkCase{simcam::Attachment::Platform, 0, 0, ""}));

} // namespace
