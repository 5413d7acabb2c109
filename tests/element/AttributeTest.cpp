// Format attributes: negotiation against the camera's list, and the format list.

#include <fcntl.h>

#include "Formats.h"
#include "SimElementFixture.h"

namespace {

using namespace testsupport;

class Attributes : public SimElementTest {
protected:
    int setFormat(int codec, int w, int h)
    {
        return element->setAttribute(ATTR_CAM_SETFORMAT, QVariant::fromValue(videoFormat(codec, w, h)));
    }
};

struct NegotiationCase {
    const char* name;
    const char* offered;  // model text
    uint32_t expected;
};

class Negotiation : public Attributes, public testing::WithParamInterface<NegotiationCase> {};

TEST_P(Negotiation, FirstPreferredFormatAtTheRequestedSize)
{
    useCamera(simcam::parseModel(GetParam().offered), kHEVC, 1, 1);  // HEVC marks "unchanged"
    EXPECT_EQ(setFormat(6, 1280, 720), 0);
    EXPECT_EQ(probe.format(), GetParam().expected);
    EXPECT_EQ(probe.size(), std::pair(1280, 720));
    EXPECT_EQ(simcam::stats().openDescriptors, 0);  // the probe descriptor is closed again
}

INSTANTIATE_TEST_SUITE_P(
    Cameras, Negotiation,
    testing::Values(NegotiationCase{"YuyvBeforeMjpeg", "formats=MJPG/YUYV", kYUYV},
                    NegotiationCase{"OwnH264First", "formats=MJPG/NV12/H264", kH264},
                    NegotiationCase{"Nv12BeforeYuyv", "formats=YUYV/NV12", kNV12},
                    NegotiationCase{"MjpegLast", "formats=MJPG", kMJPG},
                    NegotiationCase{"SizeMustMatch", "formats=H264/YUYV,size=1920x1080/640x480", kHEVC},
                    NegotiationCase{"HevcNeverChosen", "formats=HEVC", kHEVC}),
    [](const testing::TestParamInfo<NegotiationCase>& info) { return std::string(info.param.name); });

struct DirectCase {
    int codec;
    uint32_t expected;
};

class DirectFormat : public Attributes, public testing::WithParamInterface<DirectCase> {};

TEST_P(DirectFormat, OtherCodecsSetTheFormatWithoutOpeningTheCamera)
{
    useCamera(camera(kYUYV), kMJPG);
    EXPECT_EQ(setFormat(GetParam().codec, 640, 480), 0);
    EXPECT_EQ(probe.format(), GetParam().expected);
    EXPECT_TRUE(simcam::stats().opens.empty());
}

INSTANTIATE_TEST_SUITE_P(Codecs, DirectFormat,
                         testing::Values(DirectCase{7, kHEVC}, DirectCase{9, kMJPG}, DirectCase{11, kH264},
                                         DirectCase{12, kH264}, DirectCase{-1, kH264}),
                         [](const testing::TestParamInfo<DirectCase>& info) { return "Codec" + signedName(info.param.codec); });

TEST_F(Attributes, NoCameraLeavesTheFormatAndListsNothing)
{
    useCamera(camera(kH264, "open=ENOENT"), kMJPG);
    EXPECT_EQ(setFormat(6, 640, 480), 0);
    EXPECT_EQ(probe.format(), kMJPG);
    const QVariant list = element->getAttribute(ATTR_CAM_FORMATLIST);
    EXPECT_TRUE(list.isValid());
    EXPECT_TRUE(list.value<QList<MediaFormat>>().isEmpty());
}

TEST_F(Attributes, FormatListUsesAProbeWhenIdleAndTheOpenDeviceWhilePlaying)
{
    useCamera(simcam::parseModel("formats=YUYV/H264,size=640x480/320x240"));
    const QVariant idle = element->getAttribute(ATTR_CAM_FORMATLIST);
    ASSERT_EQ(simcam::stats().opens.size(), 1u);
    EXPECT_EQ(simcam::stats().opens[0].flags & O_ACCMODE, O_RDONLY);
    EXPECT_EQ(simcam::stats().openDescriptors, 0);
    const QList<MediaFormat> formats = idle.value<QList<MediaFormat>>();
    ASSERT_EQ(formats.size(), 4);
    EXPECT_EQ(formats[3].codecType, 6);
    EXPECT_EQ(formats[3].width, 320);

    MediaInputPin consumer;
    element->getOutputPinList().first()->connect(&consumer);
    ASSERT_EQ(element->play(), 0);
    simcam::resetStats();
    EXPECT_EQ(element->getAttribute(ATTR_CAM_FORMATLIST).value<QList<MediaFormat>>().size(), 4);
    EXPECT_TRUE(simcam::stats().opens.empty());
    // Negotiation always asks a probe descriptor, even while playing.
    EXPECT_EQ(setFormat(6, 640, 480), 0);
    EXPECT_EQ(simcam::stats().opens.size(), 1u);
    element->stop();
}

} // namespace
