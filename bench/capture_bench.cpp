// Compressed capture path (capture thread + sender) against the simulated camera, beside
// the two copies it must make done by plain memcpy.
//
//   capture_bench [seconds-per-run]
//
// Throughput: the camera runs unthrottled, as fast as the element hands buffers back.
// Latency: the camera runs at 60 fps so that nothing queues, and each frame's arrival on
// the pin is compared with the moment the camera made it ready. Heap allocations and minor
// page faults are counted in the element's own threads over the same paced window (the
// simulated camera's ioctl bookkeeping and the pin stand-in run in those threads too).
// Stop time: how long stop() takes on a stalled and on an unplugged camera.

#include <sys/prctl.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <new>
#include <sstream>

#include "BenchSupport.h"
#include "Logger.h"
#include "V4LCameraCapturePlugin.h"
#include "content/ContentSource.h"
#include "simcam/SimCamera.h"

// Heap allocations made by threads other than the bench's own and the camera's clocks.
std::atomic<uint64_t> g_elementAllocs{0};
std::atomic<pid_t> g_mainTid{0};
std::atomic<pid_t> g_drainTid{0};
thread_local int t_counted = -1;

void countAllocation()
{
    if (t_counted < 0) {
        char name[16] = {};
        prctl(PR_GET_NAME, name);
        const pid_t self = gettid();
        t_counted = self != g_mainTid && self != g_drainTid && std::strncmp(name, "simcam", 6) != 0;
    }
    if (t_counted)
        g_elementAllocs.fetch_add(1, std::memory_order_relaxed);
}

void* allocate(size_t n)
{
    countAllocation();
    if (void* p = std::malloc(n ? n : 1))
        return p;
    throw std::bad_alloc();
}

void* operator new(size_t n) { return allocate(n); }
void* operator new[](size_t n) { return allocate(n); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, size_t) noexcept { std::free(p); }
void operator delete[](void* p, size_t) noexcept { std::free(p); }

namespace {

using namespace bench;

// Minor page faults of a thread of this process (field 10 of its stat line).
uint64_t threadMinorFaults(pid_t tid)
{
    std::ifstream f("/proc/self/task/" + std::to_string(tid) + "/stat");
    std::string line;
    std::getline(f, line);
    const size_t close = line.rfind(')');
    if (close == std::string::npos)
        return 0;
    std::istringstream rest(line.substr(close + 2));
    std::string field;
    for (int i = 3; i <= 10 && rest >> field; ++i) {
    }
    return std::strtoull(field.c_str(), nullptr, 10);
}

uint64_t elementMinorFaults(const std::set<pid_t>& before, pid_t drain)
{
    uint64_t total = 0;
    for (pid_t tid : threads())
        if (!before.count(tid) && tid != drain && threadName(tid) != "simcam-clock")
            total += threadMinorFaults(tid);
    return total;
}

struct Measure {
    double fps = 0;
    double cpuPerFrameUs = 0;
    double latencyP50Us = 0;
    double latencyP99Us = 0;
    double allocsPerFrame = 0;
    double minorFaultsPerFrame = 0;
    long frames = 0;
};

const char* presetOf(uint32_t fourcc)
{
    return fourcc == simcam::kFourccH264 ? "h264" : fourcc == simcam::kFourccHEVC ? "hevc-large" : "mjpeg";
}

int codecOf(uint32_t fourcc)
{
    return fourcc == simcam::kFourccH264 ? CODEC_TYPE_H264 : fourcc == simcam::kFourccHEVC ? CODEC_TYPE_HEVC : CODEC_TYPE_MJPEG;
}

simcam::Model camera(uint32_t fourcc, bool unthrottled, uint32_t fps)
{
    simcam::Model model = simcam::preset(presetOf(fourcc));
    simcam::Format& format = model.cameras[0].nodes[0].formats[0];
    format.sizes = {{1920, 1080, {{1, fps}}}};
    model.unthrottled = unthrottled;
    return model;
}

Measure runElement(uint32_t fourcc, bool unthrottled, double secondsPerRun)
{
    simcam::configure(camera(fourcc, unthrottled, unthrottled ? 30 : 60));
    V4LCameraCapturePlugin element;
    MediaFormat format;
    format.codecType = codecOf(fourcc);
    format.width = 1920;
    format.height = 1080;
    element.activeOutPin(nullptr, format);

    Drain drain(element.getOutputPinList().first());
    g_drainTid = drain.tid();
    const std::set<pid_t> before = threads();
    if (element.play() != 0) {
        std::fprintf(stderr, "play failed\n");
        std::exit(1);
    }
    // Let the clip encode and the stream settle before measuring.
    simcam::waitForFrames(10, std::chrono::seconds(30));
    const double cpu0 = newThreadsCpu(before, {drain.tid()});
    const uint64_t faults0 = elementMinorFaults(before, drain.tid());
    const uint64_t allocs0 = g_elementAllocs.load();
    const size_t arrived0 = drain.arrivals().size();
    simcam::resetStats();
    const auto t0 = Clock::now();
    std::this_thread::sleep_for(std::chrono::duration<double>(secondsPerRun));
    const double cpu1 = newThreadsCpu(before, {drain.tid()});
    const uint64_t allocs1 = g_elementAllocs.load();
    const uint64_t faults1 = elementMinorFaults(before, drain.tid());
    const auto t1 = Clock::now();
    const simcam::Stats stats = simcam::stats();
    element.stop();
    drain.stop();

    Measure m;
    const std::vector<Clock::time_point>& arrivals = drain.arrivals();
    size_t inWindow = 0;
    for (size_t i = arrived0; i < arrivals.size(); ++i)
        inWindow += arrivals[i] <= t1;
    m.frames = long(inWindow);
    m.fps = double(inWindow) / seconds(t1 - t0);
    m.cpuPerFrameUs = inWindow ? (cpu1 - cpu0) / double(inWindow) * 1e6 : 0;
    m.allocsPerFrame = inWindow ? double(allocs1 - allocs0) / double(inWindow) : 0;
    m.minorFaultsPerFrame = inWindow ? double(faults1 - faults0) / double(inWindow) : 0;

    if (!unthrottled) {
        // At 60 fps nothing waits, so the n-th frame made ready after the reset is the
        // n-th that arrives after it.
        std::vector<double> latencies;
        const auto& ready = stats.readyTimes;
        size_t a = arrived0;
        while (a < arrivals.size() && arrivals[a] < (ready.empty() ? t0 : ready.front()))
            ++a;
        for (size_t r = 0; r < ready.size() && a < arrivals.size(); ++r, ++a)
            latencies.push_back(std::chrono::duration<double, std::micro>(arrivals[a] - ready[r]).count());
        m.latencyP50Us = percentile(latencies, 0.5);
        m.latencyP99Us = percentile(latencies, 0.99);
    }
    simcam::clear();
    return m;
}

// The same bytes moved the way the path must move them: into an owned buffer, then into a
// pin frame, with nothing else.
Measure runBaseline(uint32_t fourcc, double secondsPerRun)
{
    const auto content = simcam::ContentSource::get(fourcc, 1920, 1080, {});
    std::vector<uint8_t> capture(3 * 1920 * 1088);
    MediaFrame pinFrame(MediaInputPin::kDefaultFrameCapacity);
    std::vector<double> perFrame;
    const auto t0 = Clock::now();
    uint64_t i = 0;
    while (seconds(Clock::now() - t0) < secondsPerRun) {
        const size_t n = content->render(i++, capture.data(), capture.size());
        const auto s = Clock::now();
        std::unique_ptr<uint8_t[]> owned(new uint8_t[n]);
        std::memcpy(owned.get(), capture.data(), n);
        std::memcpy(pinFrame.data(), owned.get(), n);
        pinFrame.setSize(int(n));
        perFrame.push_back(std::chrono::duration<double, std::micro>(Clock::now() - s).count());
    }
    Measure m;
    m.frames = long(perFrame.size());
    double copyTotal = 0;
    for (double v : perFrame)
        copyTotal += v;
    m.cpuPerFrameUs = copyTotal / double(perFrame.size());
    m.fps = 1e6 / m.cpuPerFrameUs;
    m.latencyP50Us = percentile(perFrame, 0.5);
    m.latencyP99Us = percentile(perFrame, 0.99);
    return m;
}

// How long stop() takes while the capture thread waits on a camera that delivers nothing
// (stalled) or fails every dequeue (unplugged), after playing for `played`.
double stopMs(const char* fault, double played)
{
    simcam::Model model = simcam::preset("h264");
    if (std::strcmp(fault, "stalled") == 0) {
        model.cameras[0].nodes[0].faults.stall = true;
    } else {
        model.cameras[0].nodes[0].faults.dqbufErrno = ENODEV;
        model.cameras[0].nodes[0].faults.dqbufAfter = 2;
    }
    simcam::configure(model);
    V4LCameraCapturePlugin element;
    MediaFormat format;
    format.codecType = CODEC_TYPE_H264;
    format.width = 1920;
    format.height = 1080;
    element.activeOutPin(nullptr, format);
    if (element.play() != 0) {
        std::fprintf(stderr, "play failed\n");
        std::exit(1);
    }
    std::this_thread::sleep_for(std::chrono::duration<double>(played));
    const auto t0 = Clock::now();
    element.stop();
    const double ms = std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
    simcam::clear();
    return ms;
}

} // namespace

int main(int argc, char** argv)
{
    if (!simcam::interposing()) {
        std::fprintf(stderr, "capture_bench: the simulated camera is not interposed\n");
        return 1;
    }
    g_mainTid = gettid();
    Logger::setThreshold(-1);
    quietQtDebug();
    const double secondsPerRun = argc > 1 ? std::atof(argv[1]) : 3.0;
    std::printf("compressed capture path, 1920x1080, %.1f s per run\n", secondsPerRun);
    std::printf("%-6s %-22s %10s %14s %14s %14s\n", "format", "what", "frames/s", "CPU us/frame", "latency p50 us",
                "latency p99 us");
    for (uint32_t fourcc : {simcam::kFourccH264, simcam::kFourccMJPG, simcam::kFourccHEVC}) {
        const char* name = fourcc == simcam::kFourccH264 ? "H264" : fourcc == simcam::kFourccHEVC ? "HEVC" : "MJPG";
        const Measure fast = runElement(fourcc, true, secondsPerRun);
        const Measure paced = runElement(fourcc, false, secondsPerRun);
        std::printf("%-6s %-22s %10.0f %14.1f %14s %14s\n", name, "element, unthrottled", fast.fps,
                    fast.cpuPerFrameUs, "-", "-");
        // HEVC frames reach the pin in two pieces each: no one-to-one latency, no like-for-like copy.
        if (fourcc != simcam::kFourccHEVC) {
            const Measure base = runBaseline(fourcc, secondsPerRun);
            std::printf("%-6s %-22s %10.1f %14.1f %14.0f %14.0f\n", name, "element, 60 fps camera", paced.fps,
                        paced.cpuPerFrameUs, paced.latencyP50Us, paced.latencyP99Us);
            std::printf("%-6s %-22s %10.0f %14.1f %14.1f %14.1f\n", name, "baseline: 2 x memcpy", base.fps,
                        base.cpuPerFrameUs, base.latencyP50Us, base.latencyP99Us);
            std::printf("%-6s ratio element/baseline: CPU per frame %.1fx, latency p50 %.0fx\n", name,
                        fast.cpuPerFrameUs / base.cpuPerFrameUs, paced.latencyP50Us / base.latencyP50Us);
        }
        std::printf("%-6s element, 60 fps camera, per piece on the pin: %.2f heap allocations, %.2f minor faults\n\n",
                    name, paced.allocsPerFrame, paced.minorFaultsPerFrame);
    }
    std::printf("stop() while the capture thread waits on the camera\n");
    for (const char* fault : {"stalled", "unplugged"})
        std::printf("  %-10s camera: stop took %.1f ms after 1.5 s of play (the waits are 1 s and 3 s)\n", fault,
                    stopMs(fault, 1.5));
    return 0;
}
