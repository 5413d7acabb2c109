#include "DmabufMapping.h"

#include "RealLibc.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace simcam {

namespace {

std::atomic<int> g_live{0};

// Size of the buffer behind fd: files and memfds report it in st_size, DMA-BUFs through
// seeking to the end.
bool bufferSize(int fd, struct stat& st, uint64_t& size)
{
    if (fstat(fd, &st) != 0)
        return false;
    size = uint64_t(st.st_size);
    if (size == 0) {
        off_t end = lseek(fd, 0, SEEK_END);
        if (end <= 0)
            return false;
        size = uint64_t(end);
    }
    return true;
}

} // namespace

bool DmabufMapping::isMemfd(int fd)
{
    char link[64];
    char target[64] = {};
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    return real::libc().readlink(link, target, sizeof target - 1) > 0 && std::strncmp(target, "/memfd:", 7) == 0;
}

std::optional<DmabufMapping> DmabufMapping::import(int fd, uint32_t length, uint32_t minLength,
                                                   int& error)
{
    error = EINVAL;
    struct stat st {};
    uint64_t size = 0;
    if (fd < 0 || !bufferSize(fd, st, size))
        return std::nullopt;
    const uint64_t mapped = length ? length : size;
    if (mapped < minLength || mapped > size)
        return std::nullopt;
    void* addr = mmap(nullptr, size_t(mapped), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (addr == MAP_FAILED)
        return std::nullopt;
    error = 0;
    return DmabufMapping(addr, size_t(mapped), st.st_dev, st.st_ino);
}

DmabufMapping::DmabufMapping(void* addr, size_t size, dev_t dev, ino_t ino)
    : addr_(addr), size_(size), dev_(dev), ino_(ino)
{
    g_live.fetch_add(1);
}

DmabufMapping::DmabufMapping(DmabufMapping&& other) noexcept
    : addr_(std::exchange(other.addr_, nullptr)), size_(std::exchange(other.size_, 0)),
      dev_(other.dev_), ino_(other.ino_)
{
}

DmabufMapping& DmabufMapping::operator=(DmabufMapping&& other) noexcept
{
    if (this != &other) {
        release();
        addr_ = std::exchange(other.addr_, nullptr);
        size_ = std::exchange(other.size_, 0);
        dev_ = other.dev_;
        ino_ = other.ino_;
    }
    return *this;
}

DmabufMapping::~DmabufMapping()
{
    release();
}

void DmabufMapping::release()
{
    if (addr_) {
        munmap(addr_, size_);
        addr_ = nullptr;
        g_live.fetch_sub(1);
    }
}

bool DmabufMapping::sameBuffer(int fd, uint32_t length) const
{
    struct stat st {};
    if (fstat(fd, &st) != 0)
        return false;
    return st.st_dev == dev_ && st.st_ino == ino_ && (length == 0 || length == size_);
}

int DmabufMapping::live()
{
    return g_live.load();
}

} // namespace simcam
