#pragma once
// An element object against the simulated camera, with the log captured.

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Logger.h"
#include "ElementProbe.h"
#include "RowNames.h"
#include "simcam/SimCamera.h"

namespace testsupport {

constexpr uint32_t kH264 = simcam::kFourccH264;
constexpr uint32_t kHEVC = simcam::kFourccHEVC;
constexpr uint32_t kMJPG = simcam::kFourccMJPG;
constexpr uint32_t kYUYV = simcam::kFourccYUYV;
constexpr uint32_t kNV12 = simcam::kFourccNV12;

// A USB camera ("video0", with a metadata node "video1") offering one format at one size,
// at 30 fps, with short clips; `settings` appends model text ("open=ENOENT,stall").
inline simcam::Model camera(uint32_t fourcc, const std::string& settings = "", int w = 640, int h = 480)
{
    const char name[] = {char(fourcc), char(fourcc >> 8), char(fourcc >> 16), char(fourcc >> 24), 0};
    return simcam::parseModel(std::string("formats=") + name + ",size=" + std::to_string(w) + "x" +
                              std::to_string(h) + ",fps=30,clip=8,gop=4," + settings);
}

class SimElementTest : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(simcam::interposing()) << "libsimcam must come first in the link order";
        ElementProbe::streaming() = false;
    }
    void TearDown() override
    {
        if (element)
            element->stop();
        element.reset();  // also drops queued calls posted to it
        ElementProbe::streaming() = false;
        // Nothing the element opened or mapped outlives it.
        EXPECT_EQ(simcam::stats().openDescriptors, 0);
        EXPECT_EQ(simcam::stats().mappings, 0);
        simcam::clear();
    }

    // Applies a model and a capture format.
    void useCamera(const simcam::Model& model, uint32_t fourcc = kH264, int w = 640, int h = 480)
    {
        simcam::configure(model);
        simcam::resetStats();
        probe.setCapture(fourcc, w, h);
    }
    void useCamera(uint32_t fourcc, const std::string& settings = "", int w = 640, int h = 480)
    {
        useCamera(camera(fourcc, settings, w, h), fourcc, w, h);
    }

    // Open, set format, set up buffers: what play does before its thread starts.
    void prepare()
    {
        ASSERT_EQ(element->v4l2_dev_open(), 0);
        ASSERT_EQ(element->v4l2_set_format(), 0);
        ASSERT_EQ(element->v4l2_init_buffer(), 0);
    }

    // Entries waiting for the sender, oldest first.
    std::vector<std::vector<uint8_t>> queued() { return probe.queued(); }
    // Tops the send queue up to n one-byte entries.
    void fillQueue(size_t n)
    {
        const uint8_t byte = 0x11;
        while (probe.queueLength() < n)
            probe.push(&byte, 1u);
    }

    // Runs what the element posted to itself (USB resets).
    static void runQueuedCalls() { QCoreApplication::processEvents(); }

    std::unique_ptr<V4LCameraCapturePlugin> element = std::make_unique<V4LCameraCapturePlugin>();
    ElementProbe probe{*element};
    LogCapture log;
};

} // namespace testsupport
