#include "Codec/MediaMem.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "DmaBufSources.h"
#include "Logger.h"

namespace Codec {

// What alloc attached to a buffer: the descriptor and the CPU mapping, and which allocator
// (by serial, so a later allocator at the same address is not mistaken for it).
struct MemoryBlock {
    uint64_t owner = 0;
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
    static DmaBufChooser instance([](DmaBufSource source, size_t bytes) { return allocateFrom(source, bytes); },
                                  [](DmaBufSource source) {
        Logger::logger_printf(2, "%s:%d INFO: DMA-BUF capture memory from %s\n", "MediaMem", __LINE__,
                              dmaBufSourceName(source));
    });
    return instance;
}

// A real codec library does not survive these: a null or twice-destroyed allocator, a buffer
// freed twice or after its allocator. The stand-in stops the process where the real one
// would corrupt it.
[[noreturn]] void refuse(const char* what, const void* object)
{
    std::fprintf(stderr, "MediaMem: %s (%p)\n", what, object);
    std::fflush(stderr);
    std::abort();
}

// Live allocators by serial, with how many buffers each has memory attached to. Never
// destroyed: frames may be freed during the process's exit.
struct Allocators {
    std::mutex mutex;
    std::unordered_map<uint64_t, int> live;
    std::unordered_map<const MediaMem*, uint64_t> serials;  // by address, so a dead one is not read
    uint64_t nextSerial = 1;
};
Allocators& allocators()
{
    static Allocators* instance = new Allocators;
    return *instance;
}

// Gives back what alloc attached, without the checks of a caller's free.
void release(MediaBuffer* buffer)
{
    if (buffer->block) {
        std::lock_guard<std::mutex> lock(allocators().mutex);
        auto it = allocators().live.find(buffer->block->owner);
        if (it == allocators().live.end())
            refuse("buffer freed after its allocator was destroyed", buffer);
        --it->second;
    }
    delete buffer->block;
    buffer->block = nullptr;
    buffer->data = nullptr;
    buffer->fd = -1;
    buffer->size = 0;
}

} // namespace

MediaMem::MediaMem(MediaBufferType type) : m_type(type)
{
    std::lock_guard<std::mutex> lock(allocators().mutex);
    m_serial = allocators().nextSerial++;
    allocators().live.emplace(m_serial, 0);
    allocators().serials[this] = m_serial;
}

MediaMem* MediaMem::create(MediaBufferType type) { return new MediaMem(type); }

void MediaMem::destroy(MediaMem* mem)
{
    if (!mem)
        refuse("destroy of a null allocator", mem);
    {
        std::lock_guard<std::mutex> lock(allocators().mutex);
        auto known = allocators().serials.find(mem);
        if (known == allocators().serials.end())
            refuse("allocator destroyed twice", mem);
        auto it = allocators().live.find(known->second);
        allocators().serials.erase(known);
        if (it->second > 0)
            Logger::logger_printf(0, "%s:%d ERROR: MediaMem destroyed with %d buffers still attached\n",
                                  "MediaMem", __LINE__, it->second);
        allocators().live.erase(it);
    }
    delete mem;
}

int MediaMem::alloc(MediaBuffer* buffer, int bytes)
{
    if (!buffer)
        return -1;
    release(buffer);
    buffer->memory = MediaBuffer::Memory::Failed;
    if (bytes <= 0)
        return -1;
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
    block->owner = m_serial;
    {
        std::lock_guard<std::mutex> lock(allocators().mutex);
        ++allocators().live[m_serial];
    }
    buffer->block = block.release();
    buffer->memory = MediaBuffer::Memory::Attached;
    return 0;
}

void MediaMem::free(MediaBuffer* buffer)
{
    if (!buffer)
        return;
    if (buffer->memory == MediaBuffer::Memory::Freed)
        refuse("buffer freed twice", buffer);
    release(buffer);
    // A buffer alloc never saw stays free to be freed (or allocated) later.
    if (buffer->memory != MediaBuffer::Memory::None)
        buffer->memory = MediaBuffer::Memory::Freed;
}

const char* MediaMem::dmaSourceName()
{
    const int current = chooser().current();
    return current >= 0 ? dmaBufSourceName(DmaBufSource(current)) : "none yet";
}

} // namespace Codec
