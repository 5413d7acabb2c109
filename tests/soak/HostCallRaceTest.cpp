// A host's calls racing the capture thread: one host thread, one call at a time as the
// contract has it, issuing whatever a host may issue while the element streams. Run under
// ThreadSanitizer this shows unguarded shared state; anywhere, a call that hangs.

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <thread>

#include "Formats.h"
#include "MediaPin.h"
#include "SoakSupport.h"
#include "V4LCameraCapturePlugin.h"
#include "simcam/SimCamera.h"

namespace {

using namespace std::chrono;

simcam::Model raceCamera()
{
    simcam::Model model = simcam::parseModel("h264");
    simcam::Node& capture = model.cameras[0].nodes[0];
    capture.formats = simcam::parseModel("multi").cameras[0].nodes[0].formats;
    capture.content.clipFrames = 4;
    capture.content.keyInterval = 2;
    return model;
}

// Aborts the process when one call takes longer than a host would ever wait.
class Watchdog {
public:
    Watchdog()
        : thread_([this] {
              while (!stop_) {
                  std::this_thread::sleep_for(milliseconds(100));
                  const long started = started_;
                  if (started && steady_clock::now().time_since_epoch().count() - started >
                                     duration_cast<steady_clock::duration>(10s).count()) {
                      std::fprintf(stderr, "host call %d hangs\n", call_.load());
                      std::abort();
                  }
              }
          })
    {
    }
    ~Watchdog()
    {
        stop_ = true;
        thread_.join();
    }
    template <typename F>
    auto operator()(int call, F&& f)
    {
        call_ = call;
        started_ = long(steady_clock::now().time_since_epoch().count());
        auto result = f();
        started_ = 0;
        return result;
    }

private:
    std::atomic<bool> stop_{false};
    std::atomic<long> started_{0};
    std::atomic<int> call_{0};
    std::thread thread_;
};

TEST(HostCallRace, CallsWhileStreamingNeitherRaceNorHang)
{
    ASSERT_TRUE(simcam::interposing());
    simcam::ScopedModel model(raceCamera());
    simcam::setUnthrottled(true); // the capture thread is always busy
    MediaInputPin input;
    std::atomic<bool> stopDrain{false};
    std::thread drainer([&] {
        while (!stopDrain)
            if (MediaFrame* frame = input.take(10))
                input.release(frame);
    });
    auto element = std::make_unique<V4LCameraCapturePlugin>();
    auto attach = [&] {
        element->initialize();
        element->start();
        element->getOutputPinList().first()->connect(&input);
        element->setAttribute(ATTR_CAM_SETFORMAT, QVariant::fromValue(videoFormat(6, 640, 480)));
    };
    attach();

    const int codecs[] = {6, 7, 9};
    const long iterations = soak::envLong("RACE_ITERATIONS", 3000);
    std::mt19937 random{uint32_t(soak::envLong("RACE_SEED", 1))};
    Watchdog watchdog;
    int plays = 0, recreated = 0;
    for (long i = 0; i < iterations; ++i) {
        const MediaFormat format = videoFormat(codecs[random() % 3], 640, 480);
        const int call = int(random() % 8);
        watchdog(call, [&] {
            switch (call) {
            case 0: return element->setAttribute(ATTR_CAM_SETFORMAT, QVariant::fromValue(format));
            case 1: return int(element->getAttribute(ATTR_CAM_FORMATLIST).isValid());
            case 2: return element->activeOutPin(element->getOutputPinList().first(), format);
            case 3: return element->stop();
            case 4: return element->setAttribute(QStringLiteral("net.state"), bool(random() % 2));
            case 5:
                element->stop(); // a host deletes a stopped element only
                element.reset();
                element = std::make_unique<V4LCameraCapturePlugin>();
                attach();
                ++recreated;
                return 0;
            default: plays += element->getState() != 3; return element->play();
            }
        });
        QCoreApplication::processEvents();
    }
    watchdog(3, [&] { return element->stop(); });
    element.reset();
    stopDrain = true;
    drainer.join();
    std::printf("host call race: %ld calls, %d plays from stopped, %d elements deleted\n",
                iterations, plays, recreated);
    EXPECT_GT(plays, 0);
}

} // namespace
