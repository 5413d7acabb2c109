#include "Codec/MediaMem.h"

#include <fcntl.h>
#include <linux/dma-heap.h>
#include <linux/udmabuf.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <mutex>

#include "Logger.h"
#include "UniqueFd.h"

namespace Codec {

// What alloc attached to a buffer: the descriptor and the CPU mapping.
struct MemoryBlock {
    int fd = -1;
    void* map = MAP_FAILED;
    size_t mapLength = 0;

    ~MemoryBlock()
    {
        if (map != MAP_FAILED)
            munmap(map, mapLength);
        if (fd >= 0)
            ::close(fd);
    }
};

namespace {

enum class Source { DmaHeap, Udmabuf, Memfd };
const char* const kSourceNames[] = {"dma-heap", "udmabuf", "memfd"};

const char* const kHeapPaths[] = {"/dev/dma_heap/system", "/dev/dma_heap/linux,cma",
                                  "/dev/dma_heap/reserved"};

size_t pageRound(size_t bytes)
{
    const size_t page = size_t(sysconf(_SC_PAGESIZE));
    return (bytes + page - 1) / page * page;
}

int heapAlloc(size_t bytes)
{
    for (const char* path : kHeapPaths) {
        UniqueFd heap(::open(path, O_RDWR | O_CLOEXEC));
        if (heap.get() < 0)
            continue;
        dma_heap_allocation_data request{};
        request.len = bytes;
        request.fd_flags = O_RDWR | O_CLOEXEC;
        if (ioctl(heap.get(), DMA_HEAP_IOCTL_ALLOC, &request) == 0)
            return int(request.fd);
    }
    return -1;
}

int memfdAlloc(size_t bytes, bool sealed)
{
    UniqueFd memfd(memfd_create("camera-buffer", MFD_CLOEXEC | (sealed ? MFD_ALLOW_SEALING : 0)));
    if (memfd.get() < 0 || ftruncate(memfd.get(), off_t(bytes)) != 0)
        return -1;
    // udmabuf insists that the memory cannot shrink under the device.
    if (sealed && fcntl(memfd.get(), F_ADD_SEALS, F_SEAL_SHRINK) != 0)
        return -1;
    return memfd.release();
}

int udmabufAlloc(size_t bytes)
{
    UniqueFd dev(::open("/dev/udmabuf", O_RDWR | O_CLOEXEC));
    if (dev.get() < 0)
        return -1;
    UniqueFd memfd(memfdAlloc(bytes, true));
    if (memfd.get() < 0)
        return -1;
    udmabuf_create request{};
    request.memfd = uint32_t(memfd.get());
    request.flags = UDMABUF_FLAGS_CLOEXEC;
    request.offset = 0;
    request.size = bytes;
    return ioctl(dev.get(), UDMABUF_CREATE, &request);
}

int allocFrom(Source source, size_t bytes)
{
    switch (source) {
    case Source::DmaHeap: return heapAlloc(bytes);
    case Source::Udmabuf: return udmabufAlloc(bytes);
    case Source::Memfd: return memfdAlloc(bytes, false);
    }
    return -1;
}

// The first source that ever worked is tried first from then on; the others stay as a
// fallback for the rare allocation a heap refuses.
std::atomic<int> g_preferred{-1};

void announce(Source source)
{
    static std::once_flag once;
    std::call_once(once, [source] {
        Logger::logger_printf(2, "%s:%d INFO: DMA-BUF capture memory from %s\n", "MediaMem", __LINE__,
                              kSourceNames[int(source)]);
    });
}

} // namespace

MediaMem* MediaMem::create(MediaBufferType type) { return new MediaMem(type); }

void MediaMem::destroy(MediaMem* mem) { delete mem; }

int MediaMem::alloc(MediaBuffer* buffer, int bytes)
{
    if (!buffer || bytes <= 0)
        return -1;
    free(buffer);
    const size_t mapLength = pageRound(size_t(bytes));
    auto block = std::make_unique<MemoryBlock>();

    if (m_type == MEDIA_BUFFER_TYPE_DMA) {
        const Source order[] = {Source::DmaHeap, Source::Udmabuf, Source::Memfd};
        const int preferred = g_preferred.load();
        if (preferred >= 0)
            block->fd = allocFrom(Source(preferred), mapLength);
        for (Source source : order) {
            if (block->fd >= 0)
                break;
            if (int(source) == preferred)
                continue;
            block->fd = allocFrom(source, mapLength);
            if (block->fd >= 0) {
                g_preferred.store(int(source));
                announce(source);
            }
        }
    } else {
        block->fd = memfdAlloc(mapLength, false);
    }
    if (block->fd < 0) {
        Logger::logger_printf(0, "%s:%d ERROR: MediaMem alloc of %d bytes failed: %s\n", __func__, __LINE__,
                              bytes, strerror(errno));
        return -1;
    }
    block->map = mmap(nullptr, mapLength, PROT_READ | PROT_WRITE, MAP_SHARED, block->fd, 0);
    if (block->map == MAP_FAILED) {
        Logger::logger_printf(0, "%s:%d ERROR: MediaMem mmap of %d bytes failed: %s\n", __func__, __LINE__,
                              bytes, strerror(errno));
        return -1;
    }
    block->mapLength = mapLength;

    buffer->data = block->map;
    buffer->fd = block->fd;
    buffer->size = uint32_t(bytes);
    buffer->block = block.release();
    return 0;
}

void MediaMem::free(MediaBuffer* buffer)
{
    if (!buffer)
        return;
    delete buffer->block;
    buffer->block = nullptr;
    buffer->data = nullptr;
    buffer->fd = -1;
    buffer->size = 0;
}

const char* MediaMem::dmaSourceName()
{
    const int preferred = g_preferred.load();
    return preferred >= 0 ? kSourceNames[preferred] : "none yet";
}

} // namespace Codec
