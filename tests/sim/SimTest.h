#pragma once
// Fixture and a minimal V4L2 client for the simulator's tests: raw open/ioctl/select as the
// element does them, with memfds standing in for DMA-BUF allocations.

#include "simcam/SimCamera.h"
#include "UniqueFd.h"

#include <cerrno>
#include <deque>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/videodev2.h>
#include <stdexcept>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <unistd.h>
#include <utility>

namespace simtest {

// 0 or the errno the ioctl failed with.
inline int xioctl(int fd, unsigned long request, void* arg)
{
    return ::ioctl(fd, request, arg) == 0 ? 0 : errno;
}

inline bool readable(int fd, int timeoutMs)
{
    fd_set set;
    FD_ZERO(&set);
    FD_SET(fd, &set);
    timeval tv{timeoutMs / 1000, (timeoutMs % 1000) * 1000};
    return select(fd + 1, &set, nullptr, nullptr, &tv) > 0;
}

inline v4l2_buffer captureBuffer(uint32_t index = 0, int fd = -1, uint32_t length = 0)
{
    v4l2_buffer b{};
    b.index = index;
    b.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    b.memory = V4L2_MEMORY_DMABUF;
    b.m.fd = fd;
    b.length = length;
    return b;
}

inline v4l2_requestbuffers requestBuffers(uint32_t count)
{
    v4l2_requestbuffers r{};
    r.count = count;
    r.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    r.memory = V4L2_MEMORY_DMABUF;
    return r;
}

struct DmaBuffer {
    UniqueFd fd{memfd_create("simtest", MFD_CLOEXEC)};
    size_t size;
    uint8_t* data = nullptr;
    explicit DmaBuffer(size_t n) : size(n)
    {
        void* p = ftruncate(fd.get(), off_t(n)) == 0
                      ? mmap(nullptr, n, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0)
                      : MAP_FAILED;
        if (p == MAP_FAILED)
            throw std::runtime_error("memfd");
        data = static_cast<uint8_t*>(p);
    }
    ~DmaBuffer() { munmap(data, size); }
};

// /dev/video0 set up as the element does: S_FMT, REQBUFS DMABUF, QBUF every buffer,
// STREAMON. Check `error` and `failedAt` after construction. Opened non-blocking unless
// `blocking`.
struct Stream {
    UniqueFd fd;
    v4l2_format format{};
    std::deque<DmaBuffer> buffers;
    int error = 0;
    const char* failedAt = "";

    Stream(uint32_t fourcc, uint32_t width, uint32_t height, uint32_t count = 4, bool blocking = false)
        : fd(::open("/dev/video0", O_RDWR | (blocking ? 0 : O_NONBLOCK)))
    {
        if (failed("open", fd.get() < 0 ? errno : 0))
            return;
        format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        format.fmt.pix.width = width;
        format.fmt.pix.height = height;
        format.fmt.pix.pixelformat = fourcc;
        v4l2_requestbuffers req = requestBuffers(count);
        if (failed("S_FMT", xioctl(fd.get(), VIDIOC_S_FMT, &format)) ||
            failed("REQBUFS", xioctl(fd.get(), VIDIOC_REQBUFS, &req)))
            return;
        for (uint32_t i = 0; i < req.count; ++i) {
            buffers.emplace_back(format.fmt.pix.sizeimage);
            v4l2_buffer b = captureBuffer(i, buffers.back().fd.get(), uint32_t(buffers.back().size));
            if (failed("QBUF", xioctl(fd.get(), VIDIOC_QBUF, &b)))
                return;
        }
        failed("STREAMON", streamCtl(VIDIOC_STREAMON));
    }
    int streamCtl(unsigned long request)
    {
        int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        return xioctl(fd.get(), request, &type);
    }
    // select, then DQBUF; ETIMEDOUT when nothing became readable.
    int dequeue(v4l2_buffer& out, int timeoutMs = 2000)
    {
        out = captureBuffer();
        return readable(fd.get(), timeoutMs) ? xioctl(fd.get(), VIDIOC_DQBUF, &out) : ETIMEDOUT;
    }
    int requeue(v4l2_buffer& b) { return xioctl(fd.get(), VIDIOC_QBUF, &b); }
    const uint8_t* data(const v4l2_buffer& b) const { return buffers[b.index].data; }

private:
    bool failed(const char* what, int e)
    {
        if (e && !error) {
            error = e;
            failedAt = what;
        }
        return e != 0;
    }
};

// Every test must leave no descriptor, mapping, clock or replug thread behind.
class SimTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(simcam::interposing()) << "libsimcam must be linked first"; }
    void TearDown() override
    {
        simcam::clear();
        const simcam::Stats s = simcam::stats();
        EXPECT_EQ(s.openDescriptors, 0);
        EXPECT_EQ(s.mappings, 0);
        EXPECT_EQ(s.mmapBuffers, 0);
        EXPECT_EQ(s.clockThreads, 0);
        EXPECT_EQ(s.replugTimers, 0);
    }
};

} // namespace simtest
