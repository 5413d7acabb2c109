// The SIMCAM_MODEL text form: what the kinds of item the element's tests do not use produce,
// and which texts are refused with a message naming the problem.
#include "simcam/Model.h"

#include <cerrno>
#include <functional>
#include <gtest/gtest.h>

using namespace simcam;

namespace {

struct TextCase {
    const char* text;
    const char* error; // nullptr: accepted, and `check` holds
    std::function<void(const Model&)> check;
};
// Rows show by name in test listings, not as the bytes of the struct.
std::ostream& operator<<(std::ostream& os, const TextCase& c) { return os << '"' << c.text << '"'; }

const Node& node0(const Model& m) { return m.cameras.at(0).nodes.at(0); }
const Faults& faults0(const Model& m) { return node0(m).faults; }

const TextCase kTexts[] = {
    {"", nullptr, [](const Model& m) {
         EXPECT_EQ(node0(m).formats.at(0).fourcc, kFourccH264);
         EXPECT_EQ(m.cameras[0].nodes.at(1).kind, NodeKind::Metadata);
     }},
    {" yuyv , fps=60/5", nullptr, [](const Model& m) {  // spaces around items, several rates
         EXPECT_EQ(node0(m).formats.at(0).fourcc, kFourccYUYV);
         EXPECT_EQ(node0(m).formats[0].sizes.at(1).intervals, (std::vector<Interval>{{1, 60}, {1, 5}}));
     }},
    {"fps=0", nullptr, [](const Model& m) { EXPECT_TRUE(m.unthrottled); }},
    {"cameras=2,cam1.usb=interface,cam1.bus=5", nullptr, [](const Model& m) {
         ASSERT_EQ(m.cameras.size(), 2u);
         EXPECT_EQ(m.cameras[1].nodes.at(1).name, "video3");
         EXPECT_EQ(m.cameras[0].attachment, Attachment::UsbDevice);
         EXPECT_EQ(m.cameras[1].attachment, Attachment::UsbInterface);
         EXPECT_EQ(usbDevicePath(m.cameras[1]), "/dev/bus/usb/005/003");
     }},
    {"video1.open=EBUSY", nullptr, [](const Model& m) {
         EXPECT_EQ(faults0(m).openErrno, 0);
         EXPECT_EQ(m.cameras[0].nodes.at(1).faults.openErrno, EBUSY);
     }},
    {"unplug=4,open=13", nullptr, [](const Model& m) {
         EXPECT_EQ(std::make_pair(faults0(m).dqbufErrno, faults0(m).dqbufAfter), std::make_pair(ENODEV, 4));
         EXPECT_EQ(faults0(m).openErrno, EACCES);
     }},
    {"unplug=4", nullptr, [](const Model& m) { EXPECT_EQ(m.cameras[0].replugMs, -1) << "no replug"; }},
    {"cameras=2,replug=1500,noreplug,cam1.replug=0", nullptr, [](const Model& m) {
         EXPECT_EQ(m.cameras.at(0).replugMs, 1500);
         EXPECT_FALSE(m.cameras[0].resetReplugs) << "independent of replug";
         EXPECT_EQ(m.cameras.at(1).replugMs, 0);
     }},
    {"stallafter=7", nullptr, [](const Model& m) {
         EXPECT_TRUE(faults0(m).stall);
         EXPECT_EQ(faults0(m).stallAfter, 7);
     }},
    {"fps=5-30:1/30", nullptr, [](const Model& m) {
         const IntervalRange r = node0(m).formats.at(0).intervalRange.value();
         EXPECT_TRUE(r.min == (Interval{1, 30}) && r.max == (Interval{1, 5}) && r.step == (Interval{1, 30}));
         EXPECT_EQ(node0(m).formats[0].sizes[0].intervals, (std::vector<Interval>{{1, 30}}));
     }},
    {"bogus", "unknown setting 'bogus'", {}},
    {"h264,mjpeg", "only come first", {}},
    {"size=640", "not WxH", {}},
    {"size=640x480-320x240", "runs backwards", {}},
    {"fps=30-5", "out of range", {}},
    {"fps=5-30:2", "not N/D", {}},
    {"open=EWHAT", "unknown errno", {}},
    {"stall=1", "takes no value", {}},
    {"open", "needs a value", {}},
    {"video9.stall", "no camera or node", {}},
    {"cam1.bus=3", "out of range", {}},
    {"fps=x", "not a number", {}},
    {"replug", "needs a value", {}},
    {"replug=-1", "out of range", {}},
    {"replug=100/renumber", "not a number", {}},
    {"formats=ABCDE", "not a FourCC", {}},
    {"usb=pci", "device, interface or none", {}},
};

class ModelText : public ::testing::TestWithParam<TextCase> {};

TEST_P(ModelText, ParsesOrNamesTheProblem)
{
    const TextCase& c = GetParam();
    SCOPED_TRACE(c.text);
    try {
        const Model m = parseModel(c.text);
        ASSERT_EQ(c.error, nullptr) << "accepted '" << c.text << "'";
        c.check(m);
    } catch (const std::invalid_argument& e) {
        ASSERT_NE(c.error, nullptr) << "refused '" << c.text << "': " << e.what();
        EXPECT_NE(std::string(e.what()).find(c.error), std::string::npos) << e.what();
    }
}

INSTANTIATE_TEST_SUITE_P(Texts, ModelText, ::testing::ValuesIn(kTexts));

} // namespace
