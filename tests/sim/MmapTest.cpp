// Memory-mapped streaming as ordinary V4L2 clients use it, and the refusals a videobuf2
// queue gives when the two memory types are mixed or a mapping does not fit.
#include "SimTest.h"

#include <poll.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <functional>

using namespace simcam;
using namespace simtest;

namespace {

v4l2_requestbuffers request(uint32_t count, uint32_t memory)
{
    v4l2_requestbuffers r = requestBuffers(count);
    r.memory = memory;
    return r;
}

v4l2_buffer mmapBuffer(uint32_t index)
{
    v4l2_buffer b = captureBuffer(index);
    b.memory = V4L2_MEMORY_MMAP;
    return b;
}

v4l2_buffer query(int fd, uint32_t index)
{
    v4l2_buffer b = mmapBuffer(index);
    EXPECT_EQ(xioctl(fd, VIDIOC_QUERYBUF, &b), 0);
    return b;
}

// A client mapping of one driver buffer, unmapped when it goes.
struct Mapping {
    void* addr = MAP_FAILED;
    size_t length = 0;
    int error = 0;
    Mapping(int fd, size_t n, uint32_t offset, int flags = MAP_SHARED) : length(n)
    {
        addr = mmap(nullptr, n, PROT_READ, flags, fd, offset);
        error = addr == MAP_FAILED ? errno : 0;
    }
    ~Mapping()
    {
        if (addr != MAP_FAILED)
            munmap(addr, length);
    }
    const uint8_t* bytes() const { return static_cast<const uint8_t*>(addr); }
};

int streamOn(int fd)
{
    int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    return xioctl(fd, VIDIOC_STREAMON, &type);
}

// /dev/video0 with two MMAP buffers allocated (or DMA-BUF ones), nothing queued.
struct Queue {
    UniqueFd fd{::open("/dev/video0", O_RDWR | O_NONBLOCK)};
    uint32_t length = 0;
    explicit Queue(uint32_t memory = V4L2_MEMORY_MMAP)
    {
        v4l2_requestbuffers r = request(2, memory);
        EXPECT_EQ(xioctl(fd.get(), VIDIOC_REQBUFS, &r), 0);
        EXPECT_TRUE(r.capabilities & V4L2_BUF_CAP_SUPPORTS_MMAP);
        v4l2_format f{};
        f.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        EXPECT_EQ(xioctl(fd.get(), VIDIOC_G_FMT, &f), 0);
        length = f.fmt.pix.sizeimage;
    }
    int queueMmap(uint32_t index)
    {
        v4l2_buffer b = mmapBuffer(index);
        return xioctl(fd.get(), VIDIOC_QBUF, &b);
    }
};

struct RefusalCase {
    const char* name;
    uint32_t memory; // of the queue
    std::function<int(Queue&)> act;
    int expected;
};
std::ostream& operator<<(std::ostream& os, const RefusalCase& c) { return os << c.name; }

class MmapRefusal : public SimTest, public ::testing::WithParamInterface<RefusalCase> {};

TEST_P(MmapRefusal, FailsAsTheKernelDoes)
{
    ScopedModel model("h264,size=640x480,fps=200");
    Queue q(GetParam().memory);
    EXPECT_EQ(GetParam().act(q), GetParam().expected);
}

int mapError(Queue& q, size_t length, uint32_t offset, int flags = MAP_SHARED)
{
    return Mapping(q.fd.get(), length, offset, flags).error;
}

INSTANTIATE_TEST_SUITE_P(
    Mixing, MmapRefusal,
    ::testing::Values(
        RefusalCase{"DmabufQbufOnMmapQueue", V4L2_MEMORY_MMAP,
                    [](Queue& q) {
                        DmaBuffer memory(q.length);
                        v4l2_buffer b = captureBuffer(0, memory.fd.get());
                        return xioctl(q.fd.get(), VIDIOC_QBUF, &b);
                    },
                    EINVAL},
        RefusalCase{"MmapQbufOnDmabufQueue", V4L2_MEMORY_DMABUF,
                    [](Queue& q) { return q.queueMmap(0); }, EINVAL},
        RefusalCase{"MmapOfDmabufQueue", V4L2_MEMORY_DMABUF,
                    [](Queue& q) { return mapError(q, q.length, 0); }, EINVAL},
        RefusalCase{"ExpbufOfDmabufQueue", V4L2_MEMORY_DMABUF,
                    [](Queue& q) {
                        v4l2_exportbuffer e{};
                        e.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
                        return xioctl(q.fd.get(), VIDIOC_EXPBUF, &e);
                    },
                    EINVAL},
        RefusalCase{"UserptrMemory", V4L2_MEMORY_MMAP,
                    [](Queue& q) {
                        v4l2_requestbuffers r = request(2, V4L2_MEMORY_USERPTR);
                        return xioctl(q.fd.get(), VIDIOC_REQBUFS, &r);
                    },
                    EINVAL},
        RefusalCase{"MmapAtOffsetNoBufferHas", V4L2_MEMORY_MMAP,
                    [](Queue& q) { return mapError(q, 4096, query(q.fd.get(), 1).m.offset + 4096); },
                    EINVAL},
        RefusalCase{"MmapBeyondTheBuffer", V4L2_MEMORY_MMAP,
                    [](Queue& q) { return mapError(q, q.length + 2 * 4096, 0); }, EINVAL},
        RefusalCase{"MmapPrivate", V4L2_MEMORY_MMAP,
                    [](Queue& q) { return mapError(q, q.length, 0, MAP_PRIVATE); }, EINVAL},
        RefusalCase{"QbufTwice", V4L2_MEMORY_MMAP,
                    [](Queue& q) {
                        q.queueMmap(0);
                        return q.queueMmap(0);
                    },
                    EINVAL},
        RefusalCase{"ReqbufsWhileStreaming", V4L2_MEMORY_MMAP,
                    [](Queue& q) {
                        v4l2_requestbuffers r = request(2, V4L2_MEMORY_DMABUF);
                        q.queueMmap(0);
                        streamOn(q.fd.get());
                        return xioctl(q.fd.get(), VIDIOC_REQBUFS, &r);
                    },
                    EBUSY},
        RefusalCase{"ReqbufsFromAnotherDescriptor", V4L2_MEMORY_MMAP,
                    [](Queue&) {
                        UniqueFd other(::open("/dev/video0", O_RDWR));
                        v4l2_requestbuffers r = request(0, V4L2_MEMORY_MMAP);
                        return xioctl(other.get(), VIDIOC_REQBUFS, &r);
                    },
                    EBUSY},
        RefusalCase{"QbufFault", V4L2_MEMORY_MMAP,
                    [](Queue& q) {
                        modifyFaults([](Faults& f) { f.qbufErrno = EIO; });
                        return q.queueMmap(1);
                    },
                    EIO},
        RefusalCase{"ReqbufsFault", V4L2_MEMORY_MMAP,
                    [](Queue& q) {
                        modifyFaults([](Faults& f) { f.reqbufsErrno = ENOMEM; });
                        v4l2_requestbuffers r = request(4, V4L2_MEMORY_MMAP);
                        return xioctl(q.fd.get(), VIDIOC_REQBUFS, &r);
                    },
                    ENOMEM}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(SimTest, MmapStreamingFillsTheClientsMappings)
{
    ScopedModel model("h264,size=640x480,fps=200");
    Queue q;
    Mapping first(q.fd.get(), q.length, query(q.fd.get(), 0).m.offset);
    Mapping second(q.fd.get(), q.length, query(q.fd.get(), 1).m.offset);
    ASSERT_EQ(first.error, 0);
    ASSERT_EQ(second.error, 0);
    EXPECT_TRUE(query(q.fd.get(), 0).flags & V4L2_BUF_FLAG_MAPPED);
    const Mapping* maps[] = {&first, &second};

    ASSERT_EQ(q.queueMmap(0), 0);
    ASSERT_EQ(q.queueMmap(1), 0);
    ASSERT_EQ(streamOn(q.fd.get()), 0);
    for (int i = 0; i < 6; ++i) {
        ASSERT_TRUE(readable(q.fd.get(), 2000));
        v4l2_buffer b = mmapBuffer(0);
        ASSERT_EQ(xioctl(q.fd.get(), VIDIOC_DQBUF, &b), 0);
        EXPECT_EQ(b.memory, uint32_t(V4L2_MEMORY_MMAP));
        EXPECT_EQ(b.m.offset, query(q.fd.get(), b.index).m.offset);
        ASSERT_GT(b.bytesused, 4u);
        const uint8_t* p = maps[b.index]->bytes();
        EXPECT_EQ(std::vector<uint8_t>(p, p + 4), (std::vector<uint8_t>{0, 0, 0, 1})) << "an Annex B frame";
        ASSERT_EQ(xioctl(q.fd.get(), VIDIOC_QBUF, &b), 0);
    }
}

TEST_F(SimTest, FreedBuffersLiveOnWhileMappedAndExportsShareThem)
{
    ScopedModel model("h264,size=640x480");
    Queue q;
    v4l2_exportbuffer e{};
    e.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    e.index = 1;
    e.flags = O_CLOEXEC | O_RDWR;
    ASSERT_EQ(xioctl(q.fd.get(), VIDIOC_EXPBUF, &e), 0);
    UniqueFd exported(e.fd);
    {
        Mapping m(q.fd.get(), q.length, query(q.fd.get(), 0).m.offset);
        ASSERT_EQ(m.error, 0);
        v4l2_requestbuffers none = request(0, V4L2_MEMORY_MMAP);
        ASSERT_EQ(xioctl(q.fd.get(), VIDIOC_REQBUFS, &none), 0) << "orphaned, as videobuf2 allows";
        EXPECT_EQ(stats().mmapBuffers, 1) << "the mapped buffer stays";
        EXPECT_EQ(m.bytes()[0], m.bytes()[0]); // still readable
    }
    EXPECT_EQ(stats().mmapBuffers, 0) << "unmapping frees it";
    struct stat st {};
    ASSERT_EQ(fstat(exported.get(), &st), 0);
    EXPECT_GE(size_t(st.st_size), size_t(q.length)) << "the export is the whole buffer";
}

TEST_F(SimTest, NodesAndDescriptorsStatAsVideoCharacterDevices)
{
    ScopedModel model("h264,cameras=2");
    for (const char* path : {"/dev/video0", "/dev/video3"}) {
        struct stat byPath {};
        ASSERT_EQ(stat(path, &byPath), 0) << path;
        UniqueFd fd(::open(path, O_RDWR));
        struct stat byFd {};
        ASSERT_EQ(fstat(fd.get(), &byFd), 0);
        for (const struct stat& st : {byPath, byFd}) {
            EXPECT_TRUE(S_ISCHR(st.st_mode)) << path;
            EXPECT_EQ(major(st.st_rdev), 81u);
        }
        EXPECT_EQ(byPath.st_rdev, byFd.st_rdev);
        const std::string sysfs = "/sys/dev/char/81:" + std::to_string(minor(byPath.st_rdev)) + "/uevent";
        UniqueFd uevent(::open(sysfs.c_str(), O_RDONLY));
        char text[128] = {};
        ASSERT_GT(read(uevent.get(), text, sizeof text - 1), 0) << sysfs;
        EXPECT_NE(std::string(text).find(std::string("DEVNAME=") + (path + 5)), std::string::npos) << text;
    }
}

TEST_F(SimTest, PollReportsWhatVideobuf2Would)
{
    ScopedModel model("h264,size=640x480,fps=200");
    Queue q;
    auto events = [&](short wanted) {
        pollfd p{q.fd.get(), wanted, 0};
        return poll(&p, 1, 1000) < 0 ? short(-1) : p.revents;
    };
    EXPECT_EQ(events(POLLIN | POLLOUT), POLLERR) << "not streaming";
    ASSERT_EQ(q.queueMmap(0), 0);
    ASSERT_EQ(streamOn(q.fd.get()), 0);
    EXPECT_EQ(events(POLLIN | POLLOUT | POLLPRI), POLLIN) << "only what was asked, and never POLLOUT";
    // A duplicate is the same device, and outlives the number it was made from.
    UniqueFd copy(dup(q.fd.get()));
    q.fd.reset();
    v4l2_buffer b = mmapBuffer(0);
    EXPECT_EQ(xioctl(copy.get(), VIDIOC_DQBUF, &b), 0);
    pollfd p{copy.get(), POLLOUT, 0};
    EXPECT_EQ(poll(&p, 1, 50), 0) << "a capture queue is never writable";
}

} // namespace
