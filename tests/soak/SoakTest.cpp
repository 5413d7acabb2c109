// Play, stop, re-format and play again for SOAK_SECONDS under a seeded chaos schedule
// (SOAK_SEED; printed), checking while it runs: every frame the consumer takes is what its
// format promises, stop returns within SOAK_STOP_MS, and descriptors, threads and resident
// memory stay flat after warm-up.

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <algorithm>
#include <atomic>
#include <deque>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <mutex>
#include <random>
#include <thread>
#include <unistd.h>

#include "Bitstream.h"
#include "MediaPin.h"
#include "ElementProbe.h"
#include "simcam/Chaos.h"
#include "simcam/SimCamera.h"

namespace {

using namespace std::chrono;

// HEVC is played at 1080p, its frames padded beyond one pin piece so each is cut; the rest
// at 640x480.
const char* const kCamera =
    "h264,formats=H264/MJPG/HEVC/YUYV,size=640x480/1920x1080,clip=8,gop=4,hevcmin=3114496";
const uint32_t kFormats[] = {simcam::kFourccH264, simcam::kFourccMJPG, simcam::kFourccHEVC, simcam::kFourccYUYV};
constexpr int kWarmupCycles = 8;        // every format twice: clips encoded, pools grown
constexpr long kRssSlackKb = 96 * 1024; // allocator caching of the largest backlog seen
// What stop may take: the pin's 30 ms wait for a free frame, then the read or encode in
// progress and the encoder's teardown, one after the other. A sanitizer about doubles the
// latter two and the scheduling around them.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kStopLimitMs = 100;
#else
constexpr int kStopLimitMs = 50;
#endif

int env(const char* name, int fallback)
{
    return qEnvironmentVariableIsSet(name) ? qEnvironmentVariableIntValue(name) : fallback;
}

struct Gauges {
    long fds = 0, threads = 0, rssKb = 0;
};

Gauges gauges()
{
    std::this_thread::sleep_for(50ms); // joined threads leave /proc/self/task just after
    namespace fs = std::filesystem;
    Gauges g{long(std::distance(fs::directory_iterator("/proc/self/fd"), {})),
             long(std::distance(fs::directory_iterator("/proc/self/task"), {})), 0};
    long pages = 0;
    std::ifstream("/proc/self/statm") >> pages >> g.rssKb;
    g.rssKb *= sysconf(_SC_PAGESIZE) / 1024;
    return g;
}

// Runs what the element posted to itself (USB resets) while time passes.
void pump(milliseconds d)
{
    for (const auto end = steady_clock::now() + d; steady_clock::now() < end;) {
        QCoreApplication::processEvents();
        std::this_thread::sleep_for(10ms);
    }
}

// One of the camera's clips, rendered as the camera renders it.
struct Clip {
    Clip(uint32_t fourcc, int width, int height, const simcam::ContentOptions& content)
    {
        const auto clip = simcam::ContentSource::get(fourcc, width, height, content);
        for (uint64_t i = 0; i < uint64_t(content.clipFrames); ++i) {
            frames.emplace_back(clip->frameSize(i));
            clip->render(i, frames.back().data(), frames.back().size());
            key.push_back(clip->isKeyFrame(i));
        }
    }

    // Clip frame the bytes hold: exactly, or followed by the stale tail of a buffer whose
    // byte count the driver overstated.
    int frameAt(const uint8_t* p, size_t n) const
    {
        int best = -1;
        for (size_t i = 0; i < frames.size(); ++i)
            if (frames[i].size() <= n && std::memcmp(p, frames[i].data(), frames[i].size()) == 0 &&
                (best < 0 || frames[i].size() > frames[size_t(best)].size()))
                best = int(i);
        return best;
    }

    // Whether the bytes are a piece the element cut from a clip frame: the frame from a
    // piece boundary on, maybe followed by a stale tail, or wholly beyond the frame's end
    // in an overstated buffer, which the camera never wrote.
    bool holdsPiece(const uint8_t* p, size_t n) const
    {
        for (const auto& f : frames)
            for (size_t at = 0; at < f.size(); at += bitstream::kHevcPieceBytes)
                if (std::memcmp(p, f.data() + at, std::min(n, f.size() - at)) == 0)
                    return true;
        return std::all_of(p, p + n, [](uint8_t b) { return b == 0; });
    }

    std::vector<std::vector<uint8_t>> frames;
    std::vector<bool> key;
};

// The output pin's consumer: takes frames unless the schedule pauses it, and checks each
// against the cycles it may belong to. Entries the element still held at a stop go out
// first at the next play, so the cycles are open oldest first, and a frame only an
// n-th cycle accepts closes those before it. Every format is told apart by content:
// passed-through frames are matched to the camera's clips, H.264 ones in clip order,
// where a run may only jump ahead to a key frame (the element dropped a backlog).
class Consumer {
public:
    Consumer(MediaInputPin& pin, const simcam::Chaos& chaos, const simcam::ContentOptions& content)
        : pin_(pin), chaos_(chaos), h264_(simcam::kFourccH264, 640, 480, content),
          mjpeg_(simcam::kFourccMJPG, 640, 480, content), hevc_(simcam::kFourccHEVC, 1920, 1080, content)
    {
        thread_ = std::thread([this] { run(); });
    }
    ~Consumer()
    {
        stop_ = true;
        thread_.join();
    }

    // Takes what the last cycle left in the pin, then expects `fourcc`. `held`: the
    // element still holds entries, which the next play sends first; the one the sender
    // held at the stop is lost, so the order the older cycles were in is unknown.
    void beginCycle(uint32_t fourcc, bool held)
    {
        drained_ = false;
        draining_ = true;
        while (!drained_)
            std::this_thread::sleep_for(5ms);
        std::lock_guard lock(m_);
        if (!held)
            cycles_.clear();
        for (Cycle& c : cycles_)
            c.previous = kAny;
        cycles_.push_back({fourcc, kFirst});
        draining_ = false;
    }
    std::vector<std::string> problems()
    {
        std::lock_guard lock(m_);
        return problems_;
    }

    std::atomic<uint64_t> frames{0}, flushes{0}, leftovers{0};

private:
    static constexpr int kFirst = -1, kAny = -2;
    // What an encoded access unit may begin with: a slice, an IDR slice, SEI, SPS or a delimiter.
    static constexpr unsigned char kEncoderNalTypes[] = {1, 5, 6, 7, 9};
    struct Cycle {
        uint32_t fourcc;
        int previous; // kFirst, kAny, or the last frame's clip index (H.264) or 0
    };

    void run()
    {
        while (!stop_) {
            if (chaos_.consumerPaused() && !draining_) {
                std::this_thread::sleep_for(10ms);
            } else if (MediaFrame* frame = pin_.take(20)) {
                std::lock_guard lock(m_);
                check(frame->data(), size_t(frame->size()), frame->capacity());
                pin_.release(frame);
                ++frames;
            } else {
                drained_ = draining_.load();
            }
        }
    }

    void problem(const std::string& what, size_t n)
    {
        if (problems_.size() < 10)
            problems_.push_back(what + ", " + std::to_string(n) + " bytes");
    }

    // What is wrong with the bytes as the next frame of a cycle of `fourcc` after
    // `previous`, which it advances; `flushed` tells of an H.264 run resumed at a key frame.
    std::string verdict(uint32_t fourcc, int& previous, bool& flushed, const uint8_t* p, size_t n) const
    {
        const int last = std::exchange(previous, 0);
        if (fourcc == simcam::kFourccMJPG)
            return mjpeg_.frameAt(p, n) >= 0 ? "" : "MJPEG frame is no clip frame";
        if (fourcc == simcam::kFourccHEVC) {
            if (n > bitstream::kHevcPieceBytes)
                return "HEVC piece too large";
            if (!hevc_.holdsPiece(p, n))
                return "HEVC piece is no part of a clip frame";
            const bool vps = n > 5 && !p[0] && !p[1] && !p[2] && p[3] == 1 && (p[4] >> 1) == 32;
            return last != kFirst || vps ? "" : "HEVC cycle does not begin with a VPS";
        }
        if (fourcc == simcam::kFourccYUYV) {
            const bool h264 = std::any_of(std::begin(kEncoderNalTypes), std::end(kEncoderNalTypes),
                                          [&](unsigned char t) { return bitstream::isNalFrame(t, p, int(n)); });
            if (!h264 || h264_.frameAt(p, n) >= 0 || hevc_.holdsPiece(p, n))
                return "encoded frame is no H.264 packet";
            return last != kFirst || bitstream::startsWithKeyFrame(p, int(n))
                       ? "" : "encoded cycle does not begin at a key frame";
        }
        const int index = h264_.frameAt(p, n);
        if (index < 0)
            return "H.264 frame is no clip frame";
        const bool next = last >= 0 && index == (last + 1) % int(h264_.frames.size());
        if (!next && !h264_.key[size_t(index)] && last != kAny)
            return "H.264 run resumes at clip frame " + std::to_string(index) + ", not a key frame";
        flushed = flushed || (last >= 0 && !next);
        previous = index;
        return "";
    }

    void check(const uint8_t* p, size_t n, unsigned capacity)
    {
        if (n > capacity)
            return problem("frame beyond its capacity", n);
        // Every open cycle that accepts the frame follows it: which one sent it may only
        // show later. The oldest that accepts it closes those before it.
        std::string wrong;
        size_t oldest = cycles_.size();
        bool flushed = false;
        for (size_t i = cycles_.size(); i-- > 0;) {
            Cycle& c = cycles_[i];
            int previous = c.previous;
            const std::string why = verdict(c.fourcc, previous, flushed, p, n);
            if (why.empty()) {
                c.previous = previous;
                oldest = i;
            } else if (wrong.empty()) {
                wrong = why;
            }
        }
        if (oldest == cycles_.size())
            return problem(wrong, n);
        flushes += flushed;
        leftovers += oldest + 1 < cycles_.size();
        cycles_.erase(cycles_.begin(), cycles_.begin() + long(oldest));
    }

    MediaInputPin& pin_;
    const simcam::Chaos& chaos_;
    const Clip h264_, mjpeg_, hevc_;
    std::mutex m_;
    std::deque<Cycle> cycles_; // oldest first: cycles whose frames may still come
    std::vector<std::string> problems_;
    std::atomic<bool> stop_{false}, draining_{false}, drained_{false};
    std::thread thread_;
};

TEST(Soak, PlayStopReformatUnderChaos)
{
    ASSERT_TRUE(simcam::interposing());
    const int seconds = env("SOAK_SECONDS", 300), stopLimitMs = env("SOAK_STOP_MS", kStopLimitMs);
    const auto seed = uint32_t(env("SOAK_SEED", int(std::random_device{}() >> 1)));
    const simcam::Model camera = simcam::parseModel(kCamera);
    simcam::ScopedModel model(camera);
    V4LCameraCapturePlugin element;
    element.initialize();
    element.start();
    MediaInputPin input;
    MediaOutputPin* output = element.getOutputPinList().first();
    output->connect(&input);
    simcam::Chaos chaos(seed);
    const simcam::ContentOptions& content = camera.cameras[0].nodes[0].content;
    // The camera encodes a clip at its first start; stop would wait for that, not the element.
    simcam::ContentSource::get(simcam::kFourccHEVC, 1920, 1080, content);
    simcam::ContentSource::get(simcam::kFourccMJPG, 640, 480, content);
    Consumer consumer(input, chaos, content);
    std::mt19937 random{seed};
    std::discrete_distribution<int> pick({4, 2, 2, 2}); // H.264 most: its flushes are checked

    Gauges warm, peak;
    int cycles = 0, refusedPlays = 0;
    long worstStopMs = 0;
    for (const auto end = steady_clock::now() + seconds * 1s; steady_clock::now() < end;) {
        const uint32_t fourcc = kFormats[cycles < kWarmupCycles ? cycles % 4 : pick(random)];
        // H.264 at 240 fps half the time builds backlogs to flush within a consumer pause;
        // HEVC at 1 fps keeps a paused consumer's backlog of large frames within memory.
        const bool fast = fourcc == simcam::kFourccH264 && random() % 2;
        simcam::setTimePerFrame("video0", {1, fast ? 240u : fourcc == simcam::kFourccHEVC ? 1u : 0u});
        bool held = false;
        held = ElementProbe(element).queueLength() > 0;
        consumer.beginCycle(fourcc, held);
        if (fourcc == simcam::kFourccHEVC)
            ElementProbe(element).setCapture(fourcc, 1920, 1080);
        else
            ElementProbe(element).setCapture(fourcc, 640, 480);
        // A refused format or an unplugged camera: the element's own USB reset, run here,
        // brings the camera back for a later play.
        if (element.play() != 0) {
            ++refusedPlays;
            pump(200ms);
            continue;
        }
        pump(milliseconds(500 + random() % 4500));
        const auto stopAt = steady_clock::now();
        EXPECT_EQ(element.stop(), 0);
        const long stopMs = long(duration_cast<milliseconds>(steady_clock::now() - stopAt).count());
        worstStopMs = std::max(worstStopMs, stopMs);
        ++cycles;
        const std::string where = "cycle " + std::to_string(cycles) + ", seed " + std::to_string(seed);
        EXPECT_LE(stopMs, stopLimitMs) << where;
        const Gauges g = gauges();
        if (cycles == kWarmupCycles)
            warm = peak = g;
        if (cycles > kWarmupCycles) {
            peak = {std::max(peak.fds, g.fds), std::max(peak.threads, g.threads), std::max(peak.rssKb, g.rssKb)};
            EXPECT_LE(g.fds, warm.fds) << where;
            EXPECT_LE(g.threads, warm.threads) << where;
            EXPECT_LE(g.rssKb, warm.rssKb + kRssSlackKb) << where;
        }
        const std::vector<std::string> problems = consumer.problems();
        EXPECT_TRUE(problems.empty()) << problems.front() << " (" << where << ")"; // figures still print
        if (testing::Test::HasFailure())
            break;
    }
    EXPECT_EQ(output->stats().refused, 0u);
    if (seconds >= 300) { // several consumer pauses overlap fast H.264 cycles by then
        EXPECT_GT(consumer.flushes.load(), 0u) << "seed " << seed;
    }

    std::cout << "soak: seed " << seed << ", " << cycles << " cycles, " << refusedPlays
              << " plays refused, " << consumer.frames << " frames, " << consumer.flushes
              << " flushes, " << consumer.leftovers << " sent after the next play, "
              << output->stats().lagging << " pin waits, worst stop " << worstStopMs << " ms\nsoak: faults";
    for (const auto& [kind, n] : chaos.counts())
        std::cout << ' ' << kind << '=' << n;
    std::cout << "\nsoak: after warm-up fds " << warm.fds << " (peak " << peak.fds << "), threads "
              << warm.threads << " (peak " << peak.threads << "), RSS " << warm.rssKb << " KiB (peak "
              << peak.rssKb << ")" << std::endl;
}

// A consumer that goes away while the element waits for it to catch up ends the process.
TEST(SoakDeathTest, ConsumerGoneWhileLaggingEndsTheProcess)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            simcam::ScopedModel model(kCamera);
            simcam::Chaos::Options calm;
            calm.minGap = calm.maxGap = 60s; // the schedule runs, its first fault comes late
            simcam::Chaos chaos(1, calm);
            V4LCameraCapturePlugin element;
            ElementProbe(element).setCapture(simcam::kFourccH264, 640, 480);
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
