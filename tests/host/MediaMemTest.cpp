#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "Codec/MediaMem.h"

namespace {

struct MemDeleter {
    void operator()(Codec::MediaMem* m) const { Codec::MediaMem::destroy(m); }
};
using MemPtr = std::unique_ptr<Codec::MediaMem, MemDeleter>;

// The memory is mapped whole and stays valid after the allocator is gone, until the frame
// is freed; freeing twice is harmless.
TEST(MediaMem, DmaMemoryIsMappedWithADescriptorAndOutlivesTheAllocator)
{
    Codec::MediaFrame frame;
    const int bytes = 3 * 640 * 480;
    {
        MemPtr mem(Codec::MediaMem::create(Codec::MEDIA_BUFFER_TYPE_DMA));
        ASSERT_EQ(mem->alloc(&frame, bytes), 0);
    }
    EXPECT_GE(frame.fd, 0);
    EXPECT_EQ(frame.size, uint32_t(bytes));
    ASSERT_NE(frame.data, nullptr);
    std::memset(frame.data, 0x5a, size_t(bytes));  // all of it is mapped

    const std::string source = Codec::MediaMem::dmaSourceName();
    EXPECT_TRUE(source == "dma-heap" || source == "udmabuf" || source == "drm" || source == "memfd") << source;
    Codec::MediaMem::free(&frame);
    EXPECT_EQ(frame.fd, -1);
    EXPECT_EQ(frame.data, nullptr);
    Codec::MediaMem::free(&frame);
}

TEST(MediaMem, FreeAcceptsBuffersWithoutMemory)
{
    MemPtr mem(Codec::MediaMem::create(Codec::MEDIA_BUFFER_TYPE_DMA));
    Codec::MediaFrame never, failed;
    Codec::MediaMem::free(&never);
    Codec::MediaMem::free(nullptr);
    EXPECT_EQ(mem->alloc(&failed, 0), -1);
    EXPECT_EQ(failed.fd, -1);
    Codec::MediaMem::free(&failed);
}

} // namespace
