#include "Codec/MediaMem.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "DmaBufSources.h"
#include "Logger.h"

namespace Codec {

// What alloc attached to a buffer: the descriptor and the CPU mapping.
struct MemoryBlock {
    const MediaMem* owner = nullptr;
    MappedDmaBuf memory;
};

namespace {

size_t pageRound(size_t bytes)
{
    const size_t page = size_t(sysconf(_SC_PAGESIZE));
    return (bytes + page - 1) / page * page;
}

DmaBufChooser& chooser()
{
    static DmaBufChooser instance(allocateFrom, [](DmaBufSource source) {
        Logger::logger_printf(2, "%s:%d INFO: DMA-BUF capture memory from %s\n", "MediaMem", __LINE__,
                              dmaBufSourceName(source));
    });
    return instance;
}

// Buffers each live allocator has attached memory to. Freeing a buffer after its allocator
// is gone is a use after free in a real codec library; here it is reported.
std::mutex g_attachedMutex;
std::unordered_map<const MediaMem*, int> g_attached;

void countAttached(const MediaMem* owner, int delta)
{
    std::lock_guard<std::mutex> lock(g_attachedMutex);
    auto it = g_attached.find(owner);
    if (it == g_attached.end()) {
        if (delta < 0)
            Logger::logger_printf(0, "%s:%d ERROR: MediaMem free after its allocator was destroyed\n", "MediaMem",
                                  __LINE__);
        else
            g_attached[owner] = delta;
        return;
    }
    it->second += delta;
}

} // namespace

MediaMem* MediaMem::create(MediaBufferType type) { return new MediaMem(type); }

void MediaMem::destroy(MediaMem* mem)
{
    if (!mem)
        return;
    {
        std::lock_guard<std::mutex> lock(g_attachedMutex);
        auto it = g_attached.find(mem);
        if (it != g_attached.end()) {
            if (it->second > 0)
                Logger::logger_printf(0, "%s:%d ERROR: MediaMem destroyed with %d buffers still attached\n",
                                      "MediaMem", __LINE__, it->second);
            g_attached.erase(it);
        }
    }
    delete mem;
}

int MediaMem::alloc(MediaBuffer* buffer, int bytes)
{
    if (!buffer || bytes <= 0)
        return -1;
    free(buffer);
    const size_t mapLength = pageRound(size_t(bytes));
    auto block = std::make_unique<MemoryBlock>();

    if (m_type == MEDIA_BUFFER_TYPE_DMA) {
        // MEDIAMEM_SOURCE names the one source to use (dma-heap, udmabuf, drm, memfd).
        const char* forced = std::getenv("MEDIAMEM_SOURCE");
        bool known = false;
        const std::vector<DmaBufSource> order = sourceOrder(forced, &known);
        if (!known) {
            Logger::logger_printf(0, "%s:%d ERROR: MEDIAMEM_SOURCE=%s names no memory source\n", __func__,
                                  __LINE__, forced);
            return -1;
        }
        block->memory = chooser().allocate(order, mapLength, nullptr);
    } else {
        block->memory = allocateFrom(DmaBufSource::Memfd, mapLength);
    }
    if (!block->memory.valid()) {
        Logger::logger_printf(0, "%s:%d ERROR: MediaMem alloc of %d bytes failed: %s\n", __func__, __LINE__,
                              bytes, strerror(errno));
        return -1;
    }

    buffer->data = block->memory.map;
    buffer->fd = block->memory.fd.get();
    buffer->size = uint32_t(bytes);
    block->owner = this;
    countAttached(this, 1);
    buffer->block = block.release();
    return 0;
}

void MediaMem::free(MediaBuffer* buffer)
{
    if (!buffer)
        return;
    if (buffer->block)
        countAttached(buffer->block->owner, -1);
    delete buffer->block;
    buffer->block = nullptr;
    buffer->data = nullptr;
    buffer->fd = -1;
    buffer->size = 0;
}

const char* MediaMem::dmaSourceName()
{
    const int current = chooser().current();
    return current >= 0 ? dmaBufSourceName(DmaBufSource(current)) : "none yet";
}

} // namespace Codec
