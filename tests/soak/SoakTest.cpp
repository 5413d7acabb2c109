// Play, stop, re-format and play again for SOAK_SECONDS under a seeded chaos schedule
// (SOAK_SEED; printed), checking while it runs: every frame the consumer takes is what its
// format promises, stop returns within SOAK_STOP_MS, and descriptors, threads and resident
// memory stay flat after warm-up.

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <mutex>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Bitstream.h"
#include "MediaPin.h"
#include "SoakSupport.h"
#include "V4LCameraCapturePlugin.h"
#include "simcam/Chaos.h"
#include "simcam/SimCamera.h"

namespace {

using namespace std::chrono;
using soak::envLong;

struct Kind {
    uint32_t fourcc;
    uint32_t width, height;
};
// Large HEVC frames, so each is cut into pieces.
const Kind kKinds[] = {{simcam::kFourccH264, 640, 480}, {simcam::kFourccMJPG, 640, 480},
                       {simcam::kFourccHEVC, 1920, 1080}, {simcam::kFourccYUYV, 320, 240}};
constexpr int kWarmupCycles = 8;      // every kind twice: clips encoded, pools grown
constexpr int kFdSlack = 2;           // descriptors a closing thread may still hold
constexpr long kRssSlackKb = 96 * 1024; // allocator caching of the largest backlog seen

simcam::ContentOptions content()
{
    simcam::ContentOptions c;
    c.clipFrames = 8;
    c.keyInterval = 4;
    c.hevcMinFrameBytes = bitstream::kHevcPieceBytes + 4096;
    return c;
}

simcam::Model soakCamera()
{
    simcam::Node capture;
    capture.name = "video0";
    capture.content = content();
    for (const Kind& k : kKinds) {
        simcam::Format f;
        f.fourcc = k.fourcc;
        f.sizes = {{k.width, k.height, {{1, 30}}}};
        capture.formats.push_back(f);
    }
    simcam::Node metadata;
    metadata.name = "video1";
    metadata.kind = simcam::NodeKind::Metadata;
    simcam::Model model;
    model.cameras.resize(1);
    model.cameras[0].nodes = {capture, metadata};
    return model;
}

// Runs what the element posted to itself (USB resets) while time passes.
void pump(milliseconds d)
{
    for (const auto end = steady_clock::now() + d; steady_clock::now() < end;) {
        QCoreApplication::processEvents();
        std::this_thread::sleep_for(milliseconds(10));
    }
}

// The output pin's consumer: takes frames unless the schedule pauses it, and checks each
// against its cycle's format. H.264 frames are matched to the camera's clip: within a
// cycle, a frame follows its predecessor in the clip, or the element dropped a backlog and
// resumed at a key frame (a flush); anything else would not decode.
class Consumer {
public:
    Consumer(MediaInputPin& pin, const simcam::Chaos& chaos) : pin_(pin), chaos_(chaos)
    {
        const auto clip = simcam::ContentSource::get(simcam::kFourccH264, 640, 480, content());
        for (int i = 0; i < content().clipFrames; ++i) {
            clip_.emplace_back(clip->frameSize(uint64_t(i)));
            clip->render(uint64_t(i), clip_.back().data(), clip_.back().size());
            key_.push_back(clip->isKeyFrame(uint64_t(i)));
        }
        thread_ = std::thread([this] { run(); });
    }
    ~Consumer()
    {
        stop_ = true;
        thread_.join();
    }

    // Takes what the last cycle left in the pin, then expects `fourcc`.
    void beginCycle(uint32_t fourcc)
    {
        drained_ = false;
        draining_ = true;
        while (!drained_)
            std::this_thread::sleep_for(milliseconds(5));
        std::lock_guard lock(m_);
        if (fourcc_)
            earlier_.push_back(fourcc_);
        fourcc_ = fourcc;
        previous_ = kFirst;
        draining_ = false;
    }
    std::vector<std::string> problems()
    {
        std::lock_guard lock(m_);
        return problems_;
    }

    std::atomic<uint64_t> frames{0};
    std::atomic<uint64_t> flushes{0};
    std::atomic<uint64_t> leftoverFrames{0};

private:
    void run()
    {
        while (!stop_) {
            if (chaos_.consumerPaused() && !draining_) {
                std::this_thread::sleep_for(milliseconds(10));
                continue;
            }
            MediaFrame* frame = pin_.take(20);
            if (!frame) {
                drained_ = draining_.load();
                continue;
            }
            std::lock_guard lock(m_);
            check(frame->data(), size_t(frame->size()), frame->capacity());
            pin_.release(frame);
            ++frames;
        }
    }

    void problem(const std::string& what)
    {
        if (problems_.size() < 10)
            problems_.push_back(what);
    }

    // Clip frame the bytes hold: exactly, or followed by the stale tail of a buffer whose
    // byte count the driver overstated.
    int clipIndex(const uint8_t* p, size_t n) const
    {
        int best = -1;
        for (size_t i = 0; i < clip_.size(); ++i)
            if (clip_[i].size() <= n && std::memcmp(p, clip_[i].data(), clip_[i].size()) == 0 &&
                (best < 0 || clip_[i].size() > clip_[size_t(best)].size()))
                best = int(i);
        return best;
    }

    // What is wrong with a frame of a cycle of `fourcc` that follows `previous` (kFirst:
    // the cycle's first frame; kAny: order unknown; else 0, or the clip index for H.264);
    // empty when nothing is.
    static constexpr int kFirst = -1, kAny = -2;
    std::string verdict(uint32_t fourcc, int& previous, const uint8_t* p, size_t n)
    {
        const int last = previous;
        const bool first = last == kFirst;
        previous = 0;
        if (fourcc == simcam::kFourccMJPG)
            return n >= 2 && p[0] == 0xff && p[1] == 0xd8 ? "" : "MJPEG frame without SOI";
        if (fourcc == simcam::kFourccHEVC) {
            if (n > bitstream::kHevcPieceBytes)
                return "HEVC piece of " + std::to_string(n) + " bytes";
            const bool vps = n > 5 && !p[0] && !p[1] && !p[2] && p[3] == 1 && (p[4] >> 1) == 32;
            return !first || vps ? "" : "HEVC cycle does not begin with a VPS";
        }
        const int index = clipIndex(p, n);
        if (fourcc == simcam::kFourccYUYV)
            return !first || (index < 0 && bitstream::startsWithKeyFrame(p, int(n)))
                       ? "" : "encoded cycle does not begin at a key frame";
        if (index < 0)
            return "H.264 frame of " + std::to_string(n) + " bytes is no clip frame";
        const int expected = first ? -1 : (last + 1) % int(clip_.size());
        if (index != expected && !key_[size_t(index)] && last != kAny)
            return "H.264 run resumes at clip frame " + std::to_string(index) + ", not a key frame";
        if (index != expected && last >= 0)
            ++flushes;
        previous = index;
        return "";
    }

    // Entries the element still held at stop are sent first by the next playback, so a
    // cycle may open with frames that continue the last one.
    void check(const uint8_t* p, size_t n, unsigned capacity)
    {
        if (n > capacity)
            return problem("frame of " + std::to_string(n) + " bytes beyond its capacity");
        int previous = previous_;
        const std::string wrong = verdict(fourcc_, previous, p, n);
        if (wrong.empty() || earlier_.empty()) {
            previous_ = previous;
            earlier_.clear(); // the queue is in order: nothing older can follow
            if (!wrong.empty())
                problem(wrong + ", " + std::to_string(n) + " bytes");
            return;
        }
        // Cycles whose play was refused or whose consumer paused throughout sent nothing,
        // so the frames may be of any earlier cycle. The entry the sender held at stop is
        // dropped, so they need not follow on.
        for (uint32_t earlier : earlier_) {
            int any = kAny;
            if (verdict(earlier, any, p, n).empty())
                return void(++leftoverFrames);
        }
        problem(wrong + ", " + std::to_string(n) + " bytes");
    }

    MediaInputPin& pin_;
    const simcam::Chaos& chaos_;
    std::vector<std::vector<uint8_t>> clip_;
    std::vector<bool> key_;
    std::mutex m_;
    uint32_t fourcc_ = 0;
    int previous_ = kFirst;
    std::vector<uint32_t> earlier_; // formats of cycles whose frames may still come
    std::vector<std::string> problems_;
    std::atomic<bool> stop_{false}, draining_{false}, drained_{false};
    std::thread thread_;
};

TEST(Soak, PlayStopReformatUnderChaos)
{
    ASSERT_TRUE(simcam::interposing());
    const long seconds = envLong("SOAK_SECONDS", 300);
    const long stopLimitMs = envLong("SOAK_STOP_MS", 4500);
    const uint64_t seed = uint64_t(envLong("SOAK_SEED", long(std::random_device{}())));
    simcam::ScopedModel model(soakCamera());
    auto element = std::make_unique<V4LCameraCapturePlugin>();
    element->initialize();
    element->start();
    MediaInputPin input;
    MediaOutputPin* output = element->getOutputPinList().first();
    output->connect(&input);
    simcam::Chaos chaos(seed);
    Consumer consumer(input, chaos);
    std::mt19937 random{uint32_t(seed)};
    std::discrete_distribution<int> pick({4, 2, 2, 2});

    soak::Gauges warm, peak;
    int cycles = 0, refusedPlays = 0;
    long worstStopMs = 0;
    for (const auto end = steady_clock::now() + seconds * 1s; steady_clock::now() < end;) {
        // H.264 cycles come most often: they are the ones with flushes to check.
        const Kind& kind = kKinds[cycles < kWarmupCycles ? cycles % 4 : pick(random)];
        // H.264 at 240 fps half the time builds backlogs the element must flush within a
        // consumer pause; large HEVC frames come slowly so such a backlog fits in memory.
        const bool fast = kind.fourcc == simcam::kFourccH264 && random() % 2;
        simcam::setTimePerFrame("video0", fast ? simcam::Interval{1, 240}
                                          : kind.fourcc == simcam::kFourccHEVC ? simcam::Interval{1, 1}
                                                                               : simcam::Interval{1, 0});
        consumer.beginCycle(kind.fourcc);
        element->m_format = kind.fourcc;
        element->m_width = int(kind.width);
        element->m_height = int(kind.height);
        // A refused format or an unplugged camera: the element's own USB reset, run here,
        // brings the camera back for a later play.
        if (element->play() != 0) {
            ++refusedPlays;
            pump(200ms);
            continue;
        }
        pump(milliseconds(500 + random() % 4500));
        const auto stopAt = steady_clock::now();
        EXPECT_EQ(element->stop(), 0);
        const long stopMs = long(duration_cast<milliseconds>(steady_clock::now() - stopAt).count());
        worstStopMs = std::max(worstStopMs, stopMs);
        EXPECT_LE(stopMs, stopLimitMs) << "cycle " << cycles << ", seed " << seed;
        ++cycles;

        const soak::Gauges g = soak::settledGauges();
        if (cycles == kWarmupCycles)
            warm = peak = g;
        if (cycles > kWarmupCycles) {
            peak = {std::max(peak.fds, g.fds), std::max(peak.threads, g.threads),
                    std::max(peak.rssKb, g.rssKb)};
            EXPECT_LE(g.fds, warm.fds + kFdSlack) << "cycle " << cycles << ", seed " << seed;
            EXPECT_LE(g.threads, warm.threads) << "cycle " << cycles << ", seed " << seed;
            EXPECT_LE(g.rssKb, warm.rssKb + kRssSlackKb) << "cycle " << cycles << ", seed " << seed;
        }
        const std::vector<std::string> problems = consumer.problems();
        ASSERT_TRUE(problems.empty()) << problems.front() << " (cycle " << cycles << ", seed " << seed << ")";
        if (testing::Test::HasFailure())
            break;
    }
    EXPECT_EQ(output->stats().refused, 0u);
    // Several consumer pauses overlap fast H.264 cycles within five minutes.
    if (seconds >= 300)
        EXPECT_GT(consumer.flushes.load(), 0u) << "seed " << seed;
    EXPECT_GT(consumer.frames.load(), 0u);

    std::ostringstream faults;
    for (const auto& [kind, n] : chaos.counts())
        faults << ' ' << kind << '=' << n;
    std::printf("soak: seed %llu, %d cycles, %d plays refused, %llu frames, %llu flushes, "
                "%llu sent after the next play, %llu pin waits, worst stop %ld ms\nsoak: faults%s\n"
                "soak: after warm-up fds %d (peak %d), threads %d (peak %d), RSS %ld KiB (peak %ld)\n",
                (unsigned long long)seed, cycles, refusedPlays, (unsigned long long)consumer.frames.load(),
                (unsigned long long)consumer.flushes.load(), (unsigned long long)consumer.leftoverFrames.load(),
                (unsigned long long)output->stats().lagging,
                worstStopMs, faults.str().c_str(), warm.fds, peak.fds, warm.threads, peak.threads,
                warm.rssKb, peak.rssKb);
}

// A consumer that goes away while the element waits for it to catch up ends the process.
TEST(SoakDeathTest, ConsumerGoneWhileLaggingEndsTheProcess)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            simcam::ScopedModel model(soakCamera());
            simcam::Chaos::Options calm;
            calm.minGap = calm.maxGap = 60s; // the schedule runs, its first fault comes late
            simcam::Chaos chaos(1, calm);
            V4LCameraCapturePlugin element;
            element.initialize();
            element.m_format = simcam::kFourccH264;
            element.m_width = 640;
            element.m_height = 480;
            auto input = std::make_unique<MediaInputPin>();
            element.getOutputPinList().first()->connect(input.get());
            if (element.play() == 0) {
                pump(1s); // nothing taken: the pool runs dry and the pin answers -3
                input.reset();
                pump(10s);
            }
            std::exit(0);
        },
        testing::ExitedWithCode(255), "");
}

} // namespace
