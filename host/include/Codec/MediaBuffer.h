#pragma once
// Buffers of the codec library: memory an allocator attached (CPU address, DMA-BUF
// descriptor, size) plus, for pictures, their geometry.

#include <cstdint>

namespace Codec {

enum MediaBufferType {
    MEDIA_BUFFER_TYPE_HEAP = 0,
    MEDIA_BUFFER_TYPE_DMA = 3,  // DMA-BUF memory a V4L2 driver can import by descriptor
};

// Pixel formats of pictures given to the encoder.
enum MediaPixelFormat : uint64_t {
    PIXEL_FORMAT_NV12 = 0,
    PIXEL_FORMAT_YUYV = 1,
};

struct MemoryBlock;  // allocator-private record of the attached memory

class MediaBuffer {
public:
    MediaBuffer() = default;
    MediaBuffer(const MediaBuffer&) = delete;
    MediaBuffer& operator=(const MediaBuffer&) = delete;
    virtual ~MediaBuffer();

    void* data = nullptr;   // CPU address of the attached memory
    int32_t fd = -1;        // DMA-BUF descriptor of the attached memory
    uint32_t size = 0;      // bytes of attached memory
    uint32_t length = 0;    // payload bytes (encoded packets)
    MemoryBlock* block = nullptr;  // owned by the allocator; released by MediaMem::free

    // Allocator bookkeeping: a buffer is freed at most once after alloc was asked for it.
    enum class Memory : uint8_t { None, Attached, Failed, Freed };
    Memory memory = Memory::None;
};

class MediaFrame : public MediaBuffer {
public:
    ~MediaFrame() override;

    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t horStride = 0;  // bytes per row of the first plane
    uint32_t verStride = 0;  // rows per plane
    uint64_t format = 0;     // MediaPixelFormat
};

} // namespace Codec
