#include <gtest/gtest.h>

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "Codec/MediaMem.h"
#include "DmaBufSources.h"

namespace {

using Codec::DmaBufSource;
using Codec::MappedDmaBuf;

int openDescriptors()
{
    return int(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), std::filesystem::directory_iterator()));
}

std::vector<DmaBufSource> allSources()
{
    bool ok;
    return Codec::sourceOrder(nullptr, &ok);
}

std::string names(const std::vector<DmaBufSource>& sources)
{
    std::string out;
    for (DmaBufSource s : sources)
        out += std::string(out.empty() ? "" : " ") + Codec::dmaBufSourceName(s);
    return out;
}

// A stand-in for the kernel: sources in `working` hand out memfd memory, the others
// refuse with ENODEV, and every attempt is recorded.
struct FakeSources {
    std::vector<DmaBufSource> working;
    std::vector<DmaBufSource> tried;
    std::vector<DmaBufSource> announced;

    Codec::DmaBufChooser chooser()
    {
        return Codec::DmaBufChooser(
            [this](DmaBufSource s, size_t bytes) {
                tried.push_back(s);
                for (DmaBufSource w : working) {
                    if (w == s)
                        return Codec::allocateFrom(DmaBufSource::Memfd, bytes);
                }
                errno = ENODEV;
                return MappedDmaBuf();
            },
            [this](DmaBufSource s) { announced.push_back(s); });
    }
};

struct ChooserCase {
    std::vector<DmaBufSource> working;
    const char* firstTries;   // attempts of the first allocation
    const char* secondTries;  // of the next: the source that served goes first
};

TEST(DmaBufSource, ChooserTakesTheFirstWorkingSourceAndStartsThereNextTime)
{
    const ChooserCase cases[] = {
        {{DmaBufSource::DmaHeap, DmaBufSource::Memfd}, "dma-heap", "dma-heap"},
        {{DmaBufSource::Udmabuf, DmaBufSource::Drm}, "dma-heap udmabuf", "udmabuf"},
        {{DmaBufSource::Drm, DmaBufSource::Memfd}, "dma-heap udmabuf drm", "drm"},
        {{DmaBufSource::Memfd}, "dma-heap udmabuf drm memfd", "memfd"},
    };
    const auto all = allSources();
    for (const ChooserCase& c : cases) {
        FakeSources fake{c.working, {}, {}};
        Codec::DmaBufChooser chooser = fake.chooser();
        DmaBufSource served = DmaBufSource::DmaHeap;
        MappedDmaBuf first = chooser.allocate(all, 8192, &served);
        ASSERT_TRUE(first.valid());
        EXPECT_EQ(names(fake.tried), c.firstTries);
        EXPECT_EQ(served, c.working.front());
        fake.tried.clear();
        MappedDmaBuf second = chooser.allocate(all, 8192, &served);
        ASSERT_TRUE(second.valid());
        EXPECT_EQ(names(fake.tried), c.secondTries);
        // Logged when chosen, not per buffer.
        EXPECT_EQ(names(fake.announced), Codec::dmaBufSourceName(c.working.front()));
        EXPECT_EQ(chooser.current(), int(c.working.front()));
    }
}

// When the source in use refuses, the chooser falls back and says so; a forced source is the
// only one tried, whatever served before.
TEST(DmaBufSource, ChooserFallsBackWhenTheCurrentSourceRefusesAndSaysSo)
{
    FakeSources fake{{DmaBufSource::DmaHeap, DmaBufSource::Drm}, {}, {}};
    Codec::DmaBufChooser chooser = fake.chooser();
    ASSERT_TRUE(chooser.allocate(allSources(), 4096, nullptr).valid());
    fake.working = {DmaBufSource::Drm};  // the heap runs dry
    fake.tried.clear();
    ASSERT_TRUE(chooser.allocate(allSources(), 4096, nullptr).valid());
    EXPECT_EQ(names(fake.tried), "dma-heap udmabuf drm");
    EXPECT_EQ(names(fake.announced), "dma-heap drm");
    fake.tried.clear();
    errno = 0;
    EXPECT_FALSE(chooser.allocate({DmaBufSource::Udmabuf}, 4096, nullptr).valid());
    EXPECT_EQ(names(fake.tried), "udmabuf");
    EXPECT_EQ(errno, ENODEV);
}

// Each real source either gives mapped memory shared through its descriptor or refuses;
// either way nothing stays open afterwards (this machine decides which).
TEST(DmaBufSource, RealSourcesServeOrRefuseWithoutLeavingDescriptors)
{
    for (DmaBufSource source : allSources()) {
        const int before = openDescriptors();
        {
            MappedDmaBuf buf = Codec::allocateFrom(source, 3 * 4096);
            if (buf.valid()) {
                static_cast<char*>(buf.map)[3 * 4096 - 1] = 0x5a;
                void* other = mmap(nullptr, 3 * 4096, PROT_READ, MAP_SHARED, buf.fd.get(), 0);
                ASSERT_NE(other, MAP_FAILED) << Codec::dmaBufSourceName(source);
                EXPECT_EQ(static_cast<char*>(other)[3 * 4096 - 1], 0x5a) << Codec::dmaBufSourceName(source);
                munmap(other, 3 * 4096);
            } else {
                EXPECT_NE(errno, 0) << Codec::dmaBufSourceName(source);
                EXPECT_EQ(buf.map, MAP_FAILED);
            }
        }
        EXPECT_EQ(openDescriptors(), before) << Codec::dmaBufSourceName(source);
    }
}

struct ScopedEnv {
    ScopedEnv(const char* name, const char* value) : m_name(name) { setenv(name, value, 1); }
    ~ScopedEnv() { unsetenv(m_name); }
    const char* m_name;
};

using MemPtr = std::unique_ptr<Codec::MediaMem, void (*)(Codec::MediaMem*)>;

MemPtr dmaAllocator() { return MemPtr(Codec::MediaMem::create(Codec::MEDIA_BUFFER_TYPE_DMA), Codec::MediaMem::destroy); }

// The memory is mapped whole; freeing what never got memory, or whose alloc failed, is
// harmless, and a freed buffer may be allocated again.
TEST(MediaMem, DmaMemoryIsMappedWithADescriptor)
{
    MemPtr mem = dmaAllocator();
    Codec::MediaFrame frame, never, failed;
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
    Codec::MediaMem::free(&never);
    Codec::MediaMem::free(&never);
    Codec::MediaMem::free(nullptr);
    EXPECT_EQ(mem->alloc(&failed, 0), -1);
    EXPECT_EQ(failed.fd, -1);
    Codec::MediaMem::free(&failed);
    ASSERT_EQ(mem->alloc(&frame, 4096), 0);
    Codec::MediaMem::free(&frame);
}

// What the real library does not survive stops the process with a message.
TEST(MediaMemDeathTest, RefusesWhatACodecLibraryCannotSurvive)
{
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    const struct {
        const char* what;
        std::function<void()> misuse;
        const char* message;
    } cases[] = {
        {"null allocator", [] { Codec::MediaMem::destroy(nullptr); }, "destroy of a null allocator"},
        {"allocator destroyed twice",
         [] {
             Codec::MediaMem* mem = Codec::MediaMem::create(Codec::MEDIA_BUFFER_TYPE_DMA);
             Codec::MediaMem::destroy(mem);
             Codec::MediaMem::destroy(mem);
         },
         "destroyed twice"},
        {"buffer freed twice",
         [] {
             MemPtr mem = dmaAllocator();
             Codec::MediaFrame frame;
             mem->alloc(&frame, 4096);
             Codec::MediaMem::free(&frame);
             Codec::MediaMem::free(&frame);
         },
         "freed twice"},
        {"buffer freed after its allocator",
         [] {
             Codec::MediaFrame frame;
             dmaAllocator()->alloc(&frame, 4096);
             Codec::MediaMem::free(&frame);
         },
         "freed after its allocator"},
    };
    for (const auto& c : cases)
        EXPECT_DEATH(c.misuse(), c.message) << c.what;
}

TEST(DmaBufSource, AllocatorRefusedByEverySourceLeavesNoDescriptorAndAnEmptyBuffer)
{
    MemPtr mem = dmaAllocator();
    const char* refused[] = {"no-such-source", "drm"};
    for (const char* name : refused) {
        if (std::string(name) == "drm" && access("/dev/dri", F_OK) == 0)
            continue;  // a machine with a DRM device serves it
        ScopedEnv env("MEDIAMEM_SOURCE", name);
        const int before = openDescriptors();
        Codec::MediaFrame frame;
        EXPECT_EQ(mem->alloc(&frame, 640 * 480 * 2), -1) << name;
        EXPECT_EQ(frame.fd, -1) << name;
        EXPECT_EQ(frame.data, nullptr) << name;
        EXPECT_EQ(openDescriptors(), before) << name;
    }
    ScopedEnv env("MEDIAMEM_SOURCE", "memfd");
    Codec::MediaFrame frame;
    ASSERT_EQ(mem->alloc(&frame, 4096), 0);
    EXPECT_STREQ(Codec::MediaMem::dmaSourceName(), "memfd");
    Codec::MediaMem::free(&frame);
}

} // namespace
