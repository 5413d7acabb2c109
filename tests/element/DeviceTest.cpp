// Finding, opening, describing, configuring and resetting the camera.

#include <fcntl.h>
#include <linux/usbdevice_fs.h>
#include <linux/videodev2.h>

#include <cerrno>

#include "SimElementFixture.h"

namespace {

using namespace testsupport;

class Device : public SimElementTest {};

// Node names, and the paths of which any may be opened (equal keys, either order).
class NodeChoice : public Device, public testing::WithParamInterface<std::pair<const char*, std::vector<std::string>>> {};

TEST_P(NodeChoice, LowestNumberAfterTheVideoPrefixWins)
{
    useCamera(kH264, std::string("nodes=") + GetParam().first);
    ASSERT_EQ(element->v4l2_dev_open(), 0);
    const auto opens = simcam::stats().opens;
    ASSERT_EQ(opens.size(), 1u);
    const auto& paths = GetParam().second;
    EXPECT_NE(std::find(paths.begin(), paths.end(), opens[0].path), paths.end()) << opens[0].path;
}

INSTANTIATE_TEST_SUITE_P(
    Names, NodeChoice,
    testing::Values(std::pair("video2/video10/video0/video1", std::vector<std::string>{"/dev/video0"}),
                    std::pair("video12/video3", std::vector<std::string>{"/dev/video3"}),  // not a string sort
                    std::pair("video2/Video1", std::vector<std::string>{"/dev/Video1"}),   // any letter case
                    std::pair("video4/videodev", std::vector<std::string>{"/dev/videodev"}),  // no number: 0
                    std::pair("video0/video", std::vector<std::string>{"/dev/video0", "/dev/video"})),
    ByFirst());

TEST_F(Device, OpenFormsUseTheirOwnFlagsAndKeepTheirOwnDescriptor)
{
    useCamera(kH264);
    ASSERT_EQ(element->v4l2_dev_open(), 0);
    EXPECT_GT(probe.fd(), 0);
    EXPECT_TRUE(log.contains("INFO: open camera success", 2));
    const int captureFd = probe.fd();

    int probeFd = -1;
    ASSERT_EQ(element->v4l2_dev_open(&probeFd), 0);
    EXPECT_GE(probeFd, 0);
    EXPECT_NE(probeFd, captureFd);
    EXPECT_EQ(probe.fd(), captureFd);  // a probe never touches the capture descriptor
    ::close(probeFd);

    const auto opens = simcam::stats().opens;
    ASSERT_EQ(opens.size(), 2u);
    EXPECT_EQ(opens[0].flags & (O_ACCMODE | O_NONBLOCK), O_RDWR | O_NONBLOCK);
    EXPECT_EQ(opens[1].flags & (O_ACCMODE | O_NONBLOCK), O_RDONLY);
    EXPECT_EQ(log.count("open camera success"), 1);  // the probe is silent

    ASSERT_EQ(element->v4l2_dev_open(), 0);  // a reopen closes the descriptor it replaces
    EXPECT_EQ(simcam::stats().openDescriptors, 1);
}


// Every way an open fails leaves no descriptor; only a capture open that the system
// refused queues a USB reset, run later on the element's thread.
struct OpenCase {
    const char* name;
    const char* fault;  // model text
    const char* line;
    bool reset;
};

class OpenFails : public Device, public testing::WithParamInterface<OpenCase> {};

TEST_P(OpenFails, LeavesNothingOpen)
{
    useCamera(kH264, GetParam().fault);
    int probeFd = 7;
    EXPECT_EQ(element->v4l2_dev_open(&probeFd), -1);
    EXPECT_EQ(probeFd, -1);
    EXPECT_EQ(element->v4l2_dev_open(), -1);
    EXPECT_EQ(probe.fd(), -1);
    EXPECT_TRUE(log.contains(GetParam().line, 0));
    EXPECT_EQ(simcam::stats().openDescriptors, 0);
    EXPECT_TRUE(simcam::stats().resets.empty());  // queued, not run yet
    runQueuedCalls();
    EXPECT_EQ(simcam::stats().resetCount("/dev/bus/usb/001/002"), GetParam().reset ? 1 : 0);
}

INSTANTIATE_TEST_SUITE_P(
    Faults, OpenFails,
    testing::Values(OpenCase{"Missing", "open=ENOENT", "open camera failed\n\n", true},
                    OpenCase{"Busy", "open=EBUSY", "open camera failed  v4l2_dev_open(int)\n\n", true},
                    OpenCase{"NoVideoEntry", "nodes=camera0", "open camera failed\n\n", true},
                    OpenCase{"MetadataNodeFirst", "nodes=video0:meta/video1", "Error: No capture video device!", false},
                    OpenCase{"CapabilityQueryFails", "querycap=EIO", "Error: No capture video device!", false}),
    [](const testing::TestParamInfo<OpenCase>& info) { return std::string(info.param.name); });

// ---- formats --------------------------------------------------------------------------

// (codec type, width, height) of each entry listed through a probe descriptor.
std::vector<std::tuple<int, int, int>> listed(V4LCameraCapturePlugin& element)
{
    int fd = -1;
    EXPECT_EQ(element.v4l2_dev_open(&fd), 0);
    std::vector<std::tuple<int, int, int>> out;
    for (const MediaFormat& f : element.listCameraFormat(fd))
        out.emplace_back(f.codecType, f.width, f.height);
    ::close(fd);
    return out;
}

TEST_F(Device, ListsUsableFormatsInDriverOrder)
{
    useCamera(simcam::parseModel("formats=RGB3/MJPG/YUYV/HEVC/NV12/H264,size=1280x720/640x480"));
    const std::vector<std::tuple<int, int, int>> expected = {
        {9, 1280, 720}, {9, 640, 480}, {11, 1280, 720}, {11, 640, 480}, {7, 1280, 720},
        {7, 640, 480},  {12, 1280, 720}, {12, 640, 480}, {6, 1280, 720}, {6, 640, 480}};
    EXPECT_EQ(listed(*element), expected);
    EXPECT_TRUE(element->listCameraFormat(-1).isEmpty());
}

// A size range (model text) lists the common sizes on its step between its ends.
using Sizes = std::vector<std::pair<int, int>>;
class SizeRange : public Device, public testing::WithParamInterface<std::pair<const char*, Sizes>> {};

TEST_P(SizeRange, ListsTheSizesAUserWouldPick)
{
    useCamera(simcam::parseModel(std::string("yuyv,fps=30,size=") + GetParam().first));
    Sizes sizes;
    for (const auto& [codec, w, h] : listed(*element))
        sizes.emplace_back(w, h);
    EXPECT_EQ(sizes, GetParam().second);
    EXPECT_EQ(log.contains("size:640x480 [1/30]", 4), std::count(sizes.begin(), sizes.end(), std::pair(640, 480)) == 1);
}

INSTANTIATE_TEST_SUITE_P(
    Ranges, SizeRange,
    testing::Values(std::pair("160x120-1280x720:16x8", Sizes{{160, 120}, {176, 144}, {320, 240}, {352, 288},
                                                             {640, 360}, {640, 480}, {800, 600}, {1280, 720}}),
                    // A coarse step leaves most out, and the largest is the one the step reaches.
                    std::pair("160x120-1920x1080:320x240", Sizes{{160, 120}, {800, 600}, {1760, 1080}}),
                    // Continuous: every common size inside.
                    std::pair("100x100-700x500", Sizes{{100, 100}, {160, 120}, {176, 144}, {320, 240}, {352, 288},
                                                       {640, 360}, {640, 480}, {700, 500}}),
                    std::pair("640x480-640x480", Sizes{{640, 480}})),
    ByFirst());

struct GuardCase {
    int width, height;
    uint32_t format;
    int result;
};

class SetFormatGuard : public Device, public testing::WithParamInterface<GuardCase> {};

TEST_P(SetFormatGuard, RefusesNonPositiveHeightOrFormatBeforeTheDriver)
{
    useCamera(camera(kH264), GetParam().format, GetParam().width, GetParam().height);
    ASSERT_EQ(element->v4l2_dev_open(), 0);
    EXPECT_EQ(element->v4l2_set_format(), GetParam().result);
    const bool guarded = GetParam().result == -1;
    EXPECT_EQ(log.contains("v4l2_set_format failed [m_height <= 0 || m_format <= 0]"), guarded);
    EXPECT_EQ(simcam::stats().ioctlCount(VIDIOC_S_FMT), guarded ? 0u : 1u);
}

INSTANTIATE_TEST_SUITE_P(Requests, SetFormatGuard,
                         testing::Values(GuardCase{640, 0, kH264, -1}, GuardCase{640, 480, 0, -1},
                                         GuardCase{640, 480, 0x80000000u, -1}, GuardCase{0, 480, kH264, 0}),
                         [](const testing::TestParamInfo<GuardCase>& info) {
                             return std::to_string(info.param.width) + "x" + std::to_string(info.param.height) + "_" +
                                    fourccName(info.param.format);
                         });

// An adjusted size succeeds and keeps the request; the frame interval is read back, or left
// alone when the driver cannot tell it.
TEST_F(Device, AdjustedSizeKeepsTheRequestAndTheIntervalIsReadBackOrLeftAlone)
{
    useCamera(camera(kMJPG, "fps=25", 1280, 720), kMJPG, 1920, 1080);
    ASSERT_EQ(element->v4l2_dev_open(), 0);
    EXPECT_EQ(element->v4l2_set_format(), 0);
    EXPECT_EQ(probe.size(), std::pair(1920, 1080));
    EXPECT_EQ(probe.frameRate(), std::pair(25, 1));
    // What was asked and what the driver set, the format named in letters too.
    EXPECT_TRUE(log.contains("set format width=1920   height=1080  pixeformat=1196444237,MJPG"));
    EXPECT_TRUE(log.contains("get format width=1280   height=720  pixeformat=1196444237,MJPG"));

    simcam::configure(camera(kMJPG, "fps=15", 1280, 720));
    simcam::modifyFaults([](simcam::Faults& f) { f.parmErrno = EINVAL; }, "video0");
    ASSERT_EQ(element->v4l2_dev_open(), 0);
    EXPECT_EQ(element->v4l2_set_format(), 0);
    EXPECT_EQ(probe.frameRate(), std::pair(25, 1));  // not the camera's 15
}

TEST_F(Device, FifthConsecutiveRefusalQueuesExactlyOneReset)
{
    useCamera(kH264);
    ASSERT_EQ(element->v4l2_dev_open(), 0);
    ASSERT_EQ(element->v4l2_set_format(), 0);  // the process-wide count starts from zero

    auto fail = [](int error, int times) {
        simcam::modifyFaults([=](simcam::Faults& f) {
            f.sfmtErrno = error;
            f.sfmtCount = times;
        }, "video0");
    };
    // An interrupted request is asked again until it goes through.
    fail(EINTR, 5);
    ASSERT_EQ(element->v4l2_set_format(), 0);

    auto refuse = [&](int times) {
        fail(EINVAL, times);
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

// Where sysfs keeps the numbers (model text), and the usbfs path reset; none: the "-3" line.
class ResetWalk : public Device, public testing::WithParamInterface<std::pair<const char*, const char*>> {};

TEST_P(ResetWalk, FindsBusAndDeviceNumbers)
{
    useCamera(kH264, GetParam().first);
    EXPECT_EQ(element->resetUsbCamera(), 0);
    runQueuedCalls();
    const auto resets = simcam::stats().resets;
    if (!*GetParam().second) {
        EXPECT_TRUE(resets.empty());
        EXPECT_TRUE(log.contains("ERROR: resetUsbCamera failed -3\n\n", 0));
    } else {
        ASSERT_EQ(resets.size(), 1u);
        EXPECT_EQ(resets.begin()->first, GetParam().second);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Trees, ResetWalk,
    testing::Values(std::pair("usb=device,bus=1,dev=4", "/dev/bus/usb/001/004"),
                    std::pair("usb=interface,bus=2,dev=7", "/dev/bus/usb/002/007"),
                    std::pair("bus=12,dev=123", "/dev/bus/usb/012/123"), std::pair("usb=none", "")),
    ByFirst());

} // namespace
