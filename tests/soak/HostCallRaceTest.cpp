// A host's calls racing the capture thread: one host thread, one call at a time as the
// contract has it, issuing whatever a host may issue while the element streams. Under
// ThreadSanitizer this shows unguarded shared state; anywhere, a call that hangs runs into
// the test's time limit.

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <atomic>
#include <iostream>
#include <memory>
#include <random>
#include <thread>

#include "Formats.h"
#include "MediaPin.h"
#include "V4LCameraCapturePlugin.h"
#include "simcam/SimCamera.h"

namespace {

TEST(HostCallRace, CallsWhileStreamingNeitherRaceNorHang)
{
    ASSERT_TRUE(simcam::interposing());
    // Unthrottled: the capture thread is always busy.
    simcam::ScopedModel model("h264,formats=H264/HEVC/MJPG,size=640x480,clip=4,gop=2,unthrottled");
    MediaInputPin input;
    std::atomic<bool> stopDrain{false};
    std::thread drainer([&] {
        while (!stopDrain)
            if (MediaFrame* frame = input.take(10))
                input.release(frame);
    });
    std::unique_ptr<V4LCameraCapturePlugin> element;
    auto create = [&] {
        element = std::make_unique<V4LCameraCapturePlugin>();
        element->initialize();
        element->start();
        element->getOutputPinList().first()->connect(&input);
        return element->setAttribute(ATTR_CAM_SETFORMAT, QVariant::fromValue(videoFormat(6, 640, 480)));
    };
    create();

    const int codecs[] = {6, 7, 9};
    const int iterations = qEnvironmentVariableIsSet("RACE_ITERATIONS") ? qEnvironmentVariableIntValue("RACE_ITERATIONS") : 3000;
    std::mt19937 random{1};
    int plays = 0, created = 0;
    for (int i = 0; i < iterations; ++i) {
        const MediaFormat format = videoFormat(codecs[random() % 3], 640, 480);
        switch (random() % 8) {
        case 0: element->setAttribute(ATTR_CAM_SETFORMAT, QVariant::fromValue(format)); break;
        case 1: element->getAttribute(ATTR_CAM_FORMATLIST); break;
        case 2: element->activeOutPin(element->getOutputPinList().first(), format); break;
        case 3: element->stop(); break;
        case 4: element->setAttribute(QStringLiteral("net.state"), bool(random() % 2)); break;
        case 5: element->stop(); create(); ++created; break; // a host deletes a stopped element
        default: plays += element->getState() != 3 && element->play() == 0; break;
        }
        QCoreApplication::processEvents();
    }
    element->stop();
    element.reset();
    stopDrain = true;
    drainer.join();
    std::cout << "host call race: " << iterations << " calls, " << plays << " plays, " << created
              << " elements deleted and made" << std::endl;
    EXPECT_GT(plays, iterations / 20);
}

} // namespace
