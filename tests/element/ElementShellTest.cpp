// The element object driven directly, without a camera: what the contract operations set,
// and the guards that keep a misused element from writing where it must not.

#include <gtest/gtest.h>
#include <linux/videodev2.h>
#include <sys/select.h>

#include <chrono>
#include <memory>

#include "Formats.h"
#include "Logger.h"
#include "ElementProbe.h"
#include "RowNames.h"

namespace {

struct OutPinCase {
    int codec;
    int result;
    uint32_t format;  // what m_format holds afterwards, starting from MJPG
};

class ElementOutPin : public testing::TestWithParam<OutPinCase> {};

TEST_P(ElementOutPin, TakesSizeAlwaysAndFormatWhenAccepted)
{
    V4LCameraCapturePlugin e;
    ElementProbe probe(e);
    LogCapture log;
    probe.setCapture(V4L2_PIX_FMT_MJPEG, 0, 0);
    EXPECT_EQ(e.activeOutPin(nullptr, videoFormat(GetParam().codec, 1280, 720)), GetParam().result);
    EXPECT_EQ(e.activeOutPin(e.getOutputPinList().first(), videoFormat(GetParam().codec, 1280, 720)),
              GetParam().result);
    EXPECT_EQ(probe.size(), std::pair(1280, 720));
    EXPECT_EQ(probe.format(), GetParam().format);
    EXPECT_EQ(log.count("activeOutPin failed -1", 0), GetParam().result == 0 ? 0 : 2);
}

INSTANTIATE_TEST_SUITE_P(Codecs, ElementOutPin,
                         testing::Values(OutPinCase{CODEC_TYPE_H264, 0, V4L2_PIX_FMT_H264},
                                         OutPinCase{CODEC_TYPE_HEVC, 0, V4L2_PIX_FMT_HEVC},
                                         OutPinCase{CODEC_TYPE_MJPEG, 0, V4L2_PIX_FMT_MJPEG},
                                         OutPinCase{CODEC_TYPE_YUYV, -1, V4L2_PIX_FMT_MJPEG},
                                         OutPinCase{CODEC_TYPE_NV12, -1, V4L2_PIX_FMT_MJPEG},
                                         OutPinCase{CODEC_TYPE_NONE, -1, V4L2_PIX_FMT_MJPEG},
                                         OutPinCase{8, -1, V4L2_PIX_FMT_MJPEG}),
                         [](const testing::TestParamInfo<OutPinCase>& info) {
                             return "Codec" + testsupport::signedName(info.param.codec);
                         });

TEST(ElementShell, InitializeSetsLoggingGlobals)
{
    V4LCameraCapturePlugin e;
    log_level = 7;
    enable_minilog = 7;
    EXPECT_EQ(e.initialize(), 0);
    EXPECT_EQ(log_level, 1);
    EXPECT_EQ(enable_minilog, 0);
    EXPECT_EQ(e.getState(), 1);
}

// The output pin is made with the element as its owner: the element never deletes it, the
// host library does once the element has gone.
TEST(ElementShell, OutputPinOutlivesTheElementAndGoesWithItsOwner)
{
    auto e = std::make_unique<V4LCameraCapturePlugin>();
    MediaOutputPin* pin = e->getOutputPinList().first();
    EXPECT_EQ(pin->owner(), e.get());
    e.reset();
    EXPECT_EQ(MediaOutputPin::fate(pin), PinFate::DeletedByOwner);
}

TEST(ElementShell, ProbeOpenWithoutAPlaceForTheDescriptorFails)
{
    V4LCameraCapturePlugin e;
    EXPECT_EQ(e.v4l2_dev_open(nullptr), -1);
}

// A select set holds descriptors 0 to FD_SETSIZE - 1 only.
class ClosedElementRead : public testing::TestWithParam<int> {};

TEST_P(ClosedElementRead, FailsAtOnceWithoutTouchingTheSet)
{
    V4LCameraCapturePlugin e;
    ElementProbe(e).fd() = GetParam();
    MediaFrame frame(64);
    frame.setSize(9);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(e.v4l2_get_one_frame(&frame), -1);
    EXPECT_EQ(e.v4l2_get_one_frame2(), -1);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));
    EXPECT_EQ(frame.size(), 0);
    ElementProbe(e).fd() = -1;
}

INSTANTIATE_TEST_SUITE_P(Descriptors, ClosedElementRead, testing::Values(-1, FD_SETSIZE, FD_SETSIZE + 100),
                         [](const testing::TestParamInfo<int>& info) { return "Fd" + testsupport::signedName(info.param); });

} // namespace
