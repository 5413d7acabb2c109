// HEVC clip with x265: fastest preset, no frame delay, one picture per access unit, and
// VPS/SPS/PPS repeated in front of every IDR so any key frame can start a stream.
#include "content/Clip.h"
#include "content/Pattern.h"

#include <x265.h>

#include <cstdio>
#include <memory>
#include <mutex>
#include <string>

namespace simcam {

namespace {

// x265 sets up process-wide tables when the first encoder opens; don't race that.
std::mutex x265Mutex;

struct ParamDeleter {
    void operator()(x265_param* p) const { x265_param_free(p); }
};
struct EncoderDeleter {
    void operator()(x265_encoder* e) const { x265_encoder_close(e); }
};
struct PictureDeleter {
    void operator()(x265_picture* p) const { x265_picture_free(p); }
};

bool set(x265_param* p, const char* name, const std::string& value)
{
    if (x265_param_parse(p, name, value.c_str()) == 0)
        return true;
    std::fprintf(stderr, "content: x265 rejected %s=%s\n", name, value.c_str());
    return false;
}

} // namespace

CodedClip encodeHevcClip(const Pattern& pattern, const ContentOptions& options)
{
    std::lock_guard<std::mutex> lock(x265Mutex);
    const int w = pattern.width(), h = pattern.height();

    std::unique_ptr<x265_param, ParamDeleter> p(x265_param_alloc());
    if (!p || x265_param_default_preset(p.get(), "ultrafast", "zerolatency") != 0) {
        std::fprintf(stderr, "content: x265 has no ultrafast/zerolatency preset\n");
        return {};
    }
    x265_param* pp = p.get();
    pp->logLevel = X265_LOG_ERROR;
    pp->sourceWidth = w;
    pp->sourceHeight = h;
    pp->internalCsp = X265_CSP_I420;
    pp->fpsNum = uint32_t(options.frameRate);
    pp->fpsDenom = 1;
    pp->bRepeatHeaders = 1;
    pp->bAnnexB = 1;
    pp->bEmitInfoSEI = 0; // no encoder version string in the first IDR
    pp->bOpenGOP = 0;     // key frames are IDRs, not CRAs
    pp->bframes = 0;
    pp->keyframeMax = options.keyInterval;
    pp->keyframeMin = options.keyInterval;
    pp->scenecutThreshold = 0; // key frames strictly on the interval
    pp->frameNumThreads = 1;   // anything more holds pictures back
    pp->bEnableAccessUnitDelimiters = 0;
    const int kbps = clipBitrate(w, h, options.frameRate) / 1000;
    // No worker pool: its row-parallel encoding shares rows between threads without locks
    // (helgrind reports them), which makes the encode depend on thread timing under load,
    // and short clips encoded once do not need its speed.
    if (!set(pp, "pools", "none") || !set(pp, "bitrate", std::to_string(kbps)) ||
        !set(pp, "vbv-maxrate", std::to_string(kbps)) || !set(pp, "vbv-bufsize", std::to_string(kbps)))
        return {};

    std::unique_ptr<x265_encoder, EncoderDeleter> enc(x265_encoder_open(pp));
    if (!enc) {
        std::fprintf(stderr, "content: x265 refused %dx%d\n", w, h);
        return {};
    }
    std::unique_ptr<x265_picture, PictureDeleter> in(x265_picture_alloc());
    std::unique_ptr<x265_picture, PictureDeleter> out(x265_picture_alloc());
    if (!in || !out)
        return {};
    x265_picture_init(pp, in.get());
    x265_picture_init(pp, out.get());

    const size_t cw = size_t(w / 2), ch = size_t(h / 2);
    std::vector<uint8_t> yuv(size_t(w) * h + 2 * cw * ch);
    in->planes[0] = yuv.data();
    in->planes[1] = yuv.data() + size_t(w) * h;
    in->planes[2] = static_cast<uint8_t*>(in->planes[1]) + cw * ch;
    in->stride[0] = w;
    in->stride[1] = in->stride[2] = int(cw);
    in->bitDepth = 8;
    in->colorSpace = X265_CSP_I420;

    CodedClip clip;
    auto take = [&](x265_nal* nals, uint32_t count) {
        std::vector<uint8_t> au;
        for (uint32_t k = 0; k < count; ++k)
            au.insert(au.end(), nals[k].payload, nals[k].payload + nals[k].sizeBytes);
        clip.units.push_back(std::move(au));
        clip.key.push_back(out->sliceType == X265_TYPE_IDR);
    };
    for (int i = 0; i < options.clipFrames; ++i) {
        pattern.renderI420(uint64_t(i), static_cast<uint8_t*>(in->planes[0]), size_t(w),
                           static_cast<uint8_t*>(in->planes[1]), cw,
                           static_cast<uint8_t*>(in->planes[2]), cw);
        in->pts = i;
        x265_nal* nals = nullptr;
        uint32_t count = 0;
        const int r = x265_encoder_encode(enc.get(), &nals, &count, in.get(), out.get());
        if (r < 0) {
            std::fprintf(stderr, "content: x265 failed on frame %d\n", i);
            return {};
        }
        if (r > 0 && count > 0)
            take(nals, count);
    }
    // Zero latency should leave nothing behind, but drain in case a build disagrees.
    for (;;) {
        x265_nal* nals = nullptr;
        uint32_t count = 0;
        const int r = x265_encoder_encode(enc.get(), &nals, &count, nullptr, out.get());
        if (r <= 0)
            break;
        if (count > 0)
            take(nals, count);
    }
    if (clip.units.size() != size_t(options.clipFrames)) {
        std::fprintf(stderr, "content: x265 gave %zu pictures for %d\n", clip.units.size(),
                     options.clipFrames);
        return {};
    }
    return clip;
}

} // namespace simcam
