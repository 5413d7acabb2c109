#include "V4l2Client.h"

#include <cerrno>
#include <fcntl.h>
#include <stdexcept>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <unistd.h>

namespace simtest {

Fd& Fd::operator=(Fd&& o) noexcept
{
    if (this != &o) {
        reset();
        fd_ = o.release();
    }
    return *this;
}

int Fd::release()
{
    int fd = fd_;
    fd_ = -1;
    return fd;
}

void Fd::reset()
{
    if (fd_ >= 0)
        ::close(fd_);
    fd_ = -1;
}

Fd openNode(const std::string& path, int flags)
{
    return Fd(::open(path.c_str(), flags));
}

int xioctl(int fd, unsigned long request, void* arg)
{
    return ::ioctl(fd, request, arg) == 0 ? 0 : errno;
}

DmaBuffer::DmaBuffer(size_t size) : fd_(memfd_create("simcam-test", MFD_CLOEXEC)), size_(size)
{
    if (!fd_.valid() || ftruncate(fd_.get(), off_t(size)) != 0)
        throw std::runtime_error("memfd");
    void* p = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd_.get(), 0);
    if (p == MAP_FAILED)
        throw std::runtime_error("mmap");
    data_ = static_cast<uint8_t*>(p);
}

DmaBuffer::DmaBuffer(DmaBuffer&& o) noexcept
    : fd_(std::move(o.fd_)), size_(o.size_), data_(o.data_)
{
    o.data_ = nullptr;
}

DmaBuffer::~DmaBuffer()
{
    if (data_)
        munmap(data_, size_);
}

bool waitReadable(int fd, int timeoutMs)
{
    fd_set set;
    FD_ZERO(&set);
    FD_SET(fd, &set);
    timeval tv{timeoutMs / 1000, (timeoutMs % 1000) * 1000};
    return select(fd + 1, &set, nullptr, nullptr, &tv) > 0 && FD_ISSET(fd, &set);
}

v4l2_format setFormat(int fd, uint32_t fourcc, uint32_t width, uint32_t height, int* error)
{
    v4l2_format f{};
    f.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    f.fmt.pix.width = width;
    f.fmt.pix.height = height;
    f.fmt.pix.pixelformat = fourcc;
    int e = xioctl(fd, VIDIOC_S_FMT, &f);
    if (error)
        *error = e;
    return f;
}

size_t elementBufferSize(uint32_t width, uint32_t height)
{
    auto align16 = [](uint32_t v) { return size_t((v + 15) & ~15u); };
    return 3 * align16(width) * align16(height);
}

Stream::Stream(const std::string& path, uint32_t fourcc, uint32_t width, uint32_t height,
               uint32_t count)
    : fd(openNode(path))
{
    if (step("open", fd.valid() ? 0 : errno))
        return;
    int e = 0;
    format = setFormat(fd.get(), fourcc, width, height, &e);
    if (step("S_FMT", e))
        return;
    v4l2_requestbuffers req{};
    req.count = count;
    req.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    req.memory = V4L2_MEMORY_DMABUF;
    if (step("REQBUFS", xioctl(fd.get(), VIDIOC_REQBUFS, &req)))
        return;
    const size_t size = elementBufferSize(format.fmt.pix.width, format.fmt.pix.height);
    for (uint32_t i = 0; i < req.count; ++i) {
        buffers.emplace_back(size);
        v4l2_buffer b{};
        b.index = i;
        b.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        b.memory = V4L2_MEMORY_DMABUF;
        b.m.fd = buffers.back().fd();
        b.length = uint32_t(size);
        if (step("QBUF", xioctl(fd.get(), VIDIOC_QBUF, &b)))
            return;
    }
    int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    step("STREAMON", xioctl(fd.get(), VIDIOC_STREAMON, &type));
}

Stream::~Stream()
{
    if (fd.valid()) {
        int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        xioctl(fd.get(), VIDIOC_STREAMOFF, &type);
    }
}

int Stream::step(const char* what, int result)
{
    if (result && !error) {
        error = result;
        failedAt = what;
    }
    return result;
}

int Stream::dequeue(v4l2_buffer& out, int timeoutMs)
{
    if (!waitReadable(fd.get(), timeoutMs))
        return ETIMEDOUT;
    out = v4l2_buffer{};
    out.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    out.memory = V4L2_MEMORY_DMABUF;
    return xioctl(fd.get(), VIDIOC_DQBUF, &out);
}

int Stream::requeue(v4l2_buffer& buffer)
{
    return xioctl(fd.get(), VIDIOC_QBUF, &buffer);
}

} // namespace simtest
