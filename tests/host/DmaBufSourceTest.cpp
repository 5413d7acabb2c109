#include <gtest/gtest.h>

#include <dirent.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "Codec/MediaMem.h"
#include "DmaBufSources.h"

namespace {

using Codec::DmaBufSource;
using Codec::MappedDmaBuf;

int openDescriptors()
{
    int n = 0;
    DIR* dir = opendir("/proc/self/fd");
    while (dirent* entry = readdir(dir))
        n += entry->d_name[0] != '.';
    closedir(dir);
    return n - 1;  // the directory's own
}

std::string names(const std::vector<DmaBufSource>& sources)
{
    std::string out;
    for (DmaBufSource s : sources)
        out += std::string(out.empty() ? "" : " ") + Codec::dmaBufSourceName(s);
    return out;
}

struct OrderCase {
    const char* forced;
    bool known;
    const char* order;
};

TEST(DmaBufSource, OrderIsEverySourceBestFirstOrTheOneForced)
{
    const OrderCase cases[] = {
        {nullptr, true, "dma-heap udmabuf drm memfd"},
        {"", true, "dma-heap udmabuf drm memfd"},
        {"drm", true, "drm"},
        {"memfd", true, "memfd"},
        {"DRM", false, ""},
    };
    for (const OrderCase& c : cases) {
        bool known = !c.known;
        EXPECT_EQ(names(Codec::sourceOrder(c.forced, &known)), c.order) << (c.forced ? c.forced : "(unset)");
        EXPECT_EQ(known, c.known) << (c.forced ? c.forced : "(unset)");
    }
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
    const auto all = [] {
        bool ok;
        return Codec::sourceOrder(nullptr, &ok);
    }();
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

TEST(DmaBufSource, ChooserFallsBackWhenTheCurrentSourceRefusesAndSaysSo)
{
    FakeSources fake{{DmaBufSource::DmaHeap, DmaBufSource::Drm}, {}, {}};
    Codec::DmaBufChooser chooser = fake.chooser();
    bool ok;
    const auto all = Codec::sourceOrder(nullptr, &ok);
    ASSERT_TRUE(chooser.allocate(all, 4096, nullptr).valid());
    fake.working = {DmaBufSource::Drm};  // the heap runs dry
    fake.tried.clear();
    ASSERT_TRUE(chooser.allocate(all, 4096, nullptr).valid());
    EXPECT_EQ(names(fake.tried), "dma-heap udmabuf drm");
    EXPECT_EQ(names(fake.announced), "dma-heap drm");

    // A forced source is the only one tried, whatever served before.
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
    bool ok;
    for (DmaBufSource source : Codec::sourceOrder(nullptr, &ok)) {
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

TEST(DmaBufSource, AllocatorRefusedByEverySourceLeavesNoDescriptorAndAnEmptyBuffer)
{
    std::unique_ptr<Codec::MediaMem, void (*)(Codec::MediaMem*)> mem(
        Codec::MediaMem::create(Codec::MEDIA_BUFFER_TYPE_DMA), Codec::MediaMem::destroy);
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
