#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "Logger.h"
#include "MediaPin.h"

namespace {

struct PinPair {
    explicit PinPair(int frames = 2, unsigned capacity = 64) : input(nullptr, frames, capacity)
    {
        output.connect(&input);
    }
    MediaOutputPin output{MAJOR_TYPE_VIDEO, MINOR_TYPE_CODED, CODEC_TYPE_H264, RAW_TYPE_NONE, nullptr};
    MediaInputPin input;
};

int send(MediaOutputPin& pin, const char* text)
{
    MediaFrame* frame = nullptr;
    const int r = pin.dequeue(&frame, 30, 0);
    if (r != PIN_OK)
        return r;
    std::memcpy(frame->data(), text, std::strlen(text));
    frame->setSize(int(std::strlen(text)));
    return pin.queue(frame);
}

TEST(MediaPin, DeliversInQueueOrderAndRecyclesReleasedFrames)
{
    PinPair pins(2);
    ASSERT_EQ(send(pins.output, "one"), PIN_OK);
    ASSERT_EQ(send(pins.output, "two"), PIN_OK);
    for (const char* expected : {"one", "two"}) {
        MediaFrame* frame = pins.input.take(100);
        ASSERT_NE(frame, nullptr);
        EXPECT_EQ(std::string(reinterpret_cast<const char*>(frame->bytes()), size_t(frame->size())), expected);
        pins.input.release(frame);
    }
    EXPECT_EQ(send(pins.output, "three"), PIN_OK);  // released frames are free again
    EXPECT_EQ(pins.output.stats().delivered, 3u);
}

// A producer waiting for a frame the consumer holds: the wait ends with the frame when the
// consumer releases it, with -2 when the consumer goes away, and with -3 once it runs out.
TEST(MediaPin, WaitingProducerLearnsWhatTheConsumerDid)
{
    const struct {
        const char* what;
        std::function<void(PinPair&)> consumer;
        int timeoutMs, expected;
    } cases[] = {
        {"releases", [](PinPair& p) { p.input.release(p.input.take(0)); }, 2000, PIN_OK},
        {"goes away", [](PinPair& p) { p.input.close(); }, 5000, PIN_GONE},
        {"holds on", [](PinPair&) {}, 30, PIN_LAGGING},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        PinPair pins(1);
        ASSERT_EQ(send(pins.output, "held"), PIN_OK);
        auto waiter = std::async(std::launch::async, [&] {
            MediaFrame* frame = nullptr;
            const auto start = std::chrono::steady_clock::now();
            const int r = pins.output.dequeue(&frame, c.timeoutMs, 0);
            return std::pair(r, std::chrono::steady_clock::now() - start);
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        c.consumer(pins);
        const auto [result, waited] = waiter.get();
        EXPECT_EQ(result, c.expected);
        if (c.expected == PIN_LAGGING)
            EXPECT_GE(waited, std::chrono::milliseconds(c.timeoutMs - 5));
        else
            EXPECT_LT(waited, std::chrono::milliseconds(c.timeoutMs));
    }
    PinPair pins(1);
    pins.input.close();
    EXPECT_EQ(send(pins.output, "late"), PIN_GONE);
}

// A consumer that asks to be called gets each frame on the producer's own thread, inside
// queue(); closing waits for a call in progress, and nothing reaches the handler after it.
TEST(MediaPin, HandlerRunsOnTheProducersThreadAndCloseWaitsForIt)
{
    PinPair pins(1);
    std::vector<std::string> got;
    std::thread::id caller;
    bool hold = false;
    std::promise<void> entered, leave;
    std::shared_future<void> left = leave.get_future().share();
    pins.input.setHandler([&](MediaFrame* frame) {
        got.emplace_back(reinterpret_cast<const char*>(frame->bytes()), size_t(frame->size()));
        caller = std::this_thread::get_id();
        if (hold) {
            entered.set_value();
            left.wait();
        }
        pins.input.release(frame);
    });
    ASSERT_EQ(send(pins.output, "one"), PIN_OK);
    ASSERT_EQ(send(pins.output, "two"), PIN_OK);  // a pool of one: the handler gave it back
    EXPECT_EQ(got, (std::vector<std::string>{"one", "two"}));
    EXPECT_EQ(caller, std::this_thread::get_id());
    EXPECT_EQ(pins.input.take(0), nullptr);

    hold = true;
    auto producer = std::async(std::launch::async, [&] { return send(pins.output, "three"); });
    entered.get_future().wait();
    auto closer = std::async(std::launch::async, [&] { pins.input.close(); });
    EXPECT_EQ(closer.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    leave.set_value();
    closer.get();
    EXPECT_EQ(producer.get(), PIN_OK);
    EXPECT_EQ(send(pins.output, "late"), PIN_GONE);
    EXPECT_EQ(got.size(), 3u);
}

// Without a consumer every request is gone; frames in flight survive the consumer.
TEST(MediaPin, FramesInFlightSurviveTheConsumersDestruction)
{
    MediaOutputPin output(MAJOR_TYPE_VIDEO, MINOR_TYPE_CODED, CODEC_TYPE_H264, RAW_TYPE_NONE, nullptr);
    MediaFrame* frame = reinterpret_cast<MediaFrame*>(0x1);
    EXPECT_EQ(output.dequeue(&frame, 30, 0), PIN_GONE);
    EXPECT_EQ(frame, nullptr);
    {
        MediaInputPin input(nullptr, 2, 64);
        output.connect(&input);
        ASSERT_EQ(output.dequeue(&frame, 30, 0), PIN_OK);
    }
    frame->setSize(3);
    std::memcpy(frame->data(), "abc", 3);  // still valid memory
    EXPECT_EQ(output.queue(frame), PIN_GONE);
}

TEST(MediaPin, OversizedOrForeignFramesAreRefusedWithALogLine)
{
    PinPair pins(1, 16);
    LogCapture log;
    ASSERT_EQ(send(pins.output, "exactly 16 bytes"), PIN_OK);  // a full frame is fine
    pins.input.release(pins.input.take(0));
    MediaFrame* frame = nullptr;
    ASSERT_EQ(pins.output.dequeue(&frame, 30, 0), PIN_OK);
    frame->setSize(17);
    EXPECT_EQ(pins.output.queue(frame), PIN_REFUSED);
    EXPECT_TRUE(log.contains("exceeds capacity 16", 0));
    EXPECT_EQ(pins.input.take(0), nullptr);

    // The refused frame went back to the pool.
    ASSERT_EQ(pins.output.dequeue(&frame, 30, 0), PIN_OK);
    MediaFrame stranger(16);
    EXPECT_EQ(pins.output.queue(&stranger), PIN_REFUSED);
    EXPECT_TRUE(log.contains("not from this pin's pool", 0));
    EXPECT_EQ(pins.output.stats().refused, 2u);
}

// A pin without an owner is its maker's to delete, once.
TEST(MediaPinDeathTest, SecondDeleteAborts)
{
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    // Kept as a number: the second delete is the point of the test.
    const volatile auto address = reinterpret_cast<std::uintptr_t>(
        new MediaOutputPin(MAJOR_TYPE_VIDEO, MINOR_TYPE_CODED, CODEC_TYPE_H264, RAW_TYPE_NONE, nullptr));
    auto pin = [&address] { return reinterpret_cast<MediaOutputPin*>(address); };
    EXPECT_EQ(MediaOutputPin::fate(pin()), PinFate::Alive);
    delete pin();
    EXPECT_EQ(MediaOutputPin::fate(pin()), PinFate::DeletedByOther);
    EXPECT_DEATH(delete pin(), "deleted twice");
}

} // namespace
