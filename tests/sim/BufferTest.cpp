// DMA-BUF import: the checks QBUF makes on what it is handed, and how long the imported
// mappings and buffers stay with the driver.
#include "SimTest.h"

#include <sys/eventfd.h>

#include <tuple>

using namespace simcam;
using namespace simtest;

namespace {

enum class Memory { Memfd, NegativeFd, ClosedFd, EventFd };
constexpr int64_t kWhole = INT64_MIN; // length 0: the whole buffer

struct ImportCase {
    const char* name;
    Memory memory;
    double sizeOfImage; // memfd size relative to the image size
    int64_t lengthDelta; // length passed relative to the image size, or kWhole
    uint32_t index;
    int expected;
};
// Rows show by name in test listings, not as the bytes of the struct.
std::ostream& operator<<(std::ostream& os, const ImportCase& c) { return os << c.name; }

class QueueBuffer : public SimTest, public ::testing::WithParamInterface<ImportCase> {};

TEST_P(QueueBuffer, ChecksTheImportedBuffer)
{
    ScopedModel model("nv12");
    const ImportCase& c = GetParam();
    Stream s(kFourccNV12, 640, 480, 0); // the format only
    ASSERT_STREQ(s.failedAt, "STREAMON") << "no buffers, no streaming";
    v4l2_requestbuffers r = requestBuffers(4);
    ASSERT_EQ(xioctl(s.fd.get(), VIDIOC_REQBUFS, &r), 0);

    const size_t image = s.format.fmt.pix.sizeimage;
    UniqueFd memory(c.memory == Memory::EventFd      ? eventfd(0, EFD_CLOEXEC)
              : c.memory == Memory::NegativeFd ? -1
                                               : memfd_create("import", MFD_CLOEXEC));
    if (c.memory == Memory::Memfd || c.memory == Memory::ClosedFd) {
        ASSERT_EQ(ftruncate(memory.get(), off_t(double(image) * c.sizeOfImage)), 0);
    }
    const int fd = memory.get();
    if (c.memory == Memory::ClosedFd)
        memory.reset();

    v4l2_buffer b = captureBuffer(c.index, fd, c.lengthDelta == kWhole ? 0 : uint32_t(int64_t(image) + c.lengthDelta));
    EXPECT_EQ(xioctl(s.fd.get(), VIDIOC_QBUF, &b), c.expected);
    EXPECT_EQ(stats().mappings, c.expected == 0 ? 1 : 0);
    if (c.expected == 0) {
        EXPECT_TRUE(b.flags & V4L2_BUF_FLAG_QUEUED);
        EXPECT_EQ(xioctl(s.fd.get(), VIDIOC_QBUF, &b), EINVAL) << "queued twice";
    }
}

INSTANTIATE_TEST_SUITE_P(
    Imports, QueueBuffer,
    ::testing::Values(ImportCase{"Fits", Memory::Memfd, 1, 0, 0, 0},
                      ImportCase{"ZeroLengthMeansWholeBuffer", Memory::Memfd, 1, kWhole, 0, 0},
                      ImportCase{"LargerThanImage", Memory::Memfd, 2, 100, 0, 0},
                      ImportCase{"ShortLength", Memory::Memfd, 1, -1, 0, EINVAL},
                      ImportCase{"LengthBeyondBuffer", Memory::Memfd, 1, 4096, 0, EINVAL},
                      ImportCase{"SmallBuffer", Memory::Memfd, 0.5, kWhole, 0, EINVAL},
                      ImportCase{"NegativeFd", Memory::NegativeFd, 1, 0, 0, EINVAL},
                      ImportCase{"ClosedFd", Memory::ClosedFd, 1, 0, 0, EINVAL},
                      ImportCase{"NotMappable", Memory::EventFd, 1, 0, 0, EINVAL},
                      ImportCase{"IndexOutOfRange", Memory::Memfd, 1, 0, 4, EINVAL}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(SimTest, StreamOffReturnsEveryBufferAndKeepsTheImports)
{
    ScopedModel model("mjpeg,size=320x240,fps=200");
    Stream s(kFourccMJPG, 320, 240);
    ASSERT_EQ(s.error, 0) << s.failedAt;
    v4l2_buffer b{};
    for (int i = 0; i < 8; ++i) {
        ASSERT_EQ(s.dequeue(b), 0);
        ASSERT_EQ(s.requeue(b), 0);
    }
    EXPECT_EQ(stats().mappings, 4) << "requeueing a descriptor reuses its mapping";
    ASSERT_EQ(s.dequeue(b), 0);
    EXPECT_EQ(stats().buffersQueued, 3);

    ASSERT_EQ(s.streamCtl(VIDIOC_STREAMOFF), 0);
    const Stats st = stats();
    EXPECT_EQ(std::tuple(st.buffersQueued, st.buffersDequeued, st.streaming(), st.clockThreads, st.mappings),
              std::tuple(0, 4, false, 0, 4));

    v4l2_requestbuffers none = requestBuffers(0);
    ASSERT_EQ(xioctl(s.fd.get(), VIDIOC_REQBUFS, &none), 0);
    EXPECT_EQ(stats().mappings, 0);

    Stream again(kFourccMJPG, 320, 240);
    ASSERT_EQ(again.error, 0) << again.failedAt;
    again.fd.reset(); // a close without any cleanup ioctl frees everything too
    EXPECT_EQ(stats().mappings, 0);
    EXPECT_EQ(stats().clockThreads, 0);
}

} // namespace
