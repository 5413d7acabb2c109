// mmap() of a simulated video descriptor maps one of its queue's MMAP buffers, as a
// driver's mmap handler would; munmap() tells the buffer. Everything else goes to the C
// library.
#undef _FILE_OFFSET_BITS

#include "ClientMappings.h"
#include "Handle.h"
#include "RealLibc.h"
#include "Registry.h"

#include <cerrno>
#include <sys/mman.h>

#define SIMCAM_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

using namespace simcam;

std::shared_ptr<Handle> simulated(int fd)
{
    Registry& registry = Registry::instance();
    return registry.hasHandles() ? registry.find(fd) : nullptr;
}

void* mapBuffer(const Handle& handle, void* addr, size_t length, int prot, int flags,
                uint64_t offset)
{
    int error = 0;
    std::shared_ptr<MmapBuffer> buffer = handle.mappable(offset, length, prot, flags, error);
    if (!buffer) {
        errno = error;
        return MAP_FAILED;
    }
    void* mapped = real::libc().mmap(addr, length, prot, flags, buffer->fd(), 0);
    if (mapped != MAP_FAILED)
        clientMappings::add(mapped, length, std::move(buffer));
    return mapped;
}

} // namespace

SIMCAM_EXPORT void* mmap(void* addr, size_t length, int prot, int flags, int fd, off_t offset) noexcept
{
    if (auto handle = simulated(fd))
        return mapBuffer(*handle, addr, length, prot, flags, uint64_t(offset));
    return real::libc().mmap(addr, length, prot, flags, fd, offset);
}

SIMCAM_EXPORT void* mmap64(void* addr, size_t length, int prot, int flags, int fd, off64_t offset) noexcept
{
    if (auto handle = simulated(fd))
        return mapBuffer(*handle, addr, length, prot, flags, uint64_t(offset));
    return real::libc().mmap64(addr, length, prot, flags, fd, offset);
}

SIMCAM_EXPORT int munmap(void* addr, size_t length) noexcept
{
    const int result = real::libc().munmap(addr, length);
    if (result == 0)
        clientMappings::remove(addr, length);
    return result;
}
