// ContentSource::get: validates the request, builds the source once per distinct request
// and shares it from then on.
#include "content/ContentSource.h"

#include "content/Pattern.h"
#include "content/Sources.h"

#include <future>
#include <map>
#include <mutex>
#include <tuple>

namespace simcam {

namespace {

using SourcePtr = std::shared_ptr<const ContentSource>;

// Options a format ignores are zeroed, so e.g. every YUYV request of one size shares one
// source whatever options came with it.
ContentOptions relevantOptions(uint32_t fourcc, const ContentOptions& o)
{
    ContentOptions r;
    r.clipFrames = r.keyInterval = r.frameRate = 0;
    r.hevcMinFrameBytes = 0;
    if (fourcc == kFourccYUYV || fourcc == kFourccNV12)
        return r;
    r.clipFrames = o.clipFrames;
    if (fourcc == kFourccMJPG)
        return r;
    r.keyInterval = o.keyInterval;
    r.frameRate = o.frameRate;
    if (fourcc == kFourccHEVC)
        r.hevcMinFrameBytes = o.hevcMinFrameBytes;
    return r;
}

bool valid(uint32_t fourcc, int width, int height, const ContentOptions& o)
{
    if (fourcc != kFourccYUYV && fourcc != kFourccNV12 && fourcc != kFourccMJPG &&
        fourcc != kFourccH264 && fourcc != kFourccHEVC)
        return false;
    if (width <= 0 || height <= 0 || width % 2 || height % 2 ||
        width > ContentSource::kMaxDimension || height > ContentSource::kMaxDimension)
        return false;
    if (fourcc == kFourccYUYV || fourcc == kFourccNV12)
        return true;
    if (o.clipFrames <= 0)
        return false;
    return fourcc == kFourccMJPG || (o.keyInterval > 0 && o.frameRate > 0);
}

SourcePtr build(uint32_t fourcc, int width, int height, const ContentOptions& o)
{
    if (fourcc == kFourccYUYV || fourcc == kFourccNV12)
        return makeRawSource(fourcc, width, height);
    if (fourcc == kFourccHEVC && o.hevcMinFrameBytes > 0) {
        // Padding only adds bytes after each frame, so share the plain clip's encode.
        ContentOptions plain = o;
        plain.hevcMinFrameBytes = 0;
        return makeHevcPaddedSource(ContentSource::get(fourcc, width, height, plain),
                                    o.hevcMinFrameBytes);
    }
    const Pattern pattern(width, height);
    if (fourcc == kFourccH264)
        return makeClipSource(fourcc, width, height, encodeH264Clip(pattern, o));
    if (fourcc == kFourccHEVC)
        return makeClipSource(fourcc, width, height, encodeHevcClip(pattern, o));
    return makeClipSource(fourcc, width, height, encodeMjpegClip(pattern, o));
}

using Key = std::tuple<uint32_t, int, int, int, int, int, size_t>;

} // namespace

SourcePtr ContentSource::get(uint32_t fourcc, int width, int height,
                             const ContentOptions& options)
{
    if (!valid(fourcc, width, height, options))
        return nullptr;
    const ContentOptions o = relevantOptions(fourcc, options);
    const Key key{fourcc, width, height, o.clipFrames, o.keyInterval, o.frameRate,
                  o.hevcMinFrameBytes};

    // The lock only guards the map: encoding a clip takes up to a second, and requests
    // for other clips must not wait behind it. Requests for the same clip wait on its
    // future instead of encoding it twice.
    static std::mutex mutex;
    static std::map<Key, std::shared_future<SourcePtr>> cache;
    std::promise<SourcePtr> promise;
    std::shared_future<SourcePtr> result;
    bool mine = false;
    {
        std::lock_guard<std::mutex> lock(mutex);
        auto it = cache.find(key);
        if (it == cache.end()) {
            result = promise.get_future().share();
            cache.emplace(key, result);
            mine = true;
        } else {
            result = it->second;
        }
    }
    if (mine) {
        // A failed encode is remembered as null too: the same settings would fail again.
        try {
            promise.set_value(build(fourcc, width, height, o));
        } catch (...) {
            promise.set_value(nullptr);
        }
    }
    return result.get();
}

} // namespace simcam
