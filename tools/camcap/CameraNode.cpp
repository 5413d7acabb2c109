#include "CameraNode.h"

#include "CheckProbes.h"

#include <fcntl.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <QDir>
#include <QFile>
#include <algorithm>
#include <vector>
#include <cerrno>
#include <cstring>


QStringList CameraNode::videoNodes()
{
    struct Entry {
        int key;
        QString path;
    };
    std::vector<Entry> entries;
    const QDir dev(QStringLiteral("/dev"));
    for (const QString& name : dev.entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot)) {
        if (name.startsWith(QLatin1String("video"), Qt::CaseInsensitive))
            entries.push_back({name.mid(5).toInt(), QStringLiteral("/dev/") + name});
    }
    std::stable_sort(entries.begin(), entries.end(), [](const Entry& a, const Entry& b) { return a.key < b.key; });
    QStringList paths;
    for (const Entry& e : entries)
        paths << e.path;
    return paths;
}

QString CameraNode::elementNode()
{
    const QStringList nodes = videoNodes();
    return nodes.isEmpty() ? QStringLiteral("/dev/video0") : nodes.first();
}

CameraNode::CameraNode(const QString& path)
    : m_path(path), m_fd(::open(QFile::encodeName(path).constData(), O_RDWR | O_NONBLOCK | O_CLOEXEC))
{
}

QStringList CameraNode::frameRates(uint32_t fourcc, int width, int height) const
{
    return check::frameRates(m_fd.get(), fourcc, uint32_t(width), uint32_t(height));
}

bool CameraNode::requestKeyFrame() const
{
    v4l2_control control;
    std::memset(&control, 0, sizeof control);
    control.id = V4L2_CID_MPEG_VIDEO_FORCE_KEY_FRAME;
    return m_fd && ioctl(m_fd.get(), VIDIOC_S_CTRL, &control) == 0;
}

bool CameraNode::gone() const
{
    if (m_fd) {
        v4l2_capability cap;
        std::memset(&cap, 0, sizeof cap);
        return ioctl(m_fd.get(), VIDIOC_QUERYCAP, &cap) < 0 && errno == ENODEV;
    }
    struct stat st;
    return ::stat(QFile::encodeName(m_path).constData(), &st) < 0 && errno == ENOENT;
}

bool CameraNode::canCapture() const
{
    v4l2_capability cap;
    std::memset(&cap, 0, sizeof cap);
    if (!m_fd || ioctl(m_fd.get(), VIDIOC_QUERYCAP, &cap) < 0)
        return false;
    const uint32_t caps = cap.capabilities & V4L2_CAP_DEVICE_CAPS ? cap.device_caps : cap.capabilities;
    return caps & V4L2_CAP_VIDEO_CAPTURE;
}

double CameraNode::frameRate() const
{
    v4l2_streamparm parm;
    std::memset(&parm, 0, sizeof parm);
    parm.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    if (!m_fd || ioctl(m_fd.get(), VIDIOC_G_PARM, &parm) < 0 || parm.parm.capture.timeperframe.numerator == 0)
        return 0;
    return double(parm.parm.capture.timeperframe.denominator) / parm.parm.capture.timeperframe.numerator;
}

bool CameraNode::currentSize(int* width, int* height) const
{
    v4l2_format format;
    std::memset(&format, 0, sizeof format);
    format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    if (!m_fd || ioctl(m_fd.get(), VIDIOC_G_FMT, &format) < 0 || format.fmt.pix.width == 0)
        return false;
    *width = int(format.fmt.pix.width);
    *height = int(format.fmt.pix.height);
    return true;
}

int CameraNode::setFormat(uint32_t fourcc, int width, int height) const
{
    v4l2_format format;
    std::memset(&format, 0, sizeof format);
    format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    format.fmt.pix.pixelformat = fourcc;
    format.fmt.pix.width = uint32_t(width);
    format.fmt.pix.height = uint32_t(height);
    if (!m_fd)
        return ENODEV;
    if (ioctl(m_fd.get(), VIDIOC_S_FMT, &format) < 0)
        return errno;
    return format.fmt.pix.pixelformat == fourcc ? 0 : EINVAL;
}
