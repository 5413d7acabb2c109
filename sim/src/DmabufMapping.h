#pragma once
// A CPU mapping of a buffer a client handed over by descriptor (DMA-BUF heap, udmabuf or
// memfd: anything mmap-able). Held from QBUF until the buffers are freed, as a driver holds
// its attachment; the client may close its descriptor meanwhile.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <sys/types.h>

namespace simcam {

class DmabufMapping {
public:
    // Maps `fd` for `length` bytes (0: the whole buffer). Fails with EINVAL when the
    // descriptor cannot be mapped, the buffer is smaller than `length`, or the mapped length
    // is below `minLength`.
    static std::optional<DmabufMapping> import(int fd, uint32_t length, uint32_t minLength,
                                               int& error);
    // A memfd, which no real driver imports: it is not a DMA-BUF.
    static bool isMemfd(int fd);

    DmabufMapping(DmabufMapping&& other) noexcept;
    DmabufMapping& operator=(DmabufMapping&& other) noexcept;
    DmabufMapping(const DmabufMapping&) = delete;
    DmabufMapping& operator=(const DmabufMapping&) = delete;
    ~DmabufMapping();

    uint8_t* data() const { return static_cast<uint8_t*>(addr_); }
    size_t size() const { return size_; }

    // Whether `fd` refers to the buffer mapped here, for the same length.
    bool sameBuffer(int fd, uint32_t length) const;

    // Mappings currently held by the whole process.
    static int live();

private:
    DmabufMapping(void* addr, size_t size, dev_t dev, ino_t ino);
    void release();

    void* addr_ = nullptr;
    size_t size_ = 0;
    dev_t dev_ = 0;
    ino_t ino_ = 0;
};

} // namespace simcam
