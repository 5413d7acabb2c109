#include "CheckProbes.h"

#include <fcntl.h>
#include <linux/usb/video.h>
#include <linux/uvcvideo.h>
#include <linux/videodev2.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <vector>

#include "CameraNode.h"
#include "Codecs.h"
#include "UniqueFd.h"

namespace check {

namespace {

int xioctl(int fd, unsigned long request, void* arg)
{
    int rc;
    do {
        rc = ioctl(fd, request, arg);
    } while (rc < 0 && errno == EINTR);
    return rc < 0 ? errno : 0;
}

QString text(const __u8* bytes, size_t size)
{
    return QString::fromUtf8(reinterpret_cast<const char*>(bytes), int(strnlen(reinterpret_cast<const char*>(bytes), size)));
}

QString readLine(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()).trimmed() : QString();
}

// The USB device a node belongs to: sysfs puts the node under the interface, whose parent
// is the device with bus and device numbers and the ids.
void findUsbDevice(NodeInfo* node)
{
    const QString name = QFileInfo(node->linkTo.isEmpty() ? node->path : node->linkTo).fileName();
    const QFileInfo link(QStringLiteral("/sys/class/video4linux/") + name);
    QDir dir(link.isSymLink() ? link.symLinkTarget() : link.absoluteFilePath());
    for (int up = 0; up < 3 && dir.cdUp(); ++up) {
        if (up < 1 || !dir.exists(QStringLiteral("busnum")) || !dir.exists(QStringLiteral("devnum")))
            continue;
        const int bus = readLine(dir.filePath(QStringLiteral("busnum"))).toInt();
        const int dev = readLine(dir.filePath(QStringLiteral("devnum"))).toInt();
        node->usbDevice = QString::asprintf("/dev/bus/usb/%03d/%03d", bus, dev);
        const QString vendor = readLine(dir.filePath(QStringLiteral("idVendor")));
        const QString product = readLine(dir.filePath(QStringLiteral("idProduct")));
        if (!vendor.isEmpty())
            node->usbId = vendor + QLatin1Char(':') + product;
        return;
    }
}

QString rate(const v4l2_fract& interval)
{
    if (interval.numerator == 0)
        return QStringLiteral("?");
    return QString::number(double(interval.denominator) / interval.numerator, 'g', 4);
}

QList<SizeInfo> sizesOf(int fd, uint32_t fourcc)
{
    QList<SizeInfo> sizes;
    v4l2_frmsizeenum e{};
    e.pixel_format = fourcc;
    for (; xioctl(fd, VIDIOC_ENUM_FRAMESIZES, &e) == 0; ++e.index) {
        SizeInfo size;
        if (e.type == V4L2_FRMSIZE_TYPE_DISCRETE) {
            size.width = int(e.discrete.width);
            size.height = int(e.discrete.height);
            size.text = QStringLiteral("%1x%2").arg(size.width).arg(size.height);
            size.rates = frameRates(fd, fourcc, e.discrete.width, e.discrete.height);
            sizes << size;
            continue;
        }
        const v4l2_frmsize_stepwise& s = e.stepwise;
        size.width = int(s.min_width);
        size.height = int(s.min_height);
        size.text = QStringLiteral("%1x%2-%3x%4").arg(s.min_width).arg(s.min_height).arg(s.max_width).arg(s.max_height);
        size.text += e.type == V4L2_FRMSIZE_TYPE_CONTINUOUS ? QStringLiteral(" (any size)")
                                                            : QStringLiteral(" step %1x%2").arg(s.step_width).arg(s.step_height);
        size.rates = frameRates(fd, fourcc, s.max_width, s.max_height);
        sizes << size;
        break;
    }
    return sizes;
}

bool waitReadable(int fd, int ms)
{
    pollfd p{fd, POLLIN, 0};
    return poll(&p, 1, ms) > 0 && (p.revents & (POLLIN | POLLERR));
}

} // namespace

QStringList frameRates(int fd, uint32_t fourcc, uint32_t width, uint32_t height)
{
    QStringList rates;
    v4l2_frmivalenum e{};
    e.pixel_format = fourcc;
    e.width = width;
    e.height = height;
    for (; fd >= 0 && xioctl(fd, VIDIOC_ENUM_FRAMEINTERVALS, &e) == 0; ++e.index) {
        if (e.type != V4L2_FRMIVAL_TYPE_DISCRETE) {
            // The longest interval is the lowest rate.
            rates << rate(e.stepwise.max) + QLatin1Char('-') + rate(e.stepwise.min);
            break;
        }
        rates << rate(e.discrete);
    }
    return rates;
}

QString NodeInfo::kinds() const
{
    QStringList list;
    if (capture)
        list << QStringLiteral("capture");
    if (m2m)
        list << QStringLiteral("memory-to-memory");
    if (output)
        list << QStringLiteral("output");
    if (metadata)
        list << QStringLiteral("metadata");
    return list.isEmpty() ? QStringLiteral("no video function") : list.join(QStringLiteral(", "));
}

QString fourccText(uint32_t fourcc)
{
    QString s;
    for (int i = 0; i < 4; ++i)
        s += QLatin1Char(char((fourcc >> (8 * i)) & 0x7f));
    // The top bit marks the big-endian twin of a format.
    return s.trimmed() + (fourcc & (1u << 31) ? QStringLiteral("-BE") : QString());
}

QList<NodeInfo> surveyNodes()
{
    QList<NodeInfo> nodes;
    for (const QString& path : CameraNode::videoNodes()) {
        NodeInfo node;
        node.path = path;
        const QFileInfo info(path);
        if (info.isSymLink())
            node.linkTo = info.symLinkTarget();
        findUsbDevice(&node);
        const UniqueFd fd(::open(QFile::encodeName(node.path).constData(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
        v4l2_capability cap{};
        if (!fd || (node.openErrno = xioctl(fd.get(), VIDIOC_QUERYCAP, &cap)) != 0) {
            if (!fd)
                node.openErrno = errno;
            nodes << node;
            continue;
        }
        node.driver = text(cap.driver, sizeof cap.driver);
        node.card = text(cap.card, sizeof cap.card);
        node.bus = text(cap.bus_info, sizeof cap.bus_info);
        const uint32_t caps = cap.capabilities & V4L2_CAP_DEVICE_CAPS ? cap.device_caps : cap.capabilities;
        node.m2m = caps & (V4L2_CAP_VIDEO_M2M | V4L2_CAP_VIDEO_M2M_MPLANE);
        node.capture = !node.m2m && (caps & V4L2_CAP_VIDEO_CAPTURE);
        node.output = !node.m2m && (caps & (V4L2_CAP_VIDEO_OUTPUT | V4L2_CAP_VIDEO_OUTPUT_MPLANE));
        node.metadata = caps & (V4L2_CAP_META_CAPTURE | V4L2_CAP_META_OUTPUT);
        nodes << node;
    }
    return nodes;
}

QList<FormatInfo> listFormats(const QString& node)
{
    QList<FormatInfo> formats;
    const UniqueFd fd(::open(QFile::encodeName(node).constData(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    v4l2_fmtdesc d{};
    d.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    for (; fd && xioctl(fd.get(), VIDIOC_ENUM_FMT, &d) == 0; ++d.index) {
        FormatInfo f;
        f.fourcc = d.pixelformat;
        f.description = text(d.description, sizeof d.description);
        const codecs::Codec* c = codecs::byFourcc(d.pixelformat);
        f.codec = c ? c->codec : -1;
        f.sizes = sizesOf(fd.get(), d.pixelformat);
        formats << f;
    }
    return formats;
}

ImportTry tryImport(const QString& node, uint32_t fourcc, int width, int height, Codec::DmaBufSource source,
                    int frames, int waitMs)
{
    ImportTry result;
    result.source = source;
    const auto fail = [&](const char* where, int error) {
        result.failedAt = QLatin1String(where);
        result.error = error;
        return result;
    };
    const UniqueFd fd(::open(QFile::encodeName(node).constData(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    if (!fd)
        return fail("open", errno);
    v4l2_format format{};
    format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    format.fmt.pix.pixelformat = fourcc;
    format.fmt.pix.width = uint32_t(width);
    format.fmt.pix.height = uint32_t(height);
    if (int error = xioctl(fd.get(), VIDIOC_S_FMT, &format))
        return fail("VIDIOC_S_FMT", error);
    const size_t page = size_t(sysconf(_SC_PAGESIZE));
    const size_t bytes = (std::max<size_t>(format.fmt.pix.sizeimage, 1) + page - 1) / page * page;

    v4l2_requestbuffers request{};
    request.count = 4;
    request.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    request.memory = V4L2_MEMORY_DMABUF;
    if (int error = xioctl(fd.get(), VIDIOC_REQBUFS, &request))
        return fail("VIDIOC_REQBUFS", error);
    // Buffers are handed back to the driver however this ends.
    struct Release {
        int fd;
        ~Release()
        {
            int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
            xioctl(fd, VIDIOC_STREAMOFF, &type);
            v4l2_requestbuffers none{};
            none.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
            none.memory = V4L2_MEMORY_DMABUF;
            xioctl(fd, VIDIOC_REQBUFS, &none);
        }
    } release{fd.get()};
    if (request.count == 0)
        return fail("VIDIOC_REQBUFS", ENOMEM);

    std::vector<Codec::MappedDmaBuf> buffers;
    for (uint32_t i = 0; i < request.count; ++i) {
        std::string device;
        buffers.push_back(Codec::allocateFrom(source, bytes, &device));
        result.device = QString::fromStdString(device);
        if (!buffers.back().valid())
            return fail("allocation", errno);
    }
    result.allocated = true;
    const auto queue = [&](uint32_t index) {
        v4l2_buffer b{};
        b.index = index;
        b.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        b.memory = V4L2_MEMORY_DMABUF;
        b.m.fd = buffers[index].fd.get();
        b.length = uint32_t(buffers[index].length);
        return xioctl(fd.get(), VIDIOC_QBUF, &b);
    };
    for (uint32_t i = 0; i < request.count; ++i) {
        if (int error = queue(i))
            return fail("VIDIOC_QBUF", error);
    }
    int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    if (int error = xioctl(fd.get(), VIDIOC_STREAMON, &type))
        return fail("VIDIOC_STREAMON", error);
    result.imported = true;

    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(waitMs);
    while (result.frames < frames) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0 || !waitReadable(fd.get(), int(left.count())))
            break;
        v4l2_buffer b{};
        b.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        b.memory = V4L2_MEMORY_DMABUF;
        const int error = xioctl(fd.get(), VIDIOC_DQBUF, &b);
        if (error == EAGAIN)
            continue;
        if (error || b.index >= request.count)
            return fail("VIDIOC_DQBUF", error ? error : EINVAL);
        if (!(b.flags & V4L2_BUF_FLAG_ERROR) && b.bytesused > 0)
            ++result.frames;
        if (int requeue = queue(b.index))
            return fail("VIDIOC_QBUF", requeue);
    }
    return result;
}

ControlsInfo probeControls(const NodeInfo& node)
{
    ControlsInfo info;
    info.bufferBytes = int(sizeof(v4l2_buffer));
    info.time64 = sizeof(v4l2_buffer{}.timestamp.tv_sec) == 8;
    info.usbDevice = node.usbDevice;
    const UniqueFd fd(::open(QFile::encodeName(node.path).constData(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    if (!fd) {
        info.extensionUnitErrno = info.layoutErrno = errno;
    } else {
        v4l2_queryctrl control{};
        control.id = V4L2_CID_MPEG_VIDEO_FORCE_KEY_FRAME;
        info.keyFrameControl = xioctl(fd.get(), VIDIOC_QUERYCTRL, &control) == 0;
        uint8_t value = 0;
        uvc_xu_control_query query{};
        query.unit = 9;
        query.selector = 1;
        query.query = UVC_GET_INFO;
        query.size = 1;
        query.data = &value;
        info.extensionUnitErrno = xioctl(fd.get(), UVCIOC_CTRL_QUERY, &query);
        // Without buffers a driver that knows the request's layout answers EINVAL (no such
        // buffer); one that does not know it, ENOTTY.
        v4l2_buffer b{};
        b.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        b.index = 1000;
        b.memory = V4L2_MEMORY_DMABUF;
        const int error = xioctl(fd.get(), VIDIOC_QUERYBUF, &b);
        info.layoutErrno = error == ENOTTY ? ENOTTY : 0;
    }
    if (node.usbDevice.isEmpty()) {
        info.resetErrno = ENODEV;
    } else {
        // The reset opens the node for writing; opening it is all this asks (no reset).
        const UniqueFd usb(::open(QFile::encodeName(node.usbDevice).constData(), O_WRONLY | O_CLOEXEC));
        info.resetErrno = usb ? 0 : errno;
    }
    return info;
}

} // namespace check
