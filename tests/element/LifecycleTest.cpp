// play, stop, pause and initialize against the simulated camera.

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <thread>

#include <unistd.h>

#include "SimElementFixture.h"

namespace {

using namespace testsupport;

class Lifecycle : public SimElementTest {
protected:
    void SetUp() override
    {
        SimElementTest::SetUp();
        element->getOutputPinList().first()->connect(&consumer);
        drainer = std::thread([this] {
            while (!stopDrain) {
                if (MediaFrame* frame = consumer.take(20))
                    consumer.release(frame);
            }
        });
    }
    void TearDown() override
    {
        SimElementTest::TearDown();
        stopDrain = true;
        drainer.join();
    }

    MediaInputPin consumer;
    std::atomic<bool> stopDrain{false};
    std::thread drainer;
};

int countEntries(const char* dir)
{
    return int(std::distance(std::filesystem::directory_iterator(dir), std::filesystem::directory_iterator()));
}

// A joined thread can stay listed for a moment (qemu-user finishes it after waking the
// joiner), so the count is read until it holds still for 100 ms.
int settledThreadCount()
{
    int n = countEntries("/proc/self/task");
    for (int still = 0; still < 10;) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        const int m = countEntries("/proc/self/task");
        still = m == n ? still + 1 : 0;
        n = m;
    }
    return n;
}

TEST_F(Lifecycle, PlayStreamsUntilStopAndEveryPlayOpensAfresh)
{
    useCamera(kH264);
    element->initialize();
    for (int round = 1; round <= 2; ++round) {
        ASSERT_EQ(element->play(), 0);
        EXPECT_EQ(element->getState(), 3);
        EXPECT_EQ(element->play(), 0);  // refused while playing: nothing more is opened
        EXPECT_TRUE(simcam::waitForFrames(3 * uint64_t(round), std::chrono::seconds(5)));
        EXPECT_EQ(round == 1 ? element->stop() : element->pause(), 0);
        EXPECT_EQ(element->getState(), 2);
        EXPECT_EQ(probe.fd(), -1);
        EXPECT_FALSE(probe.running());
        EXPECT_EQ(simcam::stats().openDescriptors, 0);
        EXPECT_EQ(simcam::stats().opens.size(), size_t(round));
    }
    EXPECT_EQ(log.count("V4LCameraCapturePlugin alredy be playing", 0), 2);
    EXPECT_FALSE(log.contains("off stream failed", 0));  // a healthy camera stops cleanly
    // Teardown order: threads joined (the loop ends while stop waits for it), streaming
    // off, buffers released, device closed.
    const std::vector<std::string> order = {"v4l2 stop begin \n", "thread stop\n", "thread stop end\n",
                                            "stream stop\n", "v4l2 stop end\n"};
    std::vector<std::string> seen;
    int loopEndedInsideJoin = 0;
    for (const LogLine& line : log.lines()) {
        const auto endsWith = [&](const std::string& tail) {
            return line.text.size() >= tail.size() && line.text.compare(line.text.size() - tail.size(), tail.size(), tail) == 0;
        };
        for (const std::string& step : order)
            if (endsWith(step))
                seen.push_back(step);
        if (endsWith("video_frame over!\n"))
            loopEndedInsideJoin += !seen.empty() && (seen.back() == order[0] || seen.back() == order[1]);
    }
    std::vector<std::string> twice = order;
    twice.insert(twice.end(), order.begin(), order.end());
    EXPECT_EQ(seen, twice);
    EXPECT_EQ(loopEndedInsideJoin, 2);
}

// A daemon may run with its standard input closed: the camera then opens as descriptor 0,
// which is a descriptor like any other.
TEST_F(Lifecycle, CameraOpenedAsDescriptorZeroStreams)
{
    useCamera(kH264);
    element->initialize();
    const int stdinCopy = ::dup(0);
    ASSERT_GE(stdinCopy, 0);
    ::close(0);
    const int played = element->play();
    const int fd = probe.fd();
    const bool streamed = simcam::waitForFrames(10, std::chrono::seconds(5));
    element->stop();
    ::dup2(stdinCopy, 0);
    ::close(stdinCopy);
    ASSERT_EQ(played, 0);
    EXPECT_EQ(fd, 0);
    EXPECT_TRUE(streamed);
    EXPECT_EQ(probe.fd(), -1);
    EXPECT_EQ(simcam::stats().openDescriptors, 0);
}

// The capture thread sits in its 1 s device wait (stalled camera) or its 3 s pause after a
// failed dequeue (unplugged camera); stop, pause and deleting must not wait for either.
struct StopCase {
    const char* name;
    const char* fault;  // model text
    int playedMs;
    bool viaPause;
};

class StopsPromptly : public Lifecycle, public testing::WithParamInterface<StopCase> {};

TEST_P(StopsPromptly, WhateverTheCaptureThreadWaitsFor)
{
    constexpr auto kBound = std::chrono::milliseconds(250);  // loose for sanitizers and emulation
    useCamera(kH264, GetParam().fault);
    ASSERT_EQ(element->play(), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(GetParam().playedMs));
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(GetParam().viaPause ? element->pause() : element->stop(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, kBound);
    EXPECT_EQ(element->getState(), 2);
    start = std::chrono::steady_clock::now();
    element.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - start, kBound);
}

INSTANTIATE_TEST_SUITE_P(
    Cameras, StopsPromptly,
    testing::Values(StopCase{"Stalled1200", "stall", 1200, false}, StopCase{"Stalled2000", "stall", 2000, true},
                    StopCase{"Stalled2500", "stall", 2500, false}, StopCase{"Unplugged1200", "unplug=2", 1200, true},
                    StopCase{"Unplugged2000", "unplug=2", 2000, false}, StopCase{"Unplugged2500", "unplug=2", 2500, false}),
    [](const testing::TestParamInfo<StopCase>& info) { return std::string(info.param.name); });

// A fault (model text) and the line play logs.
class PlayFails : public Lifecycle, public testing::WithParamInterface<std::pair<const char*, const char*>> {};

TEST_P(PlayFails, LeavesNoDeviceOpenAndTheStateAsItWas)
{
    useCamera(kH264, GetParam().first);
    element->initialize();
    const int fds = countEntries("/proc/self/fd");
    EXPECT_EQ(element->play(), -1);
    EXPECT_EQ(countEntries("/proc/self/fd"), fds);  // capture memory a refused import left behind
    EXPECT_TRUE(log.contains(GetParam().second, 0)) << GetParam().second;
    EXPECT_EQ(element->getState(), 1);
    EXPECT_EQ(probe.fd(), -1);
    EXPECT_FALSE(probe.captureThread().joinable());
    EXPECT_EQ(simcam::stats().openDescriptors, 0);

    // Once the camera behaves, the next play opens it afresh.
    simcam::configure(camera(kH264));
    EXPECT_EQ(element->play(), 0);
    EXPECT_EQ(element->stop(), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Steps, PlayFails,
    testing::Values(std::pair("open=ENOENT", "dev open failed"), std::pair("busy", "set format failed\n"),
                    std::pair("sfmt=EINVAL", "set format failed\n"),
                    std::pair("qbuf=EIO", "v4l2_stream_on#v4l2_init_buffer() failed")),
    ByFirst());

TEST_F(Lifecycle, CaptureLoopThatCannotStreamWaitsForStop)
{
    useCamera(kH264, "streamon=EIO");
    int events = 0;
    QObject::connect(element.get(), &IMediaElement::mediaEvent, [&](QString, QVariant) { ++events; });
    ASSERT_EQ(element->play(), 0);
    probe.captureThread().join();  // the loop ends by itself
    probe.captureThread() = std::thread([] {});
    EXPECT_TRUE(log.contains("V4LCameraCapturePlugin::video_frame 3!", 2));
    EXPECT_EQ(element->getState(), 3);
    EXPECT_EQ(element->stop(), 0);
    EXPECT_EQ(events, 0);
}

TEST_F(Lifecycle, InitializeOrDeleteWhilePlayingStopsTheCapture)
{
    useCamera(kH264);
    ASSERT_EQ(element->play(), 0);
    EXPECT_EQ(element->initialize(), 0);
    EXPECT_EQ(element->getState(), 1);
    EXPECT_FALSE(probe.captureThread().joinable());
    EXPECT_EQ(simcam::stats().openDescriptors, 0);

    ASSERT_EQ(element->play(), 0);
    ASSERT_TRUE(simcam::waitForFrames(2, std::chrono::seconds(5)));
    element.reset();  // the fixture checks that nothing is left open
}

TEST_F(Lifecycle, RepeatedPlayAndStopLeakNothing)
{
    useCamera(kMJPG, "unthrottled");
    element->initialize();
    ASSERT_EQ(element->play(), 0);  // warm up: first-use allocations are not leaks
    ASSERT_EQ(element->stop(), 0);
    const int fds = countEntries("/proc/self/fd");
    const int threads = settledThreadCount();

    for (int i = 0; i < 200; ++i) {
        ASSERT_EQ(element->play(), 0) << "round " << i;
        ASSERT_EQ(element->stop(), 0);
    }
    EXPECT_EQ(countEntries("/proc/self/fd"), fds);
    EXPECT_EQ(settledThreadCount(), threads);
    EXPECT_EQ(simcam::stats().clockThreads, 0);
    EXPECT_EQ(simcam::stats().streams, 0);
    EXPECT_FALSE(probe.hasAllocator());
}

} // namespace
