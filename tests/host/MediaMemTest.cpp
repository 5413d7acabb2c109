#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "Codec/MediaMem.h"

namespace {

struct MemDeleter {
    void operator()(Codec::MediaMem* m) const { Codec::MediaMem::destroy(m); }
};
using MemPtr = std::unique_ptr<Codec::MediaMem, MemDeleter>;

TEST(MediaMem, DmaMemoryIsMappedWithADescriptorAndFreed)
{
    MemPtr mem(Codec::MediaMem::create(Codec::MEDIA_BUFFER_TYPE_DMA));
    Codec::MediaFrame frame;
    const int bytes = 3 * 640 * 480;
    ASSERT_EQ(mem->alloc(&frame, bytes), 0);
    EXPECT_GE(frame.fd, 0);
    EXPECT_EQ(frame.size, uint32_t(bytes));
    ASSERT_NE(frame.data, nullptr);
    std::memset(frame.data, 0x5a, size_t(bytes));  // all of it is mapped

    const std::string source = Codec::MediaMem::dmaSourceName();
    EXPECT_TRUE(source == "dma-heap" || source == "udmabuf" || source == "drm" || source == "memfd") << source;
    Codec::MediaMem::free(&frame);
    EXPECT_EQ(frame.fd, -1);
    EXPECT_EQ(frame.data, nullptr);
}

TEST(MediaMem, FreeAcceptsBuffersWithoutMemoryAndTwice)
{
    MemPtr mem(Codec::MediaMem::create(Codec::MEDIA_BUFFER_TYPE_DMA));
    Codec::MediaFrame never;
    Codec::MediaMem::free(&never);
    Codec::MediaMem::free(nullptr);

    Codec::MediaFrame failed;
    EXPECT_EQ(mem->alloc(&failed, 0), -1);
    EXPECT_EQ(failed.fd, -1);
    Codec::MediaMem::free(&failed);

    Codec::MediaFrame twice;
    ASSERT_EQ(mem->alloc(&twice, 4096), 0);
    Codec::MediaMem::free(&twice);
    Codec::MediaMem::free(&twice);
}

TEST(MediaMem, FramesOutliveTheirAllocator)
{
    Codec::MediaFrame frame;
    {
        MemPtr mem(Codec::MediaMem::create(Codec::MEDIA_BUFFER_TYPE_DMA));
        ASSERT_EQ(mem->alloc(&frame, 8192), 0);
    }
    static_cast<uint8_t*>(frame.data)[8191] = 1;
    Codec::MediaMem::free(&frame);
}

} // namespace
