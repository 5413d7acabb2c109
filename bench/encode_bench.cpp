// Raw cameras encoded to H.264: the element's whole raw path (capture thread with the
// encoder, and the sender) against the simulated camera, beside the same encoder driven
// directly on the same pictures, and beside ffmpeg's libx264 (ultrafast, baseline, one
// thread) on the same raw input when ffmpeg is installed.
//
//   encode_bench [seconds-per-run]

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <memory>

#include "BenchSupport.h"
#include "Codec/MediaCodec.h"
#include "Codec/MediaMem.h"
#include "Logger.h"
#include "V4LCameraCapturePlugin.h"
#include "content/ContentSource.h"
#include "simcam/SimCamera.h"

namespace {

using namespace bench;

struct Result {
    double fps = 0;
    double cpuPerFrameMs = 0;
    long frames = 0;
};

constexpr int kPictures = 30;  // distinct pictures fed in a loop

Result runElement(uint32_t fourcc, int w, int h, double secondsPerRun)
{
    simcam::Model model = simcam::preset(fourcc == simcam::kFourccYUYV ? "yuyv" : "nv12");
    model.cameras[0].nodes[0].formats[0].sizes = {{uint32_t(w), uint32_t(h), {{1, 30}}}};
    model.unthrottled = true;
    simcam::configure(model);

    V4LCameraCapturePlugin element;
    // An H.264 request at a size the raw camera alone offers: negotiation picks its format.
    MediaFormat request;
    request.codecType = CODEC_TYPE_H264;
    request.width = w;
    request.height = h;
    element.setAttribute(ATTR_CAM_SETFORMAT, QVariant::fromValue(request));
    Drain drain(element.getOutputPinList().first());
    const std::set<pid_t> before = threads();
    if (element.play() != 0)
        std::exit(1);
    simcam::waitForFrames(10, std::chrono::seconds(30));
    const double cpu0 = newThreadsCpu(before, {drain.tid()});
    const auto arrived0 = drain.arrivals().size();
    const auto t0 = Clock::now();
    std::this_thread::sleep_for(std::chrono::duration<double>(secondsPerRun));
    const double cpu1 = newThreadsCpu(before, {drain.tid()});
    const auto t1 = Clock::now();
    element.stop();
    drain.stop();
    simcam::clear();

    long frames = 0;
    for (size_t i = arrived0; i < drain.arrivals().size(); ++i)
        frames += drain.arrivals()[i] <= t1;
    return {double(frames) / seconds(t1 - t0), frames ? (cpu1 - cpu0) / double(frames) * 1e3 : 0, frames};
}

struct MemDeleter {
    void operator()(Codec::MediaMem* m) const { Codec::MediaMem::destroy(m); }
};

Result runDirect(uint32_t fourcc, int w, int h, double secondsPerRun)
{
    const auto content = simcam::ContentSource::get(fourcc, w, h);
    std::unique_ptr<Codec::MediaMem, MemDeleter> mem(Codec::MediaMem::create(Codec::MEDIA_BUFFER_TYPE_DMA));
    std::vector<std::unique_ptr<Codec::MediaFrame>> pictures;
    for (int i = 0; i < kPictures; ++i) {
        auto frame = std::make_unique<Codec::MediaFrame>();
        mem->alloc(frame.get(), 3 * ((w + 15) & ~15) * ((h + 15) & ~15));
        content->render(uint64_t(i), static_cast<uint8_t*>(frame->data), frame->size);
        frame->width = uint32_t(w);
        frame->height = uint32_t(h);
        frame->horStride = uint32_t(fourcc == simcam::kFourccYUYV ? 2 * w : w);
        frame->verStride = uint32_t(h);
        frame->format = fourcc == simcam::kFourccYUYV ? Codec::PIXEL_FORMAT_YUYV : Codec::PIXEL_FORMAT_NV12;
        pictures.push_back(std::move(frame));
    }
    std::unique_ptr<Codec::Encoder> encoder(Codec::MediaCodec::createEncoder(Codec::CODEC_H264));
    const std::pair<Codec::Configure, unsigned> settings[] = {
        {Codec::CONFIG_INPUT_FORMAT, fourcc == simcam::kFourccYUYV ? 1u : 0u},
        {Codec::CONFIG_WIDTH, unsigned(w)}, {Codec::CONFIG_HEIGHT, unsigned(h)},
        {Codec::CONFIG_HOR_STRIDE, unsigned(fourcc == simcam::kFourccYUYV ? 2 * w : w)},
        {Codec::CONFIG_VER_STRIDE, unsigned(h)}, {Codec::CONFIG_INPUT_FPS_NUM, 30}, {Codec::CONFIG_INPUT_FPS_DEN, 1},
        {Codec::CONFIG_OUTPUT_FPS_NUM, 30}, {Codec::CONFIG_OUTPUT_FPS_DEN, 1}, {Codec::CONFIG_GOP, 60},
        {Codec::CONFIG_RATE_CONTROL, 1}, {Codec::CONFIG_BITRATE, 7340032}};
    for (const auto& [key, value] : settings)
        encoder->set(key, value);
    encoder->configure();

    const double cpu0 = threadCpu(gettid());
    const auto t0 = Clock::now();
    long frames = 0;
    while (seconds(Clock::now() - t0) < secondsPerRun) {
        encoder->putFrame(pictures[size_t(frames % kPictures)].get());
        if (auto packet = encoder->getPacket())
            delete packet->buffer;
        ++frames;
    }
    const double elapsed = seconds(Clock::now() - t0);
    const double cpu = threadCpu(gettid()) - cpu0;
    for (auto& p : pictures)
        Codec::MediaMem::free(p.get());
    return {double(frames) / elapsed, cpu / double(frames) * 1e3, frames};
}

// ffmpeg with libx264 on the same pictures, written to a raw file first.
Result runFfmpeg(uint32_t fourcc, int w, int h, int frames)
{
    if (std::system("ffmpeg -hide_banner -encoders 2>/dev/null | grep -q libx264") != 0)
        return {};
    const auto content = simcam::ContentSource::get(fourcc, w, h);
    char path[] = "/tmp/encode_bench_XXXXXX";
    const int fd = mkstemp(path);
    std::vector<uint8_t> picture(content->frameSize(0));
    for (int i = 0; i < frames; ++i) {
        content->render(uint64_t(i % kPictures), picture.data(), picture.size());
        if (write(fd, picture.data(), picture.size()) != ssize_t(picture.size()))
            break;
    }
    close(fd);
    const std::string size = std::to_string(w) + "x" + std::to_string(h);
    const char* pixfmt = fourcc == simcam::kFourccYUYV ? "yuyv422" : "nv12";
    const auto t0 = Clock::now();
    const pid_t child = fork();
    if (child == 0) {
        execlp("ffmpeg", "ffmpeg", "-hide_banner", "-loglevel", "error", "-f", "rawvideo", "-pix_fmt", pixfmt, "-s",
               size.c_str(), "-r", "30", "-i", path, "-c:v", "libx264", "-preset", "ultrafast", "-tune",
               "zerolatency", "-profile:v", "baseline", "-threads", "1", "-x264-params", "sliced-threads=0",
               "-b:v", "7340032", "-g", "60", "-pix_fmt", "yuv420p", "-f", "null", "-", static_cast<char*>(nullptr));
        _exit(127);
    }
    int status = 0;
    rusage usage{};
    wait4(child, &status, 0, &usage);
    const double elapsed = seconds(Clock::now() - t0);
    unlink(path);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        return {};
    const double cpu = double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                       double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
    return {double(frames) / elapsed, cpu / double(frames) * 1e3, frames};
}

void row(const char* format, const char* size, const char* what, const Result& r)
{
    if (r.frames == 0)
        std::printf("%-5s %-10s %-30s %10s %14s\n", format, size, what, "n/a", "n/a");
    else
        std::printf("%-5s %-10s %-30s %10.1f %14.2f\n", format, size, what, r.fps, r.cpuPerFrameMs);
}

} // namespace

int main(int argc, char** argv)
{
    if (!simcam::interposing()) {
        std::fprintf(stderr, "encode_bench: the simulated camera is not interposed\n");
        return 1;
    }
    Logger::setThreshold(-1);
    quietQtDebug();
    const double secondsPerRun = argc > 1 ? std::atof(argv[1]) : 3.0;
    std::printf("raw capture encoded to H.264 (openh264, 7340032 bit/s, key frame every 60), %.1f s per run\n",
                secondsPerRun);
    std::printf("%-5s %-10s %-30s %10s %14s\n", "input", "size", "what", "frames/s", "CPU ms/frame");
    const std::pair<int, int> sizes[] = {{1280, 720}, {1920, 1080}};
    for (auto [w, h] : sizes) {
        for (uint32_t fourcc : {simcam::kFourccYUYV, simcam::kFourccNV12}) {
            const char* name = fourcc == simcam::kFourccYUYV ? "YUYV" : "NV12";
            const std::string size = std::to_string(w) + "x" + std::to_string(h);
            const Result element = runElement(fourcc, w, h, secondsPerRun);
            const Result direct = runDirect(fourcc, w, h, secondsPerRun);
            const Result ffmpeg = runFfmpeg(fourcc, w, h, std::max(60, int(direct.fps * secondsPerRun)));
            row(name, size.c_str(), "element (capture+encode+send)", element);
            row(name, size.c_str(), "encoder alone, same pictures", direct);
            row(name, size.c_str(), "ffmpeg libx264 ultrafast", ffmpeg);
            std::printf("%-5s %-10s element/encoder CPU per frame %.2fx", name, size.c_str(),
                        element.cpuPerFrameMs / direct.cpuPerFrameMs);
            if (ffmpeg.frames)
                std::printf(", element/ffmpeg %.2fx", element.cpuPerFrameMs / ffmpeg.cpuPerFrameMs);
            std::printf("\n\n");
        }
    }
    return 0;
}
