// The element object driven directly: fields the contract operations set.

#include <gtest/gtest.h>

#include "Formats.h"
#include "Logger.h"
#include "V4LCameraCapturePlugin.h"

namespace {

constexpr uint32_t kH264 = 0x34363248, kHEVC = 0x43564548, kMJPG = 0x47504a4d;

TEST(ElementShell, FreshElementDefaults)
{
    V4LCameraCapturePlugin e;
    EXPECT_EQ(e.m_format, kH264);
    EXPECT_EQ(e.m_frameRateNum, 30);
    EXPECT_EQ(e.m_frameRateDen, 1);
    EXPECT_FALSE(e.m_running);
    EXPECT_LE(e.m_fd, 0);
    EXPECT_NE(e.getState(), 3);
    EXPECT_EQ(e.m_encoder, nullptr);
    EXPECT_EQ(e.m_mediaMem, nullptr);
    for (const auto& frame : e.m_frames)
        EXPECT_EQ(frame, nullptr);
}

struct OutPinCase {
    int codec;
    int result;
    uint32_t format;  // what m_format holds afterwards, starting from MJPG
};

class ElementOutPin : public testing::TestWithParam<OutPinCase> {};

TEST_P(ElementOutPin, TakesSizeAlwaysAndFormatWhenAccepted)
{
    V4LCameraCapturePlugin e;
    e.m_format = kMJPG;
    EXPECT_EQ(e.activeOutPin(nullptr, videoFormat(GetParam().codec, 1280, 720)), GetParam().result);
    EXPECT_EQ(e.m_width, 1280);
    EXPECT_EQ(e.m_height, 720);
    EXPECT_EQ(e.m_format, GetParam().format);
}

INSTANTIATE_TEST_SUITE_P(Codecs, ElementOutPin,
                         testing::Values(OutPinCase{6, 0, kH264}, OutPinCase{7, 0, kHEVC},
                                         OutPinCase{9, 0, kMJPG}, OutPinCase{11, -1, kMJPG},
                                         OutPinCase{12, -1, kMJPG}, OutPinCase{-1, -1, kMJPG}));

TEST(ElementShell, DefaultFormatRecordResetsSize)
{
    V4LCameraCapturePlugin e;
    e.m_width = 640;
    e.m_height = 480;
    EXPECT_EQ(e.activeOutPin(nullptr, MediaFormat()), -1);
    EXPECT_EQ(e.m_width, -1);
    EXPECT_EQ(e.m_height, -1);
}

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

} // namespace
