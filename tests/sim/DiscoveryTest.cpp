// Finding the camera: the /dev listing, opening nodes, capabilities and the enumeration of
// formats, sizes and intervals.
#include "SimTest.h"

#include <algorithm>
#include <dirent.h>
#include <set>
#include <sys/stat.h>

using namespace simcam;
using namespace simtest;

namespace {

std::set<std::string> listDev()
{
    std::set<std::string> names;
    DIR* dir = opendir("/dev");
    EXPECT_NE(dir, nullptr);
    if (!dir)
        return names;
    while (dirent64* e = readdir64(dir))
        names.insert(e->d_name);
    closedir(dir);
    return names;
}

class Discovery : public SimTest {};

TEST_F(Discovery, DevListsTheModelsNodesAndOthers)
{
    ScopedModel model("h264,nodes=video10/Video2/videodev/video-enc:meta,others=null/zero");
    EXPECT_EQ(listDev(), (std::set<std::string>{".", "..", "video10", "Video2", "videodev",
                                                "video-enc", "null", "zero", "bus"}));
}

TEST_F(Discovery, HostCameraNodesAreHidden)
{
    ScopedModel model("h264");
    errno = 0;
    Fd fd = openNode("/dev/video7");
    EXPECT_FALSE(fd.valid());
    EXPECT_EQ(errno, ENOENT);
    struct stat st {};
    EXPECT_EQ(stat("/dev/video7", &st), -1);
    EXPECT_EQ(stat("/dev/video0", &st), 0);
    const Stats s = stats();
    ASSERT_EQ(s.opens.size(), 1u);
    EXPECT_EQ(s.opens[0].path, "/dev/video7");
    EXPECT_EQ(s.opens[0].error, ENOENT);
}

struct CapCase {
    const char* model;
    const char* node;
    bool capture;
    bool meta;
};

class Capabilities : public SimTest, public ::testing::WithParamInterface<CapCase> {};

TEST_P(Capabilities, ReportCaptureBitPerNode)
{
    ScopedModel model(GetParam().model);
    Fd fd = openNode(std::string("/dev/") + GetParam().node, O_RDONLY);
    ASSERT_TRUE(fd.valid()) << strerror(errno);
    v4l2_capability cap{};
    ASSERT_EQ(xioctl(fd.get(), VIDIOC_QUERYCAP, &cap), 0);
    EXPECT_EQ(bool(cap.capabilities & V4L2_CAP_VIDEO_CAPTURE), GetParam().capture);
    EXPECT_EQ(bool(cap.capabilities & V4L2_CAP_META_CAPTURE), GetParam().meta);
    EXPECT_TRUE(cap.capabilities & V4L2_CAP_STREAMING);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(cap.card)), "Simulated UVC Camera");
}

INSTANTIATE_TEST_SUITE_P(Nodes, Capabilities,
                         ::testing::Values(CapCase{"h264", "video0", true, false},
                                           CapCase{"h264", "video1", false, true},
                                           CapCase{"h264,video0.nocap", "video0", false, false},
                                           CapCase{"nodes=videodev", "videodev", true, false}));

std::vector<uint32_t> enumFormats(int fd, std::vector<uint32_t>* flags = nullptr)
{
    std::vector<uint32_t> formats;
    v4l2_fmtdesc d{};
    d.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    for (; xioctl(fd, VIDIOC_ENUM_FMT, &d) == 0; ++d.index) {
        formats.push_back(d.pixelformat);
        if (flags)
            flags->push_back(d.flags);
    }
    return formats;
}

TEST_F(Discovery, FormatsEnumerateInModelOrder)
{
    ScopedModel model("multi");
    Fd fd = openNode("/dev/video0", O_RDONLY);
    std::vector<uint32_t> flags;
    EXPECT_EQ(enumFormats(fd.get(), &flags),
              (std::vector<uint32_t>{kFourccRGB24, kFourccMJPG, kFourccH264, kFourccHEVC,
                                     kFourccYUYV, kFourccNV12}));
    EXPECT_EQ(flags, (std::vector<uint32_t>{0, V4L2_FMT_FLAG_COMPRESSED, V4L2_FMT_FLAG_COMPRESSED,
                                            V4L2_FMT_FLAG_COMPRESSED, 0, 0}));
}

TEST_F(Discovery, MetadataNodeHasNoCaptureFormats)
{
    ScopedModel model("h264");
    Fd fd = openNode("/dev/video1", O_RDONLY);
    EXPECT_TRUE(enumFormats(fd.get()).empty());
}

TEST_F(Discovery, DiscreteSizesAndIntervals)
{
    ScopedModel model("mjpeg,size=1280x720/640x480,fps=30/15/5");
    Fd fd = openNode("/dev/video0", O_RDONLY);
    v4l2_frmsizeenum size{};
    size.pixel_format = kFourccMJPG;
    size.type = V4L2_FRMSIZE_TYPE_DISCRETE;
    std::vector<std::pair<uint32_t, uint32_t>> sizes;
    for (; xioctl(fd.get(), VIDIOC_ENUM_FRAMESIZES, &size) == 0; ++size.index) {
        EXPECT_EQ(size.type, uint32_t(V4L2_FRMSIZE_TYPE_DISCRETE));
        sizes.emplace_back(size.discrete.width, size.discrete.height);
    }
    EXPECT_EQ(sizes, (std::vector<std::pair<uint32_t, uint32_t>>{{1280, 720}, {640, 480}}));

    v4l2_frmivalenum ival{};
    ival.pixel_format = kFourccMJPG;
    ival.width = 640;
    ival.height = 480;
    std::vector<uint32_t> denominators;
    for (; xioctl(fd.get(), VIDIOC_ENUM_FRAMEINTERVALS, &ival) == 0; ++ival.index)
        denominators.push_back(ival.discrete.denominator);
    EXPECT_EQ(denominators, (std::vector<uint32_t>{30, 15, 5}));

    ival.index = 0;
    ival.width = 800; // not a size of the format
    EXPECT_EQ(xioctl(fd.get(), VIDIOC_ENUM_FRAMEINTERVALS, &ival), EINVAL);
    size.index = 0;
    size.pixel_format = kFourccH264; // not a format of the node
    EXPECT_EQ(xioctl(fd.get(), VIDIOC_ENUM_FRAMESIZES, &size), EINVAL);
}

TEST_F(Discovery, StepwiseSizesComeAsOneRange)
{
    ScopedModel model("multi");
    Fd fd = openNode("/dev/video0", O_RDONLY);
    v4l2_frmsizeenum size{};
    size.pixel_format = kFourccRGB24;
    size.type = V4L2_FRMSIZE_TYPE_DISCRETE;
    ASSERT_EQ(xioctl(fd.get(), VIDIOC_ENUM_FRAMESIZES, &size), 0);
    EXPECT_EQ(size.type, uint32_t(V4L2_FRMSIZE_TYPE_STEPWISE));
    EXPECT_EQ(size.stepwise.min_width, 160u);
    EXPECT_EQ(size.stepwise.max_width, 1920u);
    EXPECT_EQ(size.stepwise.step_height, 8u);
    size.index = 1;
    EXPECT_EQ(xioctl(fd.get(), VIDIOC_ENUM_FRAMESIZES, &size), EINVAL);
}

TEST_F(Discovery, UnknownIoctlIsNotATty)
{
    ScopedModel model("h264");
    Fd fd = openNode("/dev/video0");
    v4l2_audio audio{};
    EXPECT_EQ(xioctl(fd.get(), VIDIOC_G_AUDIO, &audio), ENOTTY);
    EXPECT_EQ(stats().ioctlCount(VIDIOC_G_AUDIO), 1u);
}

} // namespace
