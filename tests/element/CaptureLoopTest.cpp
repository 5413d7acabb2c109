// The capture loop and the raw (encoder) path, with a scripted encoder in the codec
// library's place so that every pass's outcome is chosen by the test.

#include <linux/videodev2.h>

#include <cerrno>
#include <future>

#include "Formats.h"
#include "ScriptedEncoder.h"
#include "SimElementFixture.h"

namespace {

using namespace testsupport;
using Packet = EncoderScript::Packet;

class CaptureLoop : public SimElementTest {
protected:
    void SetUp() override
    {
        SimElementTest::SetUp();
        // Packets are taken and dropped downstream without a consumer thread.
        element->getOutputPinList().first()->setDequeueHook([](int) { return std::optional<int>(-1); });
        QObject::connect(element.get(), &V4LCameraCapturePlugin::sigQuit, [this] { ++quits; });
        QObject::connect(element.get(), &IMediaElement::mediaEvent, [this](QString key, QVariant value) {
            if (key == QLatin1String("event.camera.gotframe") && !value.isValid())
                ++gotFrame;
        });
    }

    void rawCamera(uint32_t fourcc) { useCamera(fourcc, "unthrottled", 320, 240); }

    // Generous waits: emulated ARM builds are slow.
    static bool waitUntil(const std::function<bool()>& done)
    {
        for (int i = 0; i < 6000 && !done(); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        return done();
    }
    bool waitForQuit() { return waitUntil([this] { return quits > 0; }); }
    bool waitForPuts(int n) { return waitUntil([this, n] { return encoder.script->framesPut >= n; }); }

    void script(std::initializer_list<std::pair<int, int>> runs)  // (count, putFrame result)
    {
        std::lock_guard<std::mutex> lock(encoder.script->mutex);
        for (auto [count, result] : runs)
            encoder.script->putResults.insert(encoder.script->putResults.end(), size_t(count), result);
    }

    ScopedScriptedEncoder encoder;
    std::atomic<int> quits{0};
    std::atomic<int> gotFrame{0};
};

TEST_F(CaptureLoop, EveryFailurePast300ConsecutiveQuitsAndASuccessResetsTheCount)
{
    rawCamera(kYUYV);
    // 300 refusals, a success, 301 refusals (one quit), a success, 303 refusals (three).
    script({{300, -1}, {1, 0}, {301, -1}, {1, 0}, {303, -1}});
    ASSERT_EQ(element->play(), 0);
    ASSERT_TRUE(waitForPuts(907));
    element->stop();
    EXPECT_EQ(quits, 4);
    EXPECT_EQ(log.count("WARN: v4l2_get_one_frame2 error > 300 quit!", 1), 4);
    EXPECT_EQ(log.count("WARN: encode frame failed", 1), 904);
    EXPECT_EQ(gotFrame, 1);
}

// The run keeps the format it started with: a coded format set meanwhile neither stops
// the encoding nor leaks the encoder. Each play gives one first-frame event.
TEST_F(CaptureLoop, EncoderLivesForExactlyOneRawRunWhateverIsSetMeanwhile)
{
    rawCamera(kYUYV);
    ASSERT_EQ(element->play(), 0);
    ASSERT_TRUE(waitForPuts(1));
    EXPECT_TRUE(probe.hasEncoder());
    element->activeOutPin(nullptr, videoFormat(CODEC_TYPE_H264, 320, 240));
    ASSERT_TRUE(waitForPuts(encoder.script->framesPut + 2));
    element->stop();
    EXPECT_FALSE(probe.hasEncoder());
    EXPECT_EQ(encoder.script->created, 1);
    EXPECT_EQ(encoder.script->resets, 1);
    EXPECT_EQ(encoder.script->destroyed, 1);
    EXPECT_EQ(gotFrame, 1);

    useCamera(kH264);
    ASSERT_EQ(element->play(), 0);
    ASSERT_TRUE(simcam::waitForFrames(2, std::chrono::seconds(5)));
    element->stop();
    EXPECT_EQ(encoder.script->created, 1);  // compressed cameras need none
    EXPECT_EQ(gotFrame, 2);
    EXPECT_EQ(log.count("video_frame v4l2_get_one_frame2 got a frame!", 2), 2);
}

// The host sets the next size the moment play returns; the encoder, made on the capture
// thread only once that is done, is still configured for the buffers this run made.
TEST_F(CaptureLoop, SizeSetRightAfterPlayReachesOnlyTheNextRun)
{
    std::promise<void> sizeSet;
    std::shared_future<void> sizeSetSeen = sizeSet.get_future().share();
    auto script = encoder.script;
    Codec::MediaCodec::setEncoderFactory([script, sizeSetSeen](Codec::CodecType) -> Codec::Encoder* {
        sizeSetSeen.wait_for(std::chrono::seconds(10));
        return new ScriptedEncoder(script);
    });
    rawCamera(kYUYV);
    ASSERT_EQ(element->play(), 0);
    element->activeOutPin(nullptr, videoFormat(CODEC_TYPE_H264, 1280, 720));
    sizeSet.set_value();
    ASSERT_TRUE(waitForPuts(2));
    element->stop();
    const std::vector<std::pair<int, unsigned>> size(encoder.script->settings.begin() + 1,
                                                     encoder.script->settings.begin() + 5);
    EXPECT_EQ(size, (std::vector<std::pair<int, unsigned>>{{6, 320}, {7, 240}, {8, 640}, {9, 240}}));
    EXPECT_EQ(log.count("WARN: encode frame failed", 1), 0);
}

TEST_F(CaptureLoop, UnknownFormatFailsEveryPassWithoutTouchingTheDevice)
{
    useCamera(simcam::kFourccRGB24, "", 320, 240);
    ASSERT_EQ(element->play(), 0);
    EXPECT_TRUE(waitForQuit());
    element->stop();
    EXPECT_EQ(simcam::stats().ioctlCount(VIDIOC_DQBUF), 0u);
    EXPECT_EQ(gotFrame, 0);
    EXPECT_EQ(encoder.script->created, 0);
}

TEST_F(CaptureLoop, WithoutAnEncoderRawPassesFailUntilQuit)
{
    Codec::MediaCodec::setEncoderFactory([](Codec::CodecType) -> Codec::Encoder* { return nullptr; });
    rawCamera(kNV12);
    ASSERT_EQ(element->play(), 0);
    EXPECT_TRUE(waitForQuit());
    element->stop();
    EXPECT_FALSE(probe.hasEncoder());
    EXPECT_EQ(gotFrame, 0);
}

struct SettingsCase {
    uint32_t fourcc;
    simcam::Interval interval;
    std::vector<std::pair<int, unsigned>> expected;
};

class EncoderSettings : public CaptureLoop, public testing::WithParamInterface<SettingsCase> {};

TEST_P(EncoderSettings, GivenInTheLibrarysOrder)
{
    const SettingsCase& c = GetParam();
    useCamera(c.fourcc, "", 1280, 720);
    simcam::setTimePerFrame("video0", c.interval);
    prepare();
    element->initEncoder();
    EXPECT_EQ(encoder.script->settings, c.expected);
    EXPECT_EQ(encoder.script->configures, 1);
    element->deinitEncoder();
}

INSTANTIATE_TEST_SUITE_P(
    Formats, EncoderSettings,
    testing::Values(SettingsCase{kYUYV, {1, 30}, {{5, 1}, {6, 1280}, {7, 720}, {8, 2560}, {9, 720}, {15, 30}, {14, 1},
                                                  {18, 30}, {17, 1}, {21, 60}, {20, 1}, {10, 7340032}}},
                    SettingsCase{kNV12, {1001, 30000}, {{5, 0}, {6, 1280}, {7, 720}, {8, 1280}, {9, 720},
                                                        {15, 30000}, {14, 1001}, {18, 30000}, {17, 1001},
                                                        {21, 60}, {20, 1}, {10, 7340032}}}),
    [](const testing::TestParamInfo<SettingsCase>& info) { return fourccName(info.param.fourcc); });

// ---- single raw passes ------------------------------------------------------------------

class RawPass : public CaptureLoop {
protected:
    void start(uint32_t fourcc = kYUYV, const std::string& fault = "")
    {
        useCamera(fourcc, "unthrottled," + fault, 320, 240);
        prepare();
        ASSERT_EQ(element->v4l2_stream_on(), 0);
        element->initEncoder();
    }
    void TearDown() override
    {
        if (element) {
            element->deinitEncoder();
            element->v4l2_stream_off();
        }
        CaptureLoop::TearDown();
    }
};

TEST_F(RawPass, DropRuleAppliesFromTwentyWaitingBeforeEncoding)
{
    start();
    fillQueue(19);
    EXPECT_EQ(element->v4l2_get_one_frame_yuv(), 0);
    EXPECT_EQ(encoder.script->framesPut, 1);
    EXPECT_EQ(queued().size(), 20u);
    EXPECT_EQ(element->v4l2_get_one_frame_yuv(), 0);
    EXPECT_EQ(encoder.script->framesPut, 1);  // dropped unencoded
    EXPECT_EQ(queued().size(), 20u);
    EXPECT_EQ(simcam::stats().buffersQueued + simcam::stats().buffersDequeued, 4);
    EXPECT_EQ(simcam::stats().buffersDequeued, 0);  // every buffer went back
}

// One pass: a camera fault (model text), what the encoder answers, and the outcome.
struct PassCase {
    const char* name;
    const char* fault;
    int putResult;
    Packet packet;
    int result;
    size_t queuedAfter;
    int framesPut;
};

class OnePass : public RawPass, public testing::WithParamInterface<PassCase> {};

TEST_P(OnePass, QueuesOnlyRealPacketsAndGivesTheBufferBack)
{
    const PassCase& c = GetParam();
    start(kNV12, c.fault);
    script({{1, c.putResult}});
    encoder.script->packets.push_back(c.packet);
    EXPECT_EQ(element->v4l2_get_one_frame_yuv(), c.result);
    EXPECT_EQ(encoder.script->framesPut, c.framesPut);
    EXPECT_EQ(log.count("WARN: encode frame failed", 1), c.putResult ? 1 : 0);
    const auto entries = queued();
    ASSERT_EQ(entries.size(), c.queuedAfter);
    if (!entries.empty()) {
        EXPECT_EQ(entries[0], encoder.script->packetBytes);  // a copy of the packet's bytes
    }
    // Every buffer goes back, unless giving it back is what failed.
    EXPECT_EQ(simcam::stats().buffersDequeued, std::string(c.fault).find("qbuf-stream=") != std::string::npos ? 1 : 0);
}

INSTANTIATE_TEST_SUITE_P(
    Outcomes, OnePass,
    testing::Values(PassCase{"Packet", "", 0, Packet::Bytes, 0, 1, 1}, PassCase{"NoPacket", "", 0, Packet::None, 0, 0, 1},
                    PassCase{"BadStatus", "", 0, Packet::BadStatus, 0, 0, 1},
                    PassCase{"NoBuffer", "", 0, Packet::NoBuffer, 0, 0, 1},
                    PassCase{"EncoderRefuses", "", -5, Packet::Bytes, -1, 0, 1},
                    // The packet was taken before the buffer failed to go back.
                    PassCase{"RequeueFails", "qbuf-stream=EIO", 0, Packet::Bytes, -1, 1, 1},
                    PassCase{"EmptyBufferSkipsTheEncoder", "empty=1", 0, Packet::Bytes, 0, 0, 0},
                    PassCase{"EmptyBufferThatCannotGoBack", "empty=1,qbuf-stream=EIO", 0, Packet::Bytes, -1, 0, 0}),
    [](const testing::TestParamInfo<PassCase>& info) { return std::string(info.param.name); });

TEST_F(RawPass, StalledCameraTimesOutAfterOneSecondWithoutDequeuing)
{
    start();
    simcam::modifyFaults([](simcam::Faults& f) { f.stall = true; });
    // Buffers already filled before the stall are taken first.
    while (simcam::stats().buffersQueued > 0 && element->v4l2_get_one_frame_yuv() == 0 &&
           simcam::stats().framesDelivered < 8) {
    }
    simcam::resetStats();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(element->v4l2_get_one_frame_yuv(), -1);
    const auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited, std::chrono::milliseconds(950));
    EXPECT_LT(waited, std::chrono::milliseconds(1500));
    EXPECT_TRUE(log.contains("ERROR: select failed\n", 0));
    EXPECT_EQ(simcam::stats().ioctlCount(VIDIOC_DQBUF), 0u);
}

TEST_F(RawPass, FailedDequeuePausesThreeSeconds)
{
    start();
    simcam::modifyFaults([](simcam::Faults& f) { f.dqbufErrno = EIO; });
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(element->v4l2_get_one_frame_yuv(), -1);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(2900));
    EXPECT_TRUE(log.contains("ERROR: VIDIOC_DQBUF failed\n\n", 0));
    EXPECT_TRUE(log.contains("ERROR: reason: Input/output error", 0));
}

} // namespace
