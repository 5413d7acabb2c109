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
    std::vector<simcam::Format> offered;
    uint32_t expected;
};

class Negotiation : public Attributes, public testing::WithParamInterface<NegotiationCase> {};

TEST_P(Negotiation, FirstPreferredFormatAtTheRequestedSize)
{
    useCamera(camera(GetParam().offered), kHEVC, 1, 1);  // HEVC marks "unchanged"
    EXPECT_EQ(setFormat(6, 1280, 720), 0);
    EXPECT_EQ(element->m_format, GetParam().expected);
    EXPECT_EQ(element->m_width, 1280);
    EXPECT_EQ(element->m_height, 720);
    EXPECT_EQ(simcam::stats().openDescriptors, 0);  // the probe descriptor is closed again
}

INSTANTIATE_TEST_SUITE_P(
    Cameras, Negotiation,
    testing::Values(
        NegotiationCase{"YuyvBeforeMjpeg", {format(kMJPG, {{1280, 720}}), format(kYUYV, {{1280, 720}})}, kYUYV},
        NegotiationCase{"OwnH264First",
                        {format(kMJPG, {{1280, 720}}), format(kNV12, {{1280, 720}}), format(kH264, {{1280, 720}})},
                        kH264},
        NegotiationCase{"Nv12BeforeYuyv", {format(kYUYV, {{1280, 720}}), format(kNV12, {{1280, 720}})}, kNV12},
        NegotiationCase{"MjpegLast", {format(kMJPG, {{1280, 720}})}, kMJPG},
        NegotiationCase{"SizeMustMatch", {format(kH264, {{1920, 1080}}), format(kYUYV, {{640, 480}})}, kHEVC},
        NegotiationCase{"HevcNeverChosen", {format(kHEVC, {{1280, 720}})}, kHEVC}),
    [](const testing::TestParamInfo<NegotiationCase>& info) { return std::string(info.param.name); });

struct DirectCase {
    int codec;
    uint32_t expected;
};

class DirectFormat : public Attributes, public testing::WithParamInterface<DirectCase> {};

TEST_P(DirectFormat, OtherCodecsSetTheFormatWithoutOpeningTheCamera)
{
    useCamera(smallCamera(kYUYV), kMJPG);
    EXPECT_EQ(setFormat(GetParam().codec, 640, 480), 0);
    EXPECT_EQ(element->m_format, GetParam().expected);
    EXPECT_TRUE(simcam::stats().opens.empty());
}

INSTANTIATE_TEST_SUITE_P(Codecs, DirectFormat,
                         testing::Values(DirectCase{7, kHEVC}, DirectCase{9, kMJPG}, DirectCase{11, kH264},
                                         DirectCase{12, kH264}, DirectCase{-1, kH264}));

TEST_F(Attributes, ValueWithoutAFormatReadsAsTheDefaultRecord)
{
    useCamera(smallCamera(kH264), kMJPG, 640, 480);
    EXPECT_EQ(element->setAttribute(ATTR_CAM_SETFORMAT, QVariant(42)), 0);
    EXPECT_EQ(element->m_width, -1);
    EXPECT_EQ(element->m_height, -1);
    EXPECT_EQ(element->m_format, kH264);
}

TEST_F(Attributes, NoCameraLeavesTheFormatAndListsNothing)
{
    simcam::Model model = smallCamera(kH264);
    model.cameras[0].nodes[0].faults.openErrno = ENOENT;
    useCamera(model, kMJPG);
    EXPECT_EQ(setFormat(6, 640, 480), 0);
    EXPECT_EQ(element->m_format, kMJPG);
    const QVariant list = element->getAttribute(ATTR_CAM_FORMATLIST);
    EXPECT_TRUE(list.isValid());
    EXPECT_TRUE(list.value<QList<MediaFormat>>().isEmpty());
}

TEST_F(Attributes, FormatListUsesAProbeWhenIdleAndTheOpenDeviceWhilePlaying)
{
    useCamera(camera({format(kYUYV, {{640, 480}}), format(kH264, {{640, 480}, {320, 240}})}));
    const QVariant idle = element->getAttribute(ATTR_CAM_FORMATLIST);
    ASSERT_EQ(simcam::stats().opens.size(), 1u);
    EXPECT_EQ(simcam::stats().opens[0].flags & O_ACCMODE, O_RDONLY);
    EXPECT_EQ(simcam::stats().openDescriptors, 0);
    const QList<MediaFormat> formats = idle.value<QList<MediaFormat>>();
    ASSERT_EQ(formats.size(), 3);
    EXPECT_EQ(formats[2].codecType, 6);
    EXPECT_EQ(formats[2].width, 320);

    MediaInputPin consumer;
    element->getOutputPinList().first()->connect(&consumer);
    ASSERT_EQ(element->play(), 0);
    simcam::resetStats();
    EXPECT_EQ(element->getAttribute(ATTR_CAM_FORMATLIST).value<QList<MediaFormat>>().size(), 3);
    EXPECT_TRUE(simcam::stats().opens.empty());
    // Negotiation always asks a probe descriptor, even while playing.
    EXPECT_EQ(setFormat(6, 640, 480), 0);
    EXPECT_EQ(simcam::stats().opens.size(), 1u);
    element->stop();
}

} // namespace
