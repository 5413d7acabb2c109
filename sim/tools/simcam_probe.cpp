// simcam_probe: a small V4L2 client. Lists the /dev/video* nodes with their capabilities,
// formats, sizes and frame intervals, and optionally captures a few frames into memfd
// buffers imported as DMA-BUF. It knows nothing of the simulator: run it against a real
// camera, or with LD_PRELOAD=libsimcam.so and SIMCAM_MODEL set.
//
//   simcam_probe [--device PATH] [--capture N] [--format FOURCC] [--size WxH]

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <linux/videodev2.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <unistd.h>
#include <vector>

namespace {

std::string fourccText(uint32_t f)
{
    std::string s(4, ' ');
    for (int i = 0; i < 4; ++i)
        s[size_t(i)] = char((f >> (8 * i)) & 0xff);
    return s;
}

uint32_t fourccOf(const std::string& s)
{
    if (s.size() != 4)
        return 0;
    return v4l2_fourcc(s[0], s[1], s[2], s[3]);
}

int xioctl(int fd, unsigned long request, void* arg)
{
    int r;
    do
        r = ioctl(fd, request, arg);
    while (r < 0 && errno == EINTR);
    return r;
}

// Names under /dev starting with "video" (any case).
std::vector<std::string> videoNodes()
{
    std::vector<std::string> names;
    if (DIR* dir = opendir("/dev")) {
        while (dirent* e = readdir(dir))
            if (strncasecmp(e->d_name, "video", 5) == 0)
                names.emplace_back(e->d_name);
        closedir(dir);
    }
    std::sort(names.begin(), names.end());
    return names;
}

void listFormats(int fd)
{
    for (v4l2_fmtdesc fmt{0, V4L2_BUF_TYPE_VIDEO_CAPTURE, 0, {}, 0, 0, {}};
         xioctl(fd, VIDIOC_ENUM_FMT, &fmt) == 0; ++fmt.index) {
        std::printf("    format %s '%s'%s\n", fourccText(fmt.pixelformat).c_str(),
                    reinterpret_cast<const char*>(fmt.description),
                    (fmt.flags & V4L2_FMT_FLAG_COMPRESSED) ? " compressed" : "");
        v4l2_frmsizeenum size{};
        size.pixel_format = fmt.pixelformat;
        for (; xioctl(fd, VIDIOC_ENUM_FRAMESIZES, &size) == 0; ++size.index) {
            if (size.type != V4L2_FRMSIZE_TYPE_DISCRETE) {
                std::printf("      sizes %ux%u..%ux%u step %ux%u\n", size.stepwise.min_width,
                            size.stepwise.min_height, size.stepwise.max_width,
                            size.stepwise.max_height, size.stepwise.step_width,
                            size.stepwise.step_height);
                break;
            }
            std::printf("      size %ux%u:", size.discrete.width, size.discrete.height);
            v4l2_frmivalenum ival{};
            ival.pixel_format = fmt.pixelformat;
            ival.width = size.discrete.width;
            ival.height = size.discrete.height;
            for (; xioctl(fd, VIDIOC_ENUM_FRAMEINTERVALS, &ival) == 0; ++ival.index)
                std::printf(" %u/%u", ival.discrete.numerator, ival.discrete.denominator);
            std::printf("\n");
        }
    }
}

void list()
{
    for (const std::string& name : videoNodes()) {
        const std::string path = "/dev/" + name;
        int fd = open(path.c_str(), O_RDONLY);
        if (fd < 0) {
            std::printf("%s: open: %s\n", path.c_str(), std::strerror(errno));
            continue;
        }
        v4l2_capability cap{};
        if (xioctl(fd, VIDIOC_QUERYCAP, &cap) != 0) {
            std::printf("%s: VIDIOC_QUERYCAP: %s\n", path.c_str(), std::strerror(errno));
        } else {
            const bool capture = cap.capabilities & V4L2_CAP_VIDEO_CAPTURE;
            std::printf("%s: %s '%s' %s caps 0x%08x%s\n", path.c_str(),
                        reinterpret_cast<const char*>(cap.driver),
                        reinterpret_cast<const char*>(cap.card),
                        reinterpret_cast<const char*>(cap.bus_info), cap.capabilities,
                        capture ? " capture" : "");
            if (capture)
                listFormats(fd);
        }
        close(fd);
    }
}

struct Buffer {
    int fd = -1;
    size_t size = 0;
    uint8_t* data = nullptr;
};

int capture(const std::string& path, int frames, uint32_t fourcc, uint32_t width, uint32_t height)
{
    int fd = open(path.c_str(), O_RDWR | O_NONBLOCK);
    if (fd < 0) {
        std::fprintf(stderr, "%s: open: %s\n", path.c_str(), std::strerror(errno));
        return 1;
    }
    auto failed = [&](const char* what) {
        std::fprintf(stderr, "%s: %s: %s\n", path.c_str(), what, std::strerror(errno));
        close(fd);
        return 1;
    };
    v4l2_format fmt{};
    fmt.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    if (xioctl(fd, VIDIOC_G_FMT, &fmt) != 0)
        return failed("VIDIOC_G_FMT");
    if (fourcc)
        fmt.fmt.pix.pixelformat = fourcc;
    if (width && height) {
        fmt.fmt.pix.width = width;
        fmt.fmt.pix.height = height;
    }
    if (xioctl(fd, VIDIOC_S_FMT, &fmt) != 0)
        return failed("VIDIOC_S_FMT");
    std::printf("format %s %ux%u sizeimage %u\n", fourccText(fmt.fmt.pix.pixelformat).c_str(),
                fmt.fmt.pix.width, fmt.fmt.pix.height, fmt.fmt.pix.sizeimage);

    v4l2_requestbuffers req{};
    req.count = 4;
    req.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    req.memory = V4L2_MEMORY_DMABUF;
    if (xioctl(fd, VIDIOC_REQBUFS, &req) != 0)
        return failed("VIDIOC_REQBUFS");
    std::vector<Buffer> buffers(req.count);
    int status = 0;
    for (uint32_t i = 0; i < req.count && status == 0; ++i) {
        Buffer& b = buffers[i];
        b.size = fmt.fmt.pix.sizeimage;
        b.fd = memfd_create("simcam-probe", MFD_CLOEXEC);
        if (b.fd < 0 || ftruncate(b.fd, off_t(b.size)) != 0)
            return failed("memfd");
        void* p = mmap(nullptr, b.size, PROT_READ | PROT_WRITE, MAP_SHARED, b.fd, 0);
        if (p == MAP_FAILED)
            return failed("mmap");
        b.data = static_cast<uint8_t*>(p);
        v4l2_buffer vb{};
        vb.index = i;
        vb.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        vb.memory = V4L2_MEMORY_DMABUF;
        vb.m.fd = b.fd;
        vb.length = uint32_t(b.size);
        if (xioctl(fd, VIDIOC_QBUF, &vb) != 0)
            status = failed("VIDIOC_QBUF");
    }
    int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    if (status == 0 && xioctl(fd, VIDIOC_STREAMON, &type) != 0)
        status = failed("VIDIOC_STREAMON");
    for (int n = 0; n < frames && status == 0;) {
        fd_set readable;
        FD_ZERO(&readable);
        FD_SET(fd, &readable);
        timeval timeout{1, 0};
        int r = select(fd + 1, &readable, nullptr, nullptr, &timeout);
        if (r == 0) {
            std::fprintf(stderr, "%s: no frame within 1 s\n", path.c_str());
            status = 1;
            break;
        }
        if (r < 0 && errno == EINTR)
            continue;
        v4l2_buffer vb{};
        vb.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        vb.memory = V4L2_MEMORY_DMABUF;
        if (xioctl(fd, VIDIOC_DQBUF, &vb) != 0) {
            if (errno == EAGAIN)
                continue;
            status = failed("VIDIOC_DQBUF");
            break;
        }
        const uint8_t* d = buffers[vb.index].data;
        std::printf("frame %d: seq %u bytes %u head %02x %02x %02x %02x%s\n", n, vb.sequence,
                    vb.bytesused, d[0], d[1], d[2], d[3],
                    (vb.flags & V4L2_BUF_FLAG_KEYFRAME) ? " key" : "");
        ++n;
        if (xioctl(fd, VIDIOC_QBUF, &vb) != 0)
            status = failed("VIDIOC_QBUF");
    }
    if (fd >= 0) {
        xioctl(fd, VIDIOC_STREAMOFF, &type);
        close(fd);
    }
    for (Buffer& b : buffers) {
        if (b.data)
            munmap(b.data, b.size);
        if (b.fd >= 0)
            close(b.fd);
    }
    return status;
}

} // namespace

int main(int argc, char** argv)
{
    std::string device;
    int frames = 0;
    uint32_t fourcc = 0, width = 0, height = 0;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        auto value = [&]() -> std::string {
            if (i + 1 >= argc) {
                std::fprintf(stderr, "%s needs a value\n", arg.c_str());
                std::exit(2);
            }
            return argv[++i];
        };
        if (arg == "--device")
            device = value();
        else if (arg == "--capture")
            frames = std::atoi(value().c_str());
        else if (arg == "--format")
            fourcc = fourccOf(value());
        else if (arg == "--size") {
            if (std::sscanf(value().c_str(), "%ux%u", &width, &height) != 2) {
                std::fprintf(stderr, "--size wants WxH\n");
                return 2;
            }
        } else {
            std::fprintf(stderr,
                         "usage: simcam_probe [--device PATH] [--capture N] [--format FOURCC] "
                         "[--size WxH]\n");
            return 2;
        }
    }
    if (frames <= 0) {
        list();
        return 0;
    }
    if (device.empty()) {
        std::vector<std::string> nodes = videoNodes();
        device = nodes.empty() ? "/dev/video0" : "/dev/" + nodes.front();
    }
    return capture(device, frames, fourcc, width, height);
}
