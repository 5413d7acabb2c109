#pragma once
// The codec library's allocator. Memory of type MEDIA_BUFFER_TYPE_DMA is a DMA-BUF: from a
// DMA heap when the kernel has one, else from udmabuf (a memfd wrapped by the kernel), else
// a DRM dumb buffer exported with PRIME (stock kernels without either: vgem, a board's
// display), else a plain memfd (mappable, but only importable by drivers that take any fd).
// MEDIAMEM_SOURCE=dma-heap|udmabuf|drm|memfd in the environment allows that source only.

#include "Codec/MediaBuffer.h"

namespace Codec {

class MediaMem {
public:
    static MediaMem* create(MediaBufferType type);
    // Aborts on a null allocator or one destroyed before; buffers still attached must be
    // freed before it (freeing them afterwards aborts).
    static void destroy(MediaMem* mem);

    // Attaches `bytes` of memory to `buffer` (data, fd, size). 0 on success, -1 on failure
    // (the buffer is then left with fd -1 and data null).
    int alloc(MediaBuffer* buffer, int bytes);
    // Releases what alloc attached; accepts a buffer that never got memory, or whose alloc
    // failed. Freeing a buffer twice after an alloc aborts.
    static void free(MediaBuffer* buffer);

    MediaBufferType type() const { return m_type; }

    // Which DMA-BUF source this process uses ("dma-heap", "udmabuf", "drm" or "memfd").
    static const char* dmaSourceName();

private:
    explicit MediaMem(MediaBufferType type);
    ~MediaMem() = default;

    MediaBufferType m_type;
    uint64_t m_serial = 0;
};

} // namespace Codec
