#pragma once
// A buffer the simulated driver allocates itself (V4L2_MEMORY_MMAP): a memfd of the
// page-aligned size, mapped once for the frame clock to fill. Clients map the same memfd
// through mmap() on the video descriptor, so a buffer freed by REQBUFS stays valid for a
// client that still has it mapped, as videobuf2's orphaned buffers do.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

namespace simcam {

class MmapBuffer {
public:
    // Null with `error` set (ENOMEM) when the memory cannot be had.
    static std::shared_ptr<MmapBuffer> allocate(size_t size, int& error);

    ~MmapBuffer();
    MmapBuffer(const MmapBuffer&) = delete;
    MmapBuffer& operator=(const MmapBuffer&) = delete;

    uint8_t* data() const { return static_cast<uint8_t*>(addr_); }
    size_t size() const { return size_; }
    int fd() const { return fd_; }

    // Client mappings of this buffer, for V4L2_BUF_FLAG_MAPPED.
    void mapped() { clientMappings_.fetch_add(1); }
    void unmapped() { clientMappings_.fetch_sub(1); }
    bool isMapped() const { return clientMappings_.load() > 0; }

    // Buffers alive in the whole process (stats()).
    static int live();

private:
    MmapBuffer(int fd, void* addr, size_t size);

    const int fd_;
    void* const addr_;
    const size_t size_;
    std::atomic<int> clientMappings_{0};
};

// Rounds up to whole pages, as buffer lengths are for mmap().
size_t pageAligned(size_t size);

} // namespace simcam
