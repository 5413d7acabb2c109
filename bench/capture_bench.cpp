// Compressed capture path (capture thread + sender) against the simulated camera, beside
// the two copies it must make done by plain memcpy.
//
//   capture_bench [seconds-per-run]
//
// Throughput: the camera runs unthrottled, as fast as the element hands buffers back.
// Latency: the camera runs at 60 fps so that nothing queues, and each frame's arrival on
// the pin is compared with the moment the camera made it ready.

#include <cstdlib>
#include <cstring>
#include <memory>

#include "BenchSupport.h"
#include "Logger.h"
#include "V4LCameraCapturePlugin.h"
#include "content/ContentSource.h"
#include "simcam/SimCamera.h"

namespace {

using namespace bench;

struct Measure {
    double fps = 0;
    double cpuPerFrameUs = 0;
    double latencyP50Us = 0;
    double latencyP99Us = 0;
    long frames = 0;
};

simcam::Model camera(uint32_t fourcc, bool unthrottled, uint32_t fps)
{
    simcam::Model model = simcam::preset(fourcc == simcam::kFourccH264 ? "h264" : "mjpeg");
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
    format.codecType = fourcc == simcam::kFourccH264 ? CODEC_TYPE_H264 : CODEC_TYPE_MJPEG;
    format.width = 1920;
    format.height = 1080;
    element.activeOutPin(nullptr, format);

    Drain drain(element.getOutputPinList().first());
    const std::set<pid_t> before = threads();
    if (element.play() != 0) {
        std::fprintf(stderr, "play failed\n");
        std::exit(1);
    }
    // Let the clip encode and the stream settle before measuring.
    simcam::waitForFrames(10, std::chrono::seconds(30));
    const double cpu0 = newThreadsCpu(before, {drain.tid()});
    const size_t arrived0 = drain.arrivals().size();
    simcam::resetStats();
    const auto t0 = Clock::now();
    std::this_thread::sleep_for(std::chrono::duration<double>(secondsPerRun));
    const double cpu1 = newThreadsCpu(before, {drain.tid()});
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

} // namespace

int main(int argc, char** argv)
{
    if (!simcam::interposing()) {
        std::fprintf(stderr, "capture_bench: the simulated camera is not interposed\n");
        return 1;
    }
    Logger::setThreshold(-1);
    quietQtDebug();
    const double secondsPerRun = argc > 1 ? std::atof(argv[1]) : 3.0;
    std::printf("compressed capture path, 1920x1080, %.1f s per run\n", secondsPerRun);
    std::printf("%-6s %-22s %10s %14s %14s %14s\n", "format", "what", "frames/s", "CPU us/frame", "latency p50 us",
                "latency p99 us");
    for (uint32_t fourcc : {simcam::kFourccH264, simcam::kFourccMJPG}) {
        const char* name = fourcc == simcam::kFourccH264 ? "H264" : "MJPG";
        const Measure fast = runElement(fourcc, true, secondsPerRun);
        const Measure paced = runElement(fourcc, false, secondsPerRun);
        const Measure base = runBaseline(fourcc, secondsPerRun);
        std::printf("%-6s %-22s %10.0f %14.1f %14s %14s\n", name, "element, unthrottled", fast.fps,
                    fast.cpuPerFrameUs, "-", "-");
        std::printf("%-6s %-22s %10.1f %14.1f %14.0f %14.0f\n", name, "element, 60 fps camera", paced.fps,
                    paced.cpuPerFrameUs, paced.latencyP50Us, paced.latencyP99Us);
        std::printf("%-6s %-22s %10.0f %14.1f %14.1f %14.1f\n", name, "baseline: 2 x memcpy", base.fps,
                    base.cpuPerFrameUs, base.latencyP50Us, base.latencyP99Us);
        std::printf("%-6s ratio element/baseline: CPU per frame %.1fx, latency p50 %.0fx\n\n", name,
                    fast.cpuPerFrameUs / base.cpuPerFrameUs, paced.latencyP50Us / base.latencyP50Us);
    }
    return 0;
}
