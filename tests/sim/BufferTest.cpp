// Buffer requests and DMA-BUF import: grants, QUERYBUF, the checks QBUF makes, and what the
// driver holds.
#include "SimTest.h"

#include <sys/eventfd.h>
#include <sys/mman.h>
#include <unistd.h>

using namespace simcam;
using namespace simtest;

namespace {

v4l2_requestbuffers request(uint32_t count, uint32_t memory = V4L2_MEMORY_DMABUF)
{
    v4l2_requestbuffers r{};
    r.count = count;
    r.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    r.memory = memory;
    return r;
}

struct GrantCase {
    int grant; // Faults::grantBuffers
    uint32_t asked;
    uint32_t granted;
};

class Grants : public SimTest, public ::testing::WithParamInterface<GrantCase> {};

TEST_P(Grants, RequestBuffersGrantsTheChosenCount)
{
    Model m = parseModel("h264");
    m.cameras[0].nodes[0].faults.grantBuffers = GetParam().grant;
    ScopedModel model(m);
    Fd fd = openNode("/dev/video0");
    v4l2_requestbuffers r = request(GetParam().asked);
    ASSERT_EQ(xioctl(fd.get(), VIDIOC_REQBUFS, &r), 0);
    EXPECT_EQ(r.count, GetParam().granted);
    EXPECT_TRUE(r.capabilities & V4L2_BUF_CAP_SUPPORTS_DMABUF);
    const Stats s = stats();
    EXPECT_EQ(s.buffersDequeued, int(GetParam().granted));
    EXPECT_EQ(s.buffersQueued, 0);
}

INSTANTIATE_TEST_SUITE_P(Counts, Grants,
                         ::testing::Values(GrantCase{-1, 4, 4}, GrantCase{2, 4, 2},
                                           GrantCase{8, 4, 8}, GrantCase{0, 4, 0},
                                           GrantCase{-1, 64, 32}, GrantCase{5, 0, 0}));

TEST_F(SimTest, OnlyDmabufMemoryIsSupported)
{
    ScopedModel model("h264");
    Fd fd = openNode("/dev/video0");
    for (uint32_t memory : {V4L2_MEMORY_MMAP, V4L2_MEMORY_USERPTR}) {
        v4l2_requestbuffers r = request(4, memory);
        EXPECT_EQ(xioctl(fd.get(), VIDIOC_REQBUFS, &r), EINVAL) << memory;
    }
}

TEST_F(SimTest, QueryBufferReportsImageSize)
{
    ScopedModel model("yuyv,querybuf=EIO@2");
    Fd fd = openNode("/dev/video0");
    setFormat(fd.get(), kFourccYUYV, 640, 480);
    v4l2_requestbuffers r = request(4);
    ASSERT_EQ(xioctl(fd.get(), VIDIOC_REQBUFS, &r), 0);
    std::vector<int> results;
    for (uint32_t i = 0; i < 5; ++i) {
        v4l2_buffer b = captureBuffer(i);
        results.push_back(xioctl(fd.get(), VIDIOC_QUERYBUF, &b));
        if (results.back() == 0) {
            EXPECT_EQ(b.length, 640u * 480 * 2);
        }
    }
    EXPECT_EQ(results, (std::vector<int>{0, 0, EIO, 0, EINVAL}));
}

// What QBUF is handed, and whether a driver would take it.
struct QbufCase {
    const char* name;
    int (*makeFd)(size_t imageSize, std::vector<simtest::Fd>& keep);
    int64_t lengthDelta; // length passed relative to the image size (-image: pass 0)
    uint32_t index;
    int expected;
};

int memfdOf(size_t size, std::vector<Fd>& keep)
{
    int fd = memfd_create("q", MFD_CLOEXEC);
    if (ftruncate(fd, off_t(size)) != 0)
        return -1;
    keep.emplace_back(fd);
    return fd;
}

const QbufCase kQbufCases[] = {
    {"GoodMemfd", [](size_t s, std::vector<Fd>& k) { return memfdOf(s, k); }, 0, 0, 0},
    {"ZeroLengthMeansWholeBuffer", [](size_t s, std::vector<Fd>& k) { return memfdOf(s, k); },
     INT64_MIN, 0, 0},
    {"LargerThanImage", [](size_t s, std::vector<Fd>& k) { return memfdOf(2 * s, k); },
     int64_t(100), 0, 0},
    {"ShortLength", [](size_t s, std::vector<Fd>& k) { return memfdOf(s, k); }, -1, 0, EINVAL},
    {"LengthBeyondBuffer", [](size_t s, std::vector<Fd>& k) { return memfdOf(s, k); }, 4096, 0,
     EINVAL},
    {"SmallBufferWholeLength", [](size_t s, std::vector<Fd>& k) { return memfdOf(s / 2, k); },
     INT64_MIN, 0, EINVAL},
    {"NegativeFd", [](size_t, std::vector<Fd>&) { return -1; }, 0, 0, EINVAL},
    {"ClosedFd", [](size_t s, std::vector<Fd>& k) {
         int fd = memfdOf(s, k);
         k.back().reset();
         return fd;
     }, 0, 0, EINVAL},
    {"NotMappable", [](size_t, std::vector<Fd>& k) {
         k.emplace_back(eventfd(0, EFD_CLOEXEC));
         return k.back().get();
     }, 0, 0, EINVAL},
    {"IndexOutOfRange", [](size_t s, std::vector<Fd>& k) { return memfdOf(s, k); }, 0, 4, EINVAL},
};

class QueueBuffer : public SimTest, public ::testing::WithParamInterface<QbufCase> {};

TEST_P(QueueBuffer, ChecksTheImportedBuffer)
{
    ScopedModel model("nv12");
    Fd fd = openNode("/dev/video0");
    const v4l2_format f = setFormat(fd.get(), kFourccNV12, 640, 480);
    const size_t image = f.fmt.pix.sizeimage;
    v4l2_requestbuffers r = request(4);
    ASSERT_EQ(xioctl(fd.get(), VIDIOC_REQBUFS, &r), 0);

    std::vector<Fd> keep;
    const QbufCase& c = GetParam();
    v4l2_buffer b = captureBuffer(c.index);
    b.m.fd = c.makeFd(image, keep);
    b.length = c.lengthDelta == INT64_MIN ? 0 : uint32_t(int64_t(image) + c.lengthDelta);
    EXPECT_EQ(xioctl(fd.get(), VIDIOC_QBUF, &b), c.expected);
    EXPECT_EQ(stats().mappings, c.expected == 0 ? 1 : 0);
    if (c.expected == 0) {
        EXPECT_TRUE(b.flags & V4L2_BUF_FLAG_QUEUED);
        EXPECT_EQ(xioctl(fd.get(), VIDIOC_QBUF, &b), EINVAL) << "queued twice";
    }
}

INSTANTIATE_TEST_SUITE_P(Imports, QueueBuffer, ::testing::ValuesIn(kQbufCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(SimTest, MappingsLiveUntilBuffersAreFreed)
{
    ScopedModel model("h264,size=320x240");
    {
        Stream s("/dev/video0", kFourccH264, 320, 240);
        ASSERT_EQ(s.error, 0) << s.failedAt;
        EXPECT_EQ(stats().mappings, 4);
        int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        ASSERT_EQ(xioctl(s.fd.get(), VIDIOC_STREAMOFF, &type), 0);
        EXPECT_EQ(stats().mappings, 4) << "STREAMOFF keeps the imported buffers";
        v4l2_requestbuffers r = request(0);
        ASSERT_EQ(xioctl(s.fd.get(), VIDIOC_REQBUFS, &r), 0);
        EXPECT_EQ(stats().mappings, 0);
    }
    {
        Stream s("/dev/video0", kFourccH264, 320, 240);
        ASSERT_EQ(s.error, 0) << s.failedAt;
        s.fd.reset(); // close without any cleanup ioctl
        EXPECT_EQ(stats().mappings, 0);
        EXPECT_EQ(stats().clockThreads, 0);
    }
}

TEST_F(SimTest, RequeueingTheSameDescriptorKeepsTheMapping)
{
    ScopedModel model("mjpeg,size=320x240,fps=200");
    Stream s("/dev/video0", kFourccMJPG, 320, 240);
    ASSERT_EQ(s.error, 0) << s.failedAt;
    for (int i = 0; i < 8; ++i) {
        v4l2_buffer b{};
        ASSERT_EQ(s.dequeue(b), 0);
        ASSERT_EQ(s.requeue(b), 0);
    }
    EXPECT_EQ(stats().mappings, 4);
}

} // namespace
