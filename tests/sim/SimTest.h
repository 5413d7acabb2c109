#pragma once
// Fixture for the simulator's tests: the library must be interposing, and every test must
// leave no descriptor, mapping or clock thread behind.

#include "V4l2Client.h"
#include "simcam/SimCamera.h"

#include <gtest/gtest.h>

class SimTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(simcam::interposing()) << "libsimcam must be linked first"; }

    void TearDown() override
    {
        simcam::clear();
        const simcam::Stats s = simcam::stats();
        EXPECT_EQ(s.openDescriptors, 0) << "simulated descriptors left open";
        EXPECT_EQ(s.mappings, 0) << "buffer mappings left";
        EXPECT_EQ(s.clockThreads, 0) << "frame clocks left running";
    }
};

inline v4l2_buffer captureBuffer(uint32_t index = 0)
{
    v4l2_buffer b{};
    b.index = index;
    b.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    b.memory = V4L2_MEMORY_DMABUF;
    return b;
}
