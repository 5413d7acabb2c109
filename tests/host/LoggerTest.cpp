#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "Logger.h"

namespace {

struct ThresholdGuard {
    int saved = Logger::threshold();
    ~ThresholdGuard() { Logger::setThreshold(saved); }
};

TEST(Logger, ThresholdFiltersConsoleButCaptureSeesEveryLevelWhole)
{
    ThresholdGuard guard;
    Logger::setThreshold(1);
    LogCapture capture;
    testing::internal::CaptureStderr();
    Logger::logger_printf(0, "%s:%d ERROR: e\n", "f", 1);
    Logger::logger_printf(1, "%s:%d WARN: w\n", "f", 2);
    const std::string payload(5000, 'x');  // longer than the formatting buffer on the stack
    Logger::logger_printf(2, "%s:%d INFO: %s|\n", "f", 3, payload.c_str());
    Logger::logger_printf(4, "%s:%d DEBUG: d\n", "f", 4);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "f:1 ERROR: e\nf:2 WARN: w\n");
    const auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[2].level, 2);
    EXPECT_EQ(lines[2].text, "f:3 INFO: " + payload + "|\n");
    EXPECT_EQ(capture.count("DEBUG", 4), 1);
    EXPECT_EQ(capture.count("DEBUG", 2), 0);
}

TEST(Logger, CapturesFromManyThreadsAndStopsWhenDestroyed)
{
    ThresholdGuard guard;
    Logger::setThreshold(-1);
    auto capture = std::make_unique<LogCapture>();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([] {
            for (int i = 0; i < 250; ++i)
                Logger::logger_printf(4, "%s:%d DEBUG: tick\n", "worker", i);
        });
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(capture->count("tick"), 1000);
    capture.reset();
    Logger::logger_printf(4, "%s:%d DEBUG: after\n", "f", 1);  // must not touch the freed capture
}

} // namespace
