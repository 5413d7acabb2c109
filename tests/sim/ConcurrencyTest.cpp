// A capture thread streams as the element's does while the test thread changes the camera
// underneath it; under ThreadSanitizer this checks the simulator's locking.
#include "SimTest.h"

#include <atomic>
#include <thread>

using namespace simcam;
using namespace simtest;

namespace {

TEST_F(SimTest, CameraChangesWhileAnotherThreadStreams)
{
    configure("h264,size=320x240,fps=200");
    Stream s(kFourccH264, 320, 240);
    ASSERT_EQ(s.error, 0) << s.failedAt;
    std::atomic<bool> stop{false};
    std::atomic<int> error{0};
    std::thread capture([&] {
        while (!stop) {
            v4l2_buffer b{};
            int e = s.dequeue(b, 100);
            if (e == 0)
                e = s.requeue(b);
            if (e && e != ETIMEDOUT && e != EAGAIN)
                return error.store(e);
        }
    });

    for (int i = 0; i < 50; ++i) {
        v4l2_control c{V4L2_CID_MPEG_VIDEO_FORCE_KEY_FRAME, 1};
        EXPECT_EQ(xioctl(s.fd.get(), VIDIOC_S_CTRL, &c), 0);
        v4l2_streamparm p{};
        p.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        EXPECT_EQ(xioctl(s.fd.get(), VIDIOC_G_PARM, &p), 0);
        (void)stats();
        setUnthrottled(i % 2 == 0);
        modifyFaults([i](Faults& f) {
            f.stall = i % 3 == 0;
            f.emptyEvery = i % 4;
        });
    }
    setFaults(Faults{});
    setUnthrottled(true);
    EXPECT_TRUE(waitForFrames(20, std::chrono::seconds(5)));
    EXPECT_EQ(error.load(), 0);

    configure("mjpeg"); // the capture thread's descriptor dies under it
    for (int i = 0; i < 200 && !error; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    stop = true;
    capture.join();
    EXPECT_EQ(error.load(), ENODEV);
    EXPECT_EQ(stats().clockThreads, 0);
}

} // namespace
