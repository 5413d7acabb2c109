// Losing the camera and getting it back: an unplug that re-enumerates by itself (replug=MS)
// or stays, and a stalled stream that a fresh stream recovers from.
#include "SimTest.h"

#include <linux/usbdevice_fs.h>

#include <chrono>
#include <thread>

using namespace simcam;
using namespace simtest;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

namespace {

constexpr const char* kCamera = "mjpeg,size=320x240,fps=100";

long msSince(Clock::time_point start)
{
    return long(std::chrono::duration_cast<milliseconds>(Clock::now() - start).count());
}

// Opens /dev/video0 every 10 ms until it succeeds or `limit` passed; the errno of every
// failed attempt that was not ENOENT lands in `otherError`.
UniqueFd openWhenBack(milliseconds limit, int& otherError)
{
    const auto end = Clock::now() + limit;
    for (;;) {
        UniqueFd fd(::open("/dev/video0", O_RDWR | O_NONBLOCK));
        if (fd.get() >= 0)
            return fd;
        if (errno != ENOENT)
            otherError = errno;
        if (Clock::now() >= end)
            return fd;
        std::this_thread::sleep_for(milliseconds(10));
    }
}

// Dequeues and requeues `n` frames; 0 or the first error.
int take(Stream& s, int n)
{
    for (int i = 0; i < n; ++i) {
        v4l2_buffer b{};
        if (int e = s.dequeue(b))
            return e;
        if (int e = s.requeue(b))
            return e;
    }
    return 0;
}

enum class Unplug { AtDequeue, ByApi };

struct UnplugCase {
    const char* name;
    const char* settings; // appended to kCamera
    Unplug how;
    int replugMs; // -1: the camera stays gone
};
// Rows show by name in test listings, not as the bytes of the struct.
std::ostream& operator<<(std::ostream& os, const UnplugCase& c) { return os << c.name; }

class Unplugged : public SimTest, public ::testing::WithParamInterface<UnplugCase> {};

TEST_P(Unplugged, ComesBackAfterItsReplugTimeOrNever)
{
    const UnplugCase& c = GetParam();
    ScopedModel model(std::string(kCamera) + "," + c.settings);
    Stream s(kFourccMJPG, 320, 240);
    ASSERT_EQ(s.error, 0) << s.failedAt;
    ASSERT_EQ(take(s, 3), 0);

    const auto unpluggedAt = Clock::now();
    v4l2_buffer b{};
    if (c.how == Unplug::ByApi)
        unplug();
    EXPECT_EQ(s.dequeue(b), ENODEV) << (c.how == Unplug::AtDequeue ? "the unplug fault" : "woken");
    errno = 0;
    EXPECT_LT(UniqueFd(::open("/dev/video0", O_RDWR)).get(), 0) << "gone at once";
    EXPECT_EQ(errno, ENOENT);

    int otherError = 0;
    const milliseconds limit(c.replugMs < 0 ? 1000 : c.replugMs + 3000);
    UniqueFd back = openWhenBack(limit, otherError);
    const long backAfter = msSince(unpluggedAt);
    EXPECT_EQ(otherError, 0) << "opens fail ENOENT while the camera is away";
    if (c.replugMs < 0) {
        EXPECT_LT(back.get(), 0) << "no replug: the camera stays gone";
        EXPECT_EQ(stats().replugTimers, 0) << "no timer without replug";
        return;
    }
    ASSERT_GE(back.get(), 0) << "not back " << limit.count() << " ms after the unplug";
    EXPECT_GE(backAfter, c.replugMs);
    EXPECT_LT(backAfter, c.replugMs + 1500) << "a loaded machine may be late, not this late";
    EXPECT_EQ(stats().replugTimers, 1) << "the timer waits for the next unplug";
    back.reset();

    // As after a USB reset: the old descriptor stays dead, a new one streams past the
    // frame the unplug fault was set for (it is spent).
    Stream fresh(kFourccMJPG, 320, 240);
    ASSERT_EQ(fresh.error, 0) << fresh.failedAt;
    ASSERT_EQ(take(fresh, 6), 0);
    EXPECT_EQ(s.dequeue(b, 0), ENODEV);
    EXPECT_EQ(s.requeue(b), ENODEV);
    EXPECT_EQ(take(fresh, 3), 0);
    errno = 0;
    EXPECT_GE(UniqueFd(::open("/dev/video1", O_RDWR)).get(), 0) << errno;
}

INSTANTIATE_TEST_SUITE_P(
    Replug, Unplugged,
    ::testing::Values(UnplugCase{"FaultReplugs", "unplug=3,replug=400", Unplug::AtDequeue, 400},
                      UnplugCase{"FaultStaysGone", "unplug=3", Unplug::AtDequeue, -1},
                      UnplugCase{"ApiReplugs", "replug=300", Unplug::ByApi, 300},
                      UnplugCase{"ApiStaysGone", "", Unplug::ByApi, -1},
                      UnplugCase{"ResetOnlyCameraReplugs", "noreplug,unplug=3,replug=200", Unplug::AtDequeue, 200},
                      UnplugCase{"OtherCameraReplugs", "cameras=2,cam1.replug=100,unplug=3", Unplug::AtDequeue, -1}),
    [](const auto& info) { return std::string(info.param.name); });

// A blocking DQBUF that waits through a re-enumeration fails ENODEV, as the old device is
// gone; that is not the unplug fault, and the camera that came back stays.
TEST_F(SimTest, ADequeueWaitingThroughAResetDoesNotUnplugTheNewDevice)
{
    ScopedModel model(std::string(kCamera) + ",stall");
    Stream s(kFourccMJPG, 320, 240, 4, true);
    ASSERT_EQ(s.error, 0) << s.failedAt;
    int result = -1;
    std::thread waiter([&] {
        v4l2_buffer b = captureBuffer();
        result = xioctl(s.fd.get(), VIDIOC_DQBUF, &b);
    });
    std::this_thread::sleep_for(milliseconds(200)); // into the wait: the camera is stalled
    {
        UniqueFd usb(::open("/dev/bus/usb/001/002", O_RDWR));
        EXPECT_EQ(xioctl(usb.get(), USBDEVFS_RESET, nullptr), 0);
    }
    waiter.join();
    EXPECT_EQ(result, ENODEV);
    errno = 0;
    EXPECT_GE(UniqueFd(::open("/dev/video0", O_RDWR)).get(), 0) << "unplugged by an old descriptor: " << errno;
}

// stallafter=N: N frames from each stream, then nothing while that stream runs; a new one
// (STREAMOFF and STREAMON, or the node closed and opened again) delivers again.
enum class Restart { None, StreamOffOn, Reopen };

struct StallCase {
    const char* name;
    Restart restart;
};
// Rows show by name in test listings, not as the bytes of the struct.
std::ostream& operator<<(std::ostream& os, const StallCase& c) { return os << c.name; }

class Stalled : public SimTest, public ::testing::WithParamInterface<StallCase> {};

// Frames the stream delivers before 500 ms pass without one; an error lands in `error`.
int deliveredUntilQuiet(Stream& s, int& error)
{
    int frames = 0;
    for (;;) {
        v4l2_buffer b{};
        int e = s.dequeue(b, 500);
        if (e == ETIMEDOUT)
            return frames;
        if (e || (e = s.requeue(b))) {
            error = e;
            return frames;
        }
        if (++frames > 100)
            return frames; // not stalling at all
    }
}

TEST_P(Stalled, ANewStreamDeliversAgain)
{
    constexpr int kAfter = 3;
    constexpr uint32_t kBuffers = 4;
    ScopedModel model(std::string(kCamera) + ",stallafter=" + std::to_string(kAfter));
    auto s = std::make_unique<Stream>(kFourccMJPG, 320, 240, kBuffers);
    ASSERT_EQ(s->error, 0) << s->failedAt;
    int error = 0;
    // Buffers filled before the count was reached are still handed out.
    const int first = deliveredUntilQuiet(*s, error);
    ASSERT_EQ(error, 0);
    EXPECT_GE(first, kAfter);
    EXPECT_LT(first, kAfter + int(kBuffers));
    EXPECT_EQ(deliveredUntilQuiet(*s, error), 0) << "stays stalled";

    switch (GetParam().restart) {
    case Restart::None:
        break;
    case Restart::StreamOffOn:
        ASSERT_EQ(s->streamCtl(VIDIOC_STREAMOFF), 0);
        for (uint32_t i = 0; i < kBuffers; ++i) {
            v4l2_buffer b = captureBuffer(i, s->buffers[i].fd.get(), uint32_t(s->buffers[i].size));
            ASSERT_EQ(s->requeue(b), 0);
        }
        ASSERT_EQ(s->streamCtl(VIDIOC_STREAMON), 0);
        break;
    case Restart::Reopen:
        s.reset(); // as the element's stop: the descriptor closes
        s = std::make_unique<Stream>(kFourccMJPG, 320, 240, kBuffers);
        ASSERT_EQ(s->error, 0) << s->failedAt;
        break;
    }
    const int second = deliveredUntilQuiet(*s, error);
    EXPECT_EQ(error, 0);
    if (GetParam().restart == Restart::None) {
        EXPECT_EQ(second, 0);
    } else {
        EXPECT_GE(second, kAfter) << "a fresh stream counts from zero";
        EXPECT_LT(second, kAfter + int(kBuffers)) << "and stalls again";
    }
}

INSTANTIATE_TEST_SUITE_P(Restarts, Stalled,
                         ::testing::Values(StallCase{"SameStream", Restart::None},
                                           StallCase{"StreamOffOn", Restart::StreamOffOn},
                                           StallCase{"Reopen", Restart::Reopen}),
                         [](const auto& info) { return std::string(info.param.name); });

} // namespace
