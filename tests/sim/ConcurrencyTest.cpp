// A capture thread streams as the element's does while the test thread changes the camera
// underneath it; run under ThreadSanitizer this checks the simulator's locking.
#include "SimTest.h"

#include <atomic>
#include <thread>

using namespace simcam;
using namespace simtest;

namespace {

// select + DQBUF + QBUF until an error other than a timeout; returns that error.
class CaptureThread {
public:
    explicit CaptureThread(Stream& s)
        : thread_([this, &s] {
              for (;;) {
                  v4l2_buffer b{};
                  int e = s.dequeue(b, 100);
                  if (e == ETIMEDOUT || e == EAGAIN) {
                      if (stop_.load())
                          return;
                      continue;
                  }
                  if (e == 0)
                      e = s.requeue(b);
                  if (e) {
                      error_.store(e);
                      return;
                  }
                  frames_.fetch_add(1);
              }
          })
    {
    }
    ~CaptureThread()
    {
        stop_.store(true);
        thread_.join();
    }
    int join()
    {
        thread_.join();
        thread_ = std::thread([] {});
        return error_.load();
    }
    int frames() const { return frames_.load(); }

private:
    std::atomic<bool> stop_{false};
    std::atomic<int> error_{0};
    std::atomic<int> frames_{0};
    std::thread thread_;
};

TEST_F(SimTest, StallThenUnplugWhileStreaming)
{
    ScopedModel model("mjpeg,size=320x240,fps=200");
    Stream s("/dev/video0", kFourccMJPG, 320, 240);
    ASSERT_EQ(s.error, 0) << s.failedAt;
    CaptureThread capture(s);
    ASSERT_TRUE(waitForFrames(5, std::chrono::seconds(2)));

    modifyFaults([](Faults& f) { f.stall = true; });
    const uint64_t stalledAt = stats().framesFilled;
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    EXPECT_LE(stats().framesFilled, stalledAt + 1) << "at most the frame being filled";

    modifyFaults([](Faults& f) {
        f.stall = false;
        f.dqbufErrno = ENODEV;
        f.dqbufAfter = 3;
    });
    EXPECT_EQ(capture.join(), ENODEV);
    EXPECT_TRUE(waitFor([](const Stats& st) { return st.clockThreads == 0 && !st.streaming(); },
                        std::chrono::seconds(1)))
        << "the clock of a camera that went away ends";
}

TEST_F(SimTest, ApiUnplugWakesTheCaptureThread)
{
    ScopedModel model("nv12,size=320x240,fps=100,stall");
    Stream s("/dev/video0", kFourccNV12, 320, 240);
    ASSERT_EQ(s.error, 0) << s.failedAt;
    CaptureThread capture(s);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    unplug();
    EXPECT_EQ(capture.join(), ENODEV);
}

TEST_F(SimTest, ReconfigureWhileStreaming)
{
    configure("h264,size=320x240,fps=200");
    Stream s("/dev/video0", kFourccH264, 320, 240);
    ASSERT_EQ(s.error, 0) << s.failedAt;
    CaptureThread capture(s);
    ASSERT_TRUE(waitForFrames(3, std::chrono::seconds(2)));
    configure("mjpeg");
    EXPECT_EQ(capture.join(), ENODEV);
    EXPECT_EQ(stats().clockThreads, 0);
}

TEST_F(SimTest, ControlsFromAnotherThreadWhileStreaming)
{
    ScopedModel model("h264,size=320x240,fps=0");
    Stream s("/dev/video0", kFourccH264, 320, 240);
    ASSERT_EQ(s.error, 0) << s.failedAt;
    CaptureThread capture(s);
    for (int i = 0; i < 50; ++i) {
        v4l2_control c{V4L2_CID_MPEG_VIDEO_FORCE_KEY_FRAME, 1};
        ASSERT_EQ(xioctl(s.fd.get(), VIDIOC_S_CTRL, &c), 0);
        v4l2_streamparm p{};
        p.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        ASSERT_EQ(xioctl(s.fd.get(), VIDIOC_G_PARM, &p), 0);
        (void)stats();
        setUnthrottled(i % 2 == 0);
    }
    setUnthrottled(true);
    ASSERT_TRUE(waitForFrames(20, std::chrono::seconds(5)));
    modifyFaults([](Faults& f) { f.dqbufErrno = EIO; });
    EXPECT_EQ(capture.join(), EIO);
}

} // namespace
