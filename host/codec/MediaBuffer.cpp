#include "Codec/MediaBuffer.h"

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <unordered_set>

#include "KeptBuffers.h"

namespace Codec {

namespace {
// Never destroyed: buffers may be deleted during the process's exit.
struct KeptSet {
    std::mutex mutex;
    std::unordered_set<const MediaBuffer*> buffers;
};
KeptSet& kept()
{
    static KeptSet* instance = new KeptSet;
    return *instance;
}
} // namespace

void keepBuffer(const MediaBuffer* buffer)
{
    std::lock_guard<std::mutex> lock(kept().mutex);
    kept().buffers.insert(buffer);
}

void unkeepBuffer(const MediaBuffer* buffer)
{
    std::lock_guard<std::mutex> lock(kept().mutex);
    kept().buffers.erase(buffer);
}

MediaBuffer::~MediaBuffer()
{
    std::lock_guard<std::mutex> lock(kept().mutex);
    if (kept().buffers.count(this)) {
        // The real library frees it again at its next call: a double free.
        std::fprintf(stderr, "MediaBuffer: packet buffer %p deleted while the encoder keeps it\n",
                     static_cast<const void*>(this));
        std::fflush(stderr);
        std::abort();
    }
}

MediaFrame::~MediaFrame() = default;

} // namespace Codec
