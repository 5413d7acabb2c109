#pragma once
// A minimal V4L2 client for the simulator's tests: raw open/ioctl/select/mmap, as the
// element does them, with RAII for descriptors and buffers.

#include <cstdint>
#include <fcntl.h>
#include <linux/videodev2.h>
#include <string>
#include <vector>

namespace simtest {

class Fd {
public:
    Fd() = default;
    explicit Fd(int fd) : fd_(fd) {}
    Fd(Fd&& o) noexcept : fd_(o.release()) {}
    Fd& operator=(Fd&& o) noexcept;
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    ~Fd() { reset(); }

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    int release();
    void reset();

private:
    int fd_ = -1;
};

// open(path, flags); invalid Fd and errno set on failure.
Fd openNode(const std::string& path, int flags = O_RDWR | O_NONBLOCK);

// ioctl; 0 or the errno it failed with.
int xioctl(int fd, unsigned long request, void* arg);

// A memfd of `size` bytes mapped for the CPU, standing in for a DMA-BUF allocation.
class DmaBuffer {
public:
    explicit DmaBuffer(size_t size);
    DmaBuffer(DmaBuffer&& o) noexcept;
    DmaBuffer& operator=(DmaBuffer&&) = delete;
    DmaBuffer(const DmaBuffer&) = delete;
    ~DmaBuffer();

    int fd() const { return fd_.get(); }
    size_t size() const { return size_; }
    const uint8_t* data() const { return data_; }

private:
    Fd fd_;
    size_t size_ = 0;
    uint8_t* data_ = nullptr;
};

// select() for readability; true when readable within the timeout.
bool waitReadable(int fd, int timeoutMs);

v4l2_format setFormat(int fd, uint32_t fourcc, uint32_t width, uint32_t height, int* error = nullptr);

// Element-style buffer size: 3 * align16(w) * align16(h).
size_t elementBufferSize(uint32_t width, uint32_t height);

// A capture session as the element runs one: S_FMT, REQBUFS DMABUF, QBUF every buffer,
// STREAMON. Check `error` (and `failedAt`) after construction.
class Stream {
public:
    Stream(const std::string& path, uint32_t fourcc, uint32_t width, uint32_t height,
           uint32_t count = 4);
    ~Stream();

    int error = 0;
    std::string failedAt;
    Fd fd;
    v4l2_format format{};
    std::vector<DmaBuffer> buffers;

    // Waits (select) and dequeues one buffer; 0 or errno (ETIMEDOUT when nothing came).
    int dequeue(v4l2_buffer& out, int timeoutMs = 2000);
    int requeue(v4l2_buffer& buffer);
    const uint8_t* data(const v4l2_buffer& b) const { return buffers[b.index].data(); }

private:
    int step(const char* what, int result);
};

} // namespace simtest
