#include "MmapBuffer.h"

#include "RealLibc.h"

#include <cerrno>
#include <sys/mman.h>
#include <unistd.h>

namespace simcam {

namespace {

std::atomic<int> g_live{0};

} // namespace

size_t pageAligned(size_t size)
{
    static const size_t page = size_t(sysconf(_SC_PAGESIZE));
    return (size + page - 1) / page * page;
}

std::shared_ptr<MmapBuffer> MmapBuffer::allocate(size_t size, int& error)
{
    error = ENOMEM;
    size = pageAligned(size);
    const int fd = memfd_create("simcam-buffer", MFD_CLOEXEC);
    if (fd < 0)
        return nullptr;
    void* addr = MAP_FAILED;
    if (ftruncate(fd, off_t(size)) == 0)
        addr = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (addr == MAP_FAILED) {
        real::closeFd(fd);
        return nullptr;
    }
    error = 0;
    return std::shared_ptr<MmapBuffer>(new MmapBuffer(fd, addr, size));
}

MmapBuffer::MmapBuffer(int fd, void* addr, size_t size) : fd_(fd), addr_(addr), size_(size)
{
    g_live.fetch_add(1);
}

MmapBuffer::~MmapBuffer()
{
    munmap(addr_, size_);
    real::closeFd(fd_);
    g_live.fetch_sub(1);
}

int MmapBuffer::live()
{
    return g_live.load();
}

} // namespace simcam
