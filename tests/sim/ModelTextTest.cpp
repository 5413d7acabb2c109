// The SIMCAM_MODEL text form: what each setting produces, and which texts are refused.
#include "simcam/Model.h"

#include <cerrno>
#include <functional>
#include <gtest/gtest.h>

using namespace simcam;

namespace {

struct ParseCase {
    const char* text;
    std::function<void(const Model&)> check;
};

const Node& node0(const Model& m) { return m.cameras.at(0).nodes.at(0); }

const ParseCase kParseCases[] = {
    {"", [](const Model& m) { EXPECT_EQ(node0(m).formats.at(0).fourcc, kFourccH264); }},
    {"mjpeg", [](const Model& m) {
         ASSERT_EQ(node0(m).formats.size(), 1u);
         EXPECT_EQ(node0(m).formats[0].fourcc, kFourccMJPG);
         EXPECT_EQ(m.cameras[0].nodes.at(1).kind, NodeKind::Metadata);
     }},
    {"multi", [](const Model& m) {
         ASSERT_EQ(node0(m).formats.size(), 6u);
         EXPECT_EQ(node0(m).formats[0].fourcc, kFourccRGB24);
         EXPECT_TRUE(node0(m).formats[0].stepwise.has_value());
     }},
    {"hevc-large", [](const Model& m) { EXPECT_GT(node0(m).content.hevcMinFrameBytes, 3110400u); }},
    {"yuyv, size=640x480/320x240, fps=60/5", [](const Model& m) {
         const Format& f = node0(m).formats.at(0);
         ASSERT_EQ(f.sizes.size(), 2u);
         EXPECT_EQ(f.sizes[1].width, 320u);
         EXPECT_EQ(f.sizes[1].height, 240u);
         ASSERT_EQ(f.sizes[1].intervals.size(), 2u);
         EXPECT_EQ(f.sizes[1].intervals[1], (Interval{1, 5}));
     }},
    {"fps=0", [](const Model& m) { EXPECT_TRUE(m.unthrottled); }},
    {"formats=rgb24/MJPG/h264", [](const Model& m) {
         ASSERT_EQ(node0(m).formats.size(), 3u);
         EXPECT_EQ(node0(m).formats[0].fourcc, kFourccRGB24);
         EXPECT_EQ(node0(m).formats[1].fourcc, kFourccMJPG);
         EXPECT_FALSE(node0(m).formats[1].sizes.empty());
     }},
    {"nodes=video10/Video2:meta/videodev", [](const Model& m) {
         const auto& nodes = m.cameras.at(0).nodes;
         ASSERT_EQ(nodes.size(), 3u);
         EXPECT_EQ(nodes[0].name, "video10");
         EXPECT_EQ(nodes[1].kind, NodeKind::Metadata);
         EXPECT_EQ(nodes[2].name, "videodev");
         EXPECT_FALSE(nodes[2].formats.empty());
     }},
    {"cameras=2,cam1.usb=interface,cam1.bus=5", [](const Model& m) {
         ASSERT_EQ(m.cameras.size(), 2u);
         EXPECT_EQ(m.cameras[1].nodes.at(0).name, "video2");
         EXPECT_EQ(m.cameras[1].nodes.at(1).name, "video3");
         EXPECT_EQ(m.cameras[1].attachment, Attachment::UsbInterface);
         EXPECT_EQ(m.cameras[0].attachment, Attachment::UsbDevice);
         EXPECT_EQ(usbDevicePath(m.cameras[1]), "/dev/bus/usb/005/003");
     }},
    {"usb=device,bus=12,dev=123", [](const Model& m) {
         EXPECT_EQ(usbDevicePath(m.cameras.at(0)), "/dev/bus/usb/012/123");
     }},
    {"usb=none", [](const Model& m) { EXPECT_EQ(usbDevicePath(m.cameras.at(0)), ""); }},
    {"video1.open=EBUSY", [](const Model& m) {
         EXPECT_EQ(m.cameras[0].nodes[0].faults.openErrno, 0);
         EXPECT_EQ(m.cameras[0].nodes[1].faults.openErrno, EBUSY);
     }},
    {"sfmt=EINVAL*2,dqbuf=EIO@5,qbuf=EIO@1,empty=3,stall,nokeyctl,grant=2", [](const Model& m) {
         const Faults& f = node0(m).faults;
         EXPECT_EQ(f.sfmtErrno, EINVAL);
         EXPECT_EQ(f.sfmtCount, 2);
         EXPECT_EQ(f.dqbufErrno, EIO);
         EXPECT_EQ(f.dqbufAfter, 5);
         EXPECT_EQ(f.qbufIndex, 1);
         EXPECT_EQ(f.emptyEvery, 3);
         EXPECT_TRUE(f.stall);
         EXPECT_TRUE(f.noKeyFrameControl);
         EXPECT_EQ(f.grantBuffers, 2);
     }},
    {"unplug=4,open=13", [](const Model& m) {
         EXPECT_EQ(node0(m).faults.dqbufErrno, ENODEV);
         EXPECT_EQ(node0(m).faults.dqbufAfter, 4);
         EXPECT_EQ(node0(m).faults.openErrno, EACCES);
     }},
    {"others=null/tty0", [](const Model& m) {
         EXPECT_EQ(m.otherDevNames, (std::vector<std::string>{"null", "tty0"}));
     }},
};

class ParseModel : public ::testing::TestWithParam<ParseCase> {};

TEST_P(ParseModel, Produces)
{
    GetParam().check(parseModel(GetParam().text));
}

INSTANTIATE_TEST_SUITE_P(Texts, ParseModel, ::testing::ValuesIn(kParseCases));

struct BadCase {
    const char* text;
    const char* message;
};

class RejectModel : public ::testing::TestWithParam<BadCase> {};

TEST_P(RejectModel, NamesTheProblem)
{
    try {
        parseModel(GetParam().text);
        FAIL() << "accepted " << GetParam().text;
    } catch (const std::invalid_argument& e) {
        EXPECT_NE(std::string(e.what()).find(GetParam().message), std::string::npos) << e.what();
    }
}

INSTANTIATE_TEST_SUITE_P(Texts, RejectModel,
                         ::testing::Values(BadCase{"bogus", "unknown setting 'bogus'"},
                                           BadCase{"h264,mjpeg", "only come first"},
                                           BadCase{"size=640", "not WxH"},
                                           BadCase{"open=EWHAT", "unknown errno"},
                                           BadCase{"stall=1", "takes no value"},
                                           BadCase{"open", "needs a value"},
                                           BadCase{"video9.stall", "no camera or node"},
                                           BadCase{"cam1.bus=3", "out of range"},
                                           BadCase{"fps=x", "not a number"},
                                           BadCase{"formats=ABCDE", "not a FourCC"},
                                           BadCase{"usb=pci", "device, interface or none"}));

} // namespace
