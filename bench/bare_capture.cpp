// The least a V4L2 capture can do: DMA-BUF buffers from the codec library's allocator,
// select, VIDIOC_DQBUF, write the payload to a sink, VIDIOC_QBUF. The VM benchmark runs
// it beside camcap on the same camera, so camcap's CPU per frame has a floor to be
// measured against.
//
//   bare_capture --device /dev/videoN --format h264|mjpeg|yuyv|nv12 --size WxH
//                --frames N [--output FILE]
//
// Prints one line: "bare_capture: FMT WxH N frames, U us user + S us system per frame".
#include "Codec/MediaMem.h"
#include "UniqueFd.h"

#include <fcntl.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

// As many buffers as the element queues.
constexpr unsigned kBuffers = 4;

struct Options {
    std::string device = "/dev/video0", format = "h264", output = "/dev/null";
    unsigned width = 640, height = 480;
    long frames = 100;
};

int xioctl(int fd, unsigned long request, void* arg)
{
    int r;
    do
        r = ioctl(fd, request, arg);
    while (r < 0 && errno == EINTR);
    return r;
}

int fail(const char* what)
{
    std::fprintf(stderr, "bare_capture: %s: %s\n", what, std::strerror(errno));
    return 1;
}

uint32_t fourccOf(const std::string& name)
{
    if (name == "h264")
        return V4L2_PIX_FMT_H264;
    if (name == "mjpeg")
        return V4L2_PIX_FMT_MJPEG;
    if (name == "yuyv")
        return V4L2_PIX_FMT_YUYV;
    if (name == "nv12")
        return V4L2_PIX_FMT_NV12;
    return 0;
}

bool parse(int argc, char** argv, Options& o)
{
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string key = argv[i], value = argv[i + 1];
        if (key == "--device")
            o.device = value;
        else if (key == "--format")
            o.format = value;
        else if (key == "--output")
            o.output = value;
        else if (key == "--frames")
            o.frames = std::atol(value.c_str());
        else if (key != "--size" || std::sscanf(value.c_str(), "%ux%u", &o.width, &o.height) != 2)
            return false;
    }
    return argc % 2 == 1 && fourccOf(o.format) && o.frames > 0;
}

long long micros(const timeval& t) { return static_cast<long long>(t.tv_sec) * 1000000 + t.tv_usec; }

struct MemDeleter {
    void operator()(Codec::MediaMem* m) const { Codec::MediaMem::destroy(m); }
};

// Frames are freed before their allocator.
struct Buffers {
    std::unique_ptr<Codec::MediaMem, MemDeleter> mem{Codec::MediaMem::create(Codec::MEDIA_BUFFER_TYPE_DMA)};
    std::vector<Codec::MediaFrame> frames = std::vector<Codec::MediaFrame>(kBuffers);
    ~Buffers()
    {
        for (auto& f : frames)
            Codec::MediaMem::free(&f);
    }
};

} // namespace

int main(int argc, char** argv)
{
    Options o;
    if (!parse(argc, argv, o)) {
        std::fprintf(stderr, "usage: bare_capture --device DEV --format h264|mjpeg|yuyv|nv12 "
                             "--size WxH --frames N [--output FILE]\n");
        return 2;
    }
    const UniqueFd cam(open(o.device.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    const UniqueFd sink(open(o.output.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (!cam || !sink)
        return fail(cam ? o.output.c_str() : o.device.c_str());

    v4l2_format fmt{};
    fmt.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    fmt.fmt.pix.width = o.width;
    fmt.fmt.pix.height = o.height;
    fmt.fmt.pix.pixelformat = fourccOf(o.format);
    fmt.fmt.pix.field = V4L2_FIELD_NONE;
    if (xioctl(cam.get(), VIDIOC_S_FMT, &fmt) < 0)
        return fail("VIDIOC_S_FMT");
    v4l2_requestbuffers req{};
    req.count = kBuffers;
    req.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    req.memory = V4L2_MEMORY_DMABUF;
    if (xioctl(cam.get(), VIDIOC_REQBUFS, &req) < 0 || req.count == 0)
        return fail("VIDIOC_REQBUFS");

    Buffers buffers;
    const unsigned count = std::min(req.count, kBuffers);
    for (unsigned i = 0; i < count; ++i) {
        if (!buffers.mem || buffers.mem->alloc(&buffers.frames[i], int(fmt.fmt.pix.sizeimage)) < 0)
            return fail("DMA-BUF allocation");
        v4l2_buffer b{};
        b.index = i;
        b.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        b.memory = V4L2_MEMORY_DMABUF;
        b.m.fd = buffers.frames[i].fd;
        b.length = fmt.fmt.pix.sizeimage;
        if (xioctl(cam.get(), VIDIOC_QBUF, &b) < 0)
            return fail("VIDIOC_QBUF");
    }
    int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    if (xioctl(cam.get(), VIDIOC_STREAMON, &type) < 0)
        return fail("VIDIOC_STREAMON");

    // CPU counts over the whole run, set-up included, as it does for camcap; over a few
    // hundred frames the set-up is noise.
    long got = 0;
    long long bytes = 0;
    while (got < o.frames) {
        fd_set set;
        FD_ZERO(&set);
        FD_SET(cam.get(), &set);
        timeval tv{1, 0};
        const int ready = select(cam.get() + 1, &set, nullptr, nullptr, &tv);
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready <= 0)
            return ready == 0 ? (std::fprintf(stderr, "bare_capture: no frame for 1 s\n"), 1)
                              : fail("select");
        v4l2_buffer b{};
        b.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        b.memory = V4L2_MEMORY_DMABUF;
        if (xioctl(cam.get(), VIDIOC_DQBUF, &b) < 0) {
            if (errno == EAGAIN)
                continue;
            return fail("VIDIOC_DQBUF");
        }
        if (b.index >= count || b.bytesused > buffers.frames[b.index].size) {
            std::fprintf(stderr, "bare_capture: driver answered buffer %u with %u bytes\n", b.index, b.bytesused);
            return 1;
        }
        if (!(b.flags & V4L2_BUF_FLAG_ERROR) && b.bytesused > 0) {
            const auto* data = static_cast<const char*>(buffers.frames[b.index].data);
            if (write(sink.get(), data, b.bytesused) != ssize_t(b.bytesused))
                return fail("write");
            ++got;
            bytes += b.bytesused;
        }
        if (xioctl(cam.get(), VIDIOC_QBUF, &b) < 0)
            return fail("VIDIOC_QBUF");
    }
    xioctl(cam.get(), VIDIOC_STREAMOFF, &type);

    rusage ru{};
    getrusage(RUSAGE_SELF, &ru);
    std::printf("bare_capture: %s %ux%u %ld frames, %lld bytes, %lld us user + %lld us system per frame\n",
                o.format.c_str(), o.width, o.height, got, bytes, micros(ru.ru_utime) / got,
                micros(ru.ru_stime) / got);
    return 0;
}
