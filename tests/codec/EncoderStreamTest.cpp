// What comes out of the built-in encoder, checked packet by packet and by an independent
// decoder.
#include <gtest/gtest.h>

#include <QTemporaryDir>

#include <cmath>
#include <memory>

#include "EncoderHarness.h"
#include "ExternalTools.h"
#include "TestPictures.h"

namespace {

using namespace codectest;

const std::vector<int> kIdrPicture{7, 8, 5};  // SPS, PPS, IDR slice
const std::vector<int> kPPicture{1};

std::string formatName(uint64_t format)
{
    return format == Codec::PIXEL_FORMAT_YUYV ? "Yuyv" : "Nv12";
}

struct StreamCase {
    uint64_t format;
    uint32_t width, height;
};

std::string streamCaseName(const testing::TestParamInfo<StreamCase>& info)
{
    return formatName(info.param.format) + std::to_string(info.param.width) + "x" +
           std::to_string(info.param.height);
}

class EncodedStream : public testing::TestWithParam<StreamCase> {};

// Every picture gives one packet straight away; pictures 0, 60 and 120 are IDRs with their
// parameter sets, all others a single P slice; and a decoder reads all of them back.
TEST_P(EncodedStream, OnePacketPerPictureWithIdrsOnTheKeyInterval)
{
    const StreamCase& c = GetParam();
    auto encoder = createH264Encoder();
    ASSERT_NE(encoder, nullptr);
    StreamSettings settings;
    settings.format = c.format;
    settings.width = c.width;
    settings.height = c.height;
    ASSERT_EQ(configureLikeElement(*encoder, settings), 0);

    // A few distinct pictures in turn: making 121 of them would cost more than encoding.
    std::vector<std::unique_ptr<CameraFrame>> frames;
    for (int i = 0; i < 7; ++i)
        frames.push_back(
            std::make_unique<CameraFrame>(makePicture(int(c.width), int(c.height), i), c.format));
    const int pictures = 121;
    std::vector<uint8_t> stream;
    for (int i = 0; i < pictures; ++i) {
        ASSERT_EQ(encoder->putFrame(frames[size_t(i) % frames.size()]->get()), 0)
            << "picture " << i;
        const std::vector<uint8_t> packet = takePacket(*encoder);
        ASSERT_FALSE(packet.empty()) << "no packet for picture " << i;
        ASSERT_TRUE(takePacket(*encoder).empty()) << "a second packet for picture " << i;
        EXPECT_EQ(nalTypes(packet), i % 60 == 0 ? kIdrPicture : kPPicture) << "picture " << i;
        stream.insert(stream.end(), packet.begin(), packet.end());
    }
    EXPECT_EQ(encoder->reset(), 0);

    if (!haveTool("ffprobe"))
        GTEST_SKIP() << "ffprobe is not installed; the decoder check needs it";
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString path = dir.filePath("stream.h264");
    ASSERT_TRUE(writeFile(path, stream));
    const auto probe = probeH264(path);
    ASSERT_TRUE(probe.has_value()) << "ffprobe failed on the stream";
    EXPECT_EQ(probe->frames, pictures);
    EXPECT_EQ(probe->width, int(c.width));
    EXPECT_EQ(probe->height, int(c.height));
    EXPECT_EQ(probe->profile, "Constrained Baseline");
}

INSTANTIATE_TEST_SUITE_P(Sizes, EncodedStream,
                         testing::Values(StreamCase{Codec::PIXEL_FORMAT_YUYV, 320, 240},
                                         StreamCase{Codec::PIXEL_FORMAT_NV12, 320, 240},
                                         // Not a whole number of macroblocks: cropped.
                                         StreamCase{Codec::PIXEL_FORMAT_YUYV, 176, 100},
                                         StreamCase{Codec::PIXEL_FORMAT_YUYV, 640, 480},
                                         StreamCase{Codec::PIXEL_FORMAT_NV12, 640, 480},
                                         StreamCase{Codec::PIXEL_FORMAT_NV12, 1280, 720}),
                         streamCaseName);

double psnr(const uint8_t* a, const uint8_t* b, size_t n)
{
    double sum = 0;
    for (size_t i = 0; i < n; ++i) {
        const double d = double(a[i]) - double(b[i]);
        sum += d * d;
    }
    return sum == 0 ? 99.0 : 10.0 * std::log10(255.0 * 255.0 * double(n) / sum);
}

class DecodedPictures : public testing::TestWithParam<StreamCase> {};

// The decoded pictures are the pictures put in: catches swapped or shifted planes and a
// picture coming out late, which the stream layout alone does not show.
TEST_P(DecodedPictures, MatchTheInputPlaneByPlane)
{
    if (!haveTool("ffmpeg"))
        GTEST_SKIP() << "ffmpeg is not installed; the decoder check needs it";
    const StreamCase& c = GetParam();
    auto encoder = createH264Encoder();
    StreamSettings settings;
    settings.format = c.format;
    settings.width = c.width;
    settings.height = c.height;
    ASSERT_EQ(configureLikeElement(*encoder, settings), 0);

    const int pictures = 6;
    std::vector<I420Image> inputs;
    std::vector<uint8_t> stream;
    for (int i = 0; i < pictures; ++i) {
        inputs.push_back(makePicture(int(c.width), int(c.height), i));
        CameraFrame frame(inputs.back(), c.format);
        ASSERT_EQ(encoder->putFrame(frame.get()), 0);
        const std::vector<uint8_t> packet = takePacket(*encoder);
        stream.insert(stream.end(), packet.begin(), packet.end());
    }

    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString path = dir.filePath("stream.h264");
    ASSERT_TRUE(writeFile(path, stream));
    const auto decoded = decodeH264ToI420(path);
    ASSERT_TRUE(decoded.has_value()) << "ffmpeg failed on the stream";
    const size_t luma = size_t(c.width) * c.height, chroma = luma / 4;
    ASSERT_EQ(decoded->size(), pictures * (luma + 2 * chroma));

    for (int i = 0; i < pictures; ++i) {
        const uint8_t* y = decoded->data() + size_t(i) * (luma + 2 * chroma);
        const I420Image& in = inputs[size_t(i)];
        // At this bit rate the small pictures come back nearly lossless; a fault costs
        // far more than these margins.
        EXPECT_GT(psnr(y, in.y.data(), luma), 38.0) << "luma of picture " << i;
        EXPECT_GT(psnr(y + luma, in.u.data(), chroma), 38.0) << "U of picture " << i;
        EXPECT_GT(psnr(y + luma + chroma, in.v.data(), chroma), 38.0) << "V of picture " << i;
    }
}

INSTANTIATE_TEST_SUITE_P(Formats, DecodedPictures,
                         testing::Values(StreamCase{Codec::PIXEL_FORMAT_YUYV, 320, 240},
                                         StreamCase{Codec::PIXEL_FORMAT_NV12, 320, 240},
                                         StreamCase{Codec::PIXEL_FORMAT_NV12, 176, 100}),
                         streamCaseName);

struct StrideCase {
    const char* name;
    uint64_t format;
    uint32_t horPad;    // bytes added to each row
    uint32_t verPad;    // lines added to each plane
    bool fromSettings;  // the frame leaves its strides 0; only the settings tell them
};

class PaddedFrames : public testing::TestWithParam<StrideCase> {};

// openh264 is deterministic, so a padded buffer of the same picture must give the very
// same bytes as a tight one.
TEST_P(PaddedFrames, EncodeLikeTightOnes)
{
    const StrideCase& c = GetParam();
    const uint32_t width = 160, height = 96;
    const uint32_t row = c.format == Codec::PIXEL_FORMAT_YUYV ? 2 * width : width;
    StreamSettings tight;
    tight.format = c.format;
    tight.width = width;
    tight.height = height;
    StreamSettings padded = tight;
    padded.horStride = row + c.horPad;
    padded.verStride = height + c.verPad;

    auto reference = createH264Encoder();
    auto subject = createH264Encoder();
    ASSERT_EQ(configureLikeElement(*reference, tight), 0);
    ASSERT_EQ(configureLikeElement(*subject, padded), 0);
    for (int i = 0; i < 3; ++i) {
        const I420Image picture = makePicture(int(width), int(height), i);
        CameraFrame tightFrame(picture, c.format);
        CameraFrame paddedFrame(picture, c.format, padded.horStride, padded.verStride);
        if (c.fromSettings)
            paddedFrame.get()->horStride = paddedFrame.get()->verStride = 0;
        ASSERT_EQ(reference->putFrame(tightFrame.get()), 0);
        ASSERT_EQ(subject->putFrame(paddedFrame.get()), 0);
        const std::vector<uint8_t> expected = takePacket(*reference);
        ASSERT_FALSE(expected.empty());
        EXPECT_EQ(takePacket(*subject), expected) << "picture " << i;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Strides, PaddedFrames,
    testing::Values(StrideCase{"YuyvWideRows", Codec::PIXEL_FORMAT_YUYV, 64, 0, false},
                    StrideCase{"YuyvWideRowsExtraLines", Codec::PIXEL_FORMAT_YUYV, 32, 8, false},
                    StrideCase{"Nv12WideRows", Codec::PIXEL_FORMAT_NV12, 64, 0, false},
                    StrideCase{"Nv12ExtraLines", Codec::PIXEL_FORMAT_NV12, 0, 16, false},
                    StrideCase{"Nv12WideRowsExtraLines", Codec::PIXEL_FORMAT_NV12, 96, 32, false},
                    StrideCase{"Nv12StridesFromSettings", Codec::PIXEL_FORMAT_NV12, 32, 16, true},
                    StrideCase{"YuyvStridesFromSettings", Codec::PIXEL_FORMAT_YUYV, 32, 0, true}),
    CaseName());

class ResetEncoder : public testing::TestWithParam<uint64_t> {};

// After reset() a stream starts over: the first picture is coded exactly as a fresh
// encoder codes it (parameter sets, IDR, rate control back at its start).
TEST_P(ResetEncoder, StartsANewStreamWithOrWithoutConfigure)
{
    StreamSettings settings;
    settings.format = GetParam();
    const I420Image first = makePicture(320, 240, 0);
    auto fresh = createH264Encoder();
    ASSERT_EQ(configureLikeElement(*fresh, settings), 0);
    CameraFrame firstFrame(first, settings.format);
    ASSERT_EQ(fresh->putFrame(firstFrame.get()), 0);
    const std::vector<uint8_t> freshPacket = takePacket(*fresh);
    ASSERT_EQ(nalTypes(freshPacket), kIdrPicture);

    auto encoder = createH264Encoder();
    ASSERT_EQ(configureLikeElement(*encoder, settings), 0);
    for (int i = 1; i <= 5; ++i) {
        CameraFrame frame(makePicture(320, 240, i), settings.format);
        ASSERT_EQ(encoder->putFrame(frame.get()), 0);
    }
    // Five packets are waiting; reset drops them.
    EXPECT_EQ(encoder->reset(), 0);
    EXPECT_TRUE(takePacket(*encoder).empty());

    ASSERT_EQ(encoder->putFrame(firstFrame.get()), 0);
    EXPECT_EQ(takePacket(*encoder), freshPacket) << "without configure";

    CameraFrame next(makePicture(320, 240, 1), settings.format);
    ASSERT_EQ(encoder->putFrame(next.get()), 0);
    EXPECT_EQ(nalTypes(takePacket(*encoder)), kPPicture);
    EXPECT_EQ(encoder->reset(), 0);
    ASSERT_EQ(configureLikeElement(*encoder, settings), 0);
    ASSERT_EQ(encoder->putFrame(firstFrame.get()), 0);
    EXPECT_EQ(takePacket(*encoder), freshPacket) << "with configure";
}

INSTANTIATE_TEST_SUITE_P(Formats, ResetEncoder,
                         testing::Values(Codec::PIXEL_FORMAT_YUYV, Codec::PIXEL_FORMAT_NV12),
                         [](const testing::TestParamInfo<uint64_t>& info) {
                             return formatName(info.param);
                         });

} // namespace
