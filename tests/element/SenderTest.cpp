// The sender thread against a pin whose answers the test scripts.

#include <gtest/gtest.h>

#include <malloc.h>

#include <chrono>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

#include "Logger.h"
#include "ElementProbe.h"

namespace {

using Clock = std::chrono::steady_clock;
using SendBuffer = V4LCameraCapturePlugin::SendBuffer;

class Sender : public testing::Test {
protected:
    void SetUp() override
    {
        pin()->connect(&consumer);
        pin()->setDequeueHook([this](int) -> std::optional<int> {
            std::lock_guard<std::mutex> lock(scriptMutex);
            ++requests;
            if (script.empty())
                return std::nullopt;
            const int answer = script.front();
            if (script.size() > 1 || !repeatLast)
                script.pop_front();
            return answer;
        });
        QObject::connect(&element, &V4LCameraCapturePlugin::sigQuit, [this] { ++quits; });
    }
    void TearDown() override
    {
        stopSender();
        pin()->setDequeueHook({});
        pin()->disconnect();
    }

    MediaOutputPin* pin() { return element.getOutputPinList().first(); }

    void answer(std::initializer_list<int> answers, bool repeat = false)
    {
        std::lock_guard<std::mutex> lock(scriptMutex);
        script.assign(answers);
        repeatLast = repeat;
    }

    void push(std::initializer_list<std::string> texts)
    {
        for (const std::string& text : texts)
            probe.push(text.data(), unsigned(text.size()));
    }

    void startSender()
    {
        probe.setRunning(true);
        sender = std::thread(&V4LCameraCapturePlugin::video_send_frame, &element);
    }

    // What stop does to the sender.
    void stopSender()
    {
        probe.setRunning(false);
        if (sender.joinable())
            sender.join();
    }

    std::string receive(int timeoutMs = 1000)
    {
        MediaFrame* frame = consumer.take(timeoutMs);
        if (!frame)
            return "<none>";
        std::string text(reinterpret_cast<const char*>(frame->bytes()), size_t(frame->size()));
        consumer.release(frame);
        return text;
    }

    size_t queued() { return probe.queueLength(); }

    LogCapture log;
    V4LCameraCapturePlugin element;
    ElementProbe probe{element};
    static constexpr unsigned kFrameCapacity = 64;
    MediaInputPin consumer{nullptr, 4, kFrameCapacity};
    std::thread sender;
    std::mutex scriptMutex;
    std::deque<int> script;
    bool repeatLast = false;
    std::atomic<int> requests{0};
    std::atomic<int> quits{0};
};

TEST_F(Sender, PoorConnectionIsLoggedOnceAndResumeOnceInPushOrder)
{
    answer({-3, -3, -3, -3});
    push({"a", "b", "c"});
    startSender();
    EXPECT_EQ(receive(), "a");
    EXPECT_EQ(receive(), "b");
    EXPECT_EQ(receive(), "c");
    EXPECT_EQ(log.count("WARN: poor connection", 1), 1);
    EXPECT_EQ(log.count("INFO: connection resume", 2), 1);
}

TEST_F(Sender, ConsumerGoneCostsEachEntryASleepAWarningAndAQuit)
{
    answer({-2}, true);
    push({"a", "b", "c"});
    const auto start = Clock::now();
    startSender();
    for (int i = 0; i < 200 && quits < 3; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(90));
    EXPECT_EQ(quits, 3);
    EXPECT_EQ(log.count("WARN: connection disconnected!", 1), 3);
    EXPECT_EQ(queued(), 0u);
    EXPECT_EQ(receive(50), "<none>");
}

TEST_F(Sender, OtherAnswersDropTheEntrySilentlyAndTheNextSuccessResumes)
{
    answer({-1});
    push({"dropped", "sent"});
    startSender();
    EXPECT_EQ(receive(), "sent");
    EXPECT_EQ(log.count("poor connection"), 0);
    EXPECT_EQ(log.count("connection resume", 2), 1);
}

// Heap bytes in use (what glibc reports; a sanitizer's allocator keeps its own books, and
// then the figure stays flat).
size_t heapInUse()
{
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

// Spent entries are kept for reuse, four at most: a drained backlog gives the rest back.
TEST_F(Sender, ADrainedBacklogDoesNotKeepItsMemory)
{
    constexpr size_t kEntry = 1 << 20;
    const std::string big(kEntry, 'x');
    const size_t before = heapInUse();
    answer({-1}, true);  // every entry dropped, as a consumer that refuses them all
    for (int i = 0; i < 40; ++i)
        push({big});
    startSender();
    for (int i = 0; i < 400 && queued() > 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    stopSender();
    EXPECT_EQ(queued(), 0u);
    EXPECT_LT(heapInUse(), before + 4 * kEntry + kEntry / 2);
}

// A stop while waiting on an empty queue never touches the pin; one while lagging frees the
// entry in hand and keeps the rest for the next playback.
TEST_F(Sender, StopWhileWaitingOrLagging)
{
    startSender();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    const auto start = Clock::now();
    stopSender();
    EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(500));
    EXPECT_EQ(requests, 0);

    answer({-3}, true);
    push({"first", "second", "third"});
    startSender();
    for (int i = 0; i < 200 && requests < 5; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    stopSender();
    EXPECT_EQ(queued(), 2u);  // "first" was in hand and is gone
    EXPECT_EQ(receive(20), "<none>");

    answer({});
    push({"fourth"});
    startSender();  // the next playback's sender sends the leftovers first
    EXPECT_EQ(receive(), "second");
    EXPECT_EQ(receive(), "third");
    EXPECT_EQ(receive(), "fourth");
}

TEST_F(Sender, EmptyEntriesAreSentAndOversizedOnesDroppedWithoutReachingThePin)
{
    push({"", std::string(kFrameCapacity + 1, 'x'), "after"});
    startSender();
    EXPECT_EQ(receive(), "");
    EXPECT_EQ(receive(), "after");  // in the frame the oversized entry could not use
    EXPECT_EQ(log.count("exceeds the pin's", 1), 1);
    EXPECT_EQ(requests, 2);
    EXPECT_EQ(pin()->stats().refused, 0u);
}

} // namespace
