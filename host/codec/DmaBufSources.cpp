#include "DmaBufSources.h"

#include <fcntl.h>
#include <libdrm/drm.h>
#include <libdrm/drm_mode.h>
#include <linux/dma-heap.h>
#include <linux/udmabuf.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

namespace Codec {

namespace {

const char* const kSourceNames[] = {"dma-heap", "udmabuf", "drm", "memfd"};
const DmaBufSource kAllSources[] = {DmaBufSource::DmaHeap, DmaBufSource::Udmabuf, DmaBufSource::Drm,
                                    DmaBufSource::Memfd};

const char* const kHeapPaths[] = {"/dev/dma_heap/system", "/dev/dma_heap/linux,cma",
                                  "/dev/dma_heap/reserved"};
constexpr int kDrmCards = 8;

// Keeps the first errno across the cleanup that follows a failure.
int failWith(int error)
{
    errno = error;
    return -1;
}

int xioctl(int fd, unsigned long request, void* arg)
{
    int rc;
    do {
        rc = ioctl(fd, request, arg);
    } while (rc < 0 && errno == EINTR);
    return rc;
}

MappedDmaBuf mapShared(UniqueFd fd, size_t bytes)
{
    MappedDmaBuf buf;
    if (!fd)
        return buf;
    buf.map = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
    if (buf.map == MAP_FAILED)
        return buf;
    buf.fd = std::move(fd);
    buf.length = bytes;
    return buf;
}

UniqueFd heapAlloc(size_t bytes, std::string* device)
{
    int error = ENOENT;
    for (const char* path : kHeapPaths) {
        UniqueFd heap(::open(path, O_RDWR | O_CLOEXEC));
        if (!heap) {
            if (errno != ENOENT)
                error = errno;
            continue;
        }
        *device = path;
        dma_heap_allocation_data request{};
        request.len = bytes;
        request.fd_flags = O_RDWR | O_CLOEXEC;
        if (xioctl(heap.get(), DMA_HEAP_IOCTL_ALLOC, &request) == 0)
            return UniqueFd(int(request.fd));
        error = errno;
    }
    failWith(error);
    return UniqueFd();
}

UniqueFd memfdAlloc(size_t bytes, bool sealed)
{
    UniqueFd memfd(memfd_create("camera-buffer", MFD_CLOEXEC | (sealed ? MFD_ALLOW_SEALING : 0)));
    if (!memfd || ftruncate(memfd.get(), off_t(bytes)) != 0)
        return UniqueFd();
    // udmabuf insists that the memory cannot shrink under the device.
    if (sealed && fcntl(memfd.get(), F_ADD_SEALS, F_SEAL_SHRINK) != 0)
        return UniqueFd();
    return memfd;
}

UniqueFd udmabufAlloc(size_t bytes, std::string* device)
{
    *device = "/dev/udmabuf";
    UniqueFd dev(::open(device->c_str(), O_RDWR | O_CLOEXEC));
    if (!dev)
        return UniqueFd();
    UniqueFd memfd = memfdAlloc(bytes, true);
    if (!memfd)
        return UniqueFd();
    udmabuf_create request{};
    request.memfd = uint32_t(memfd.get());
    request.flags = UDMABUF_FLAGS_CLOEXEC;
    request.offset = 0;
    request.size = bytes;
    return UniqueFd(xioctl(dev.get(), UDMABUF_CREATE, &request));
}

// A dumb buffer exported as DMA-BUF (PRIME) and mapped through the card. The handle is
// dropped once both exist: the export and the mapping keep the buffer alive.
MappedDmaBuf drmAllocOn(const UniqueFd& card, size_t bytes)
{
    MappedDmaBuf buf;
    // Rows of 4 KiB: a width every display driver takes, with no pitch padding.
    drm_mode_create_dumb create{};
    create.bpp = 32;
    create.width = 1024;
    create.height = uint32_t((bytes + 4095) / 4096);
    if (xioctl(card.get(), DRM_IOCTL_MODE_CREATE_DUMB, &create) != 0)
        return buf;
    struct HandleGuard {
        int card;
        uint32_t handle;
        ~HandleGuard()
        {
            drm_mode_destroy_dumb destroy{};
            destroy.handle = handle;
            const int saved = errno;
            xioctl(card, DRM_IOCTL_MODE_DESTROY_DUMB, &destroy);
            errno = saved;
        }
    } guard{card.get(), create.handle};
    if (create.size < bytes) {
        failWith(ENOMEM);
        return buf;
    }
    drm_prime_handle prime{};
    prime.handle = create.handle;
    prime.flags = DRM_CLOEXEC | DRM_RDWR;
    if (xioctl(card.get(), DRM_IOCTL_PRIME_HANDLE_TO_FD, &prime) != 0)
        return buf;
    UniqueFd exported(prime.fd);
    drm_mode_map_dumb mapReq{};
    mapReq.handle = create.handle;
    if (xioctl(card.get(), DRM_IOCTL_MODE_MAP_DUMB, &mapReq) != 0)
        return buf;
    // The fake offset is 64 bits wide; a 32-bit off_t would cut it.
    buf.map = mmap64(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, card.get(), off64_t(mapReq.offset));
    if (buf.map == MAP_FAILED)
        return buf;
    buf.fd = std::move(exported);
    buf.length = bytes;
    return buf;
}

// The first /dev/dri/card* that makes one: vgem, or a board's display driver. (vgem has
// dumb buffers but, having no modesetting, answers no DRM_CAP_DUMB_BUFFER query.)
MappedDmaBuf drmAlloc(size_t bytes, std::string* device)
{
    int error = ENOENT;
    for (int i = 0; i < kDrmCards; ++i) {
        char path[32];
        std::snprintf(path, sizeof path, "/dev/dri/card%d", i);
        UniqueFd card(::open(path, O_RDWR | O_CLOEXEC));
        if (!card) {
            if (errno != ENOENT)
                error = errno;
            continue;
        }
        *device = path;
        MappedDmaBuf buf = drmAllocOn(card, bytes);
        if (buf.valid())
            return buf;
        error = errno;
    }
    failWith(error);
    return MappedDmaBuf();
}

} // namespace

MappedDmaBuf::MappedDmaBuf(MappedDmaBuf&& other) noexcept
    : fd(std::move(other.fd)), map(std::exchange(other.map, MAP_FAILED)), length(std::exchange(other.length, 0))
{
}

MappedDmaBuf& MappedDmaBuf::operator=(MappedDmaBuf&& other) noexcept
{
    if (this != &other) {
        if (map != MAP_FAILED)
            munmap(map, length);
        fd = std::move(other.fd);
        map = std::exchange(other.map, MAP_FAILED);
        length = std::exchange(other.length, 0);
    }
    return *this;
}

MappedDmaBuf::~MappedDmaBuf()
{
    if (map != MAP_FAILED)
        munmap(map, length);
}

const char* dmaBufSourceName(DmaBufSource source) { return kSourceNames[int(source)]; }

MappedDmaBuf allocateFrom(DmaBufSource source, size_t bytes, std::string* device)
{
    std::string ignored;
    if (!device)
        device = &ignored;
    device->clear();
    switch (source) {
    case DmaBufSource::DmaHeap: return mapShared(heapAlloc(bytes, device), bytes);
    case DmaBufSource::Udmabuf: return mapShared(udmabufAlloc(bytes, device), bytes);
    case DmaBufSource::Drm: return drmAlloc(bytes, device);
    case DmaBufSource::Memfd: return mapShared(memfdAlloc(bytes, false), bytes);
    }
    return MappedDmaBuf();
}

std::vector<DmaBufSource> sourceOrder(const char* forced, bool* ok)
{
    *ok = true;
    if (!forced || !*forced)
        return std::vector<DmaBufSource>(std::begin(kAllSources), std::end(kAllSources));
    for (DmaBufSource source : kAllSources) {
        if (std::strcmp(forced, dmaBufSourceName(source)) == 0)
            return {source};
    }
    *ok = false;
    return {};
}

DmaBufChooser::DmaBufChooser(Allocate allocate, Announce announce)
    : m_allocate(std::move(allocate)), m_announce(std::move(announce))
{
}

MappedDmaBuf DmaBufChooser::allocate(const std::vector<DmaBufSource>& order, size_t bytes,
                                     DmaBufSource* source)
{
    const int last = m_current.load();
    std::vector<DmaBufSource> tries = order;
    const auto it = std::find(tries.begin(), tries.end(), DmaBufSource(last));
    if (last >= 0 && it != tries.end())
        std::rotate(tries.begin(), it, it + 1);
    int error = ENOENT;
    for (DmaBufSource candidate : tries) {
        MappedDmaBuf buf = m_allocate(candidate, bytes);
        if (!buf.valid()) {
            error = errno;
            continue;
        }
        if (m_current.exchange(int(candidate)) != int(candidate))
            m_announce(candidate);
        if (source)
            *source = candidate;
        return buf;
    }
    errno = error;
    return MappedDmaBuf();
}

int DmaBufChooser::current() const { return m_current.load(); }

} // namespace Codec
