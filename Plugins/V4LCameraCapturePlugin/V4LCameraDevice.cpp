// Camera device management: finding the capture node, opening it, listing and applying
// formats, and resetting the camera's USB device.

#include "V4LCameraCapturePlugin.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/usbdevice_fs.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <QByteArray>
#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QPair>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "CaptureFormats.h"
#include "ElementLog.h"
#include "FrameRanges.h"
#include "UniqueFd.h"

namespace {

std::vector<QString> find_file_under_dir(const char* dir)
{
    std::vector<QString> names;
    DIR* d = opendir(dir);
    if (!d) {
        std::printf("current dir isn't exit\n");
        ELEMENT_LOG(0, "%s:%d ERROR: opendir failed !\n\n");
        return names;
    }
    while (struct dirent64* entry = readdir64(d)) {
        if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0)
            continue;
        names.push_back(QString::fromUtf8(entry->d_name));
    }
    closedir(d);
    return names;
}

// Orders node names by the number after the "video" prefix; anything else reads as 0.
bool nodeNumberLess(QString a, QString b)
{
    static const int offset = QByteArray("video").size();
    return a.mid(offset).toInt(nullptr, 10) < b.mid(offset).toInt(nullptr, 10);
}

QString v4l2_node_name()
{
    std::vector<QString> names = find_file_under_dir("/dev");
    std::vector<QString> candidates;
    for (const QString& name : names) {
        if (name.startsWith(QLatin1String("video"), Qt::CaseInsensitive))
            candidates.push_back(name);
    }
    QString result;
    if (!candidates.empty()) {
        names = std::move(candidates);
        std::sort(names.begin(), names.end(), nodeNumberLess);
        result = QStringLiteral("/dev/") + names.front();
    }
    for (const QString& name : names)
        qDebug() << name;
    ELEMENT_LOG(2, "%s:%d INFO: video file: %s\n\n", result.toUtf8().constData());
    return result;
}

// A cleared record and a checked call: a failed query must not leave a stale capability word.
bool canCapture(int fd)
{
    v4l2_capability cap;
    std::memset(&cap, 0, sizeof cap);
    if (ioctl(fd, VIDIOC_QUERYCAP, &cap) < 0)
        return false;
    return (cap.capabilities & V4L2_CAP_VIDEO_CAPTURE) != 0;
}

QByteArray readFile(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QByteArray();
    QByteArray content = file.readAll();
    file.close();
    return content.trimmed();
}

void resetUsbCameraPri()
{
    QByteArray busnum;
    QByteArray devnum;
    const QFileInfoList entries =
        QDir(QStringLiteral("/sys/class/video4linux/"))
            .entryInfoList(QDir::AllEntries | QDir::NoDotAndDotDot, QDir::NoSort);
    for (const QFileInfo& entry : entries) {
        const QString path = entry.isSymLink() ? entry.symLinkTarget() : entry.absoluteFilePath();
        QDir dir(path);
        dir.cdUp();
        dir.cdUp();
        qDebug() << dir.path();
        if (dir.exists(QStringLiteral("busnum")) && dir.exists(QStringLiteral("devnum"))) {
            busnum = readFile(dir.filePath(QStringLiteral("busnum")));
            devnum = readFile(dir.filePath(QStringLiteral("devnum")));
            continue;
        }
        dir.cdUp();
        if (dir.exists(QStringLiteral("busnum")) && dir.exists(QStringLiteral("devnum"))) {
            busnum = readFile(dir.filePath(QStringLiteral("busnum")));
            devnum = readFile(dir.filePath(QStringLiteral("devnum")));
        }
    }
    const QString bus = (QStringLiteral("000000") + QString::fromUtf8(busnum)).right(3);
    const QString dev = (QStringLiteral("000000") + QString::fromUtf8(devnum)).right(3);
    const QByteArray usbPath = (QStringLiteral("/dev/bus/usb/") + bus + QLatin1Char('/') + dev).toUtf8();

    const UniqueFd usb(::open(usbPath.constData(), O_WRONLY));
    if (!usb) {
        const int err = errno;
        ELEMENT_LOG(0, "%s:%d ERROR: resetUsbCamera failed -3\n\n");
        ELEMENT_LOG_REASON(err);
        return;
    }
    const int result = ioctl(usb.get(), USBDEVFS_RESET, 0);
    ELEMENT_LOG(2, "%s:%d INFO: ************* resetUsbCamera  result = %d *************\n", result);
}

QByteArray fourccText(uint32_t fourcc)
{
    const char text[4] = {char(fourcc & 0xff), char((fourcc >> 8) & 0xff),
                          char((fourcc >> 16) & 0xff), char((fourcc >> 24) & 0xff)};
    return QByteArray(text, 4);
}

} // namespace

// ---- open ---------------------------------------------------------------------------

int V4LCameraCapturePlugin::v4l2_dev_open()
{
    // A descriptor still open from an earlier call would otherwise be lost.
    closeDevice();
    const QString path = v4l2_node_name();
    m_fd = ::open(path.isEmpty() ? "/dev/video0" : path.toUtf8().constData(), O_RDWR | O_NONBLOCK);
    if (m_fd < 0) {
        const int err = errno;
        ELEMENT_LOG(0, "%s:%d ERROR: open camera failed\n\n");
        ELEMENT_LOG_REASON(err);
        resetUsbCamera();
        return -1;
    }
    ELEMENT_LOG(2, "%s:%d INFO: open camera success\n\n");
    if (canCapture(m_fd))
        return 0;
    ELEMENT_LOG(0, "%s:%d ERROR: Error: No capture video device!\n\n");
    closeDevice();
    return -1;
}

int V4LCameraCapturePlugin::v4l2_dev_open(int* fd)
{
    if (fd == nullptr)
        return -1;
    *fd = -1;
    const QString path = v4l2_node_name();
    *fd = ::open(path.isEmpty() ? "/dev/video0" : path.toUtf8().constData(), O_RDONLY);
    if (*fd < 0) {
        const int err = errno;
        ELEMENT_LOG(0, "%s:%d ERROR: open camera failed  v4l2_dev_open(int)\n\n");
        ELEMENT_LOG_REASON(err);
        return -1;
    }
    if (canCapture(*fd))
        return 0;
    ELEMENT_LOG(0, "%s:%d ERROR: Error: No capture video device!\n\n");
    ::close(*fd);
    *fd = -1;
    return -1;
}

// ---- formats ------------------------------------------------------------------------

QList<MediaFormat> V4LCameraCapturePlugin::listCameraFormat(int fd)
{
    QList<MediaFormat> formats;
    v4l2_fmtdesc fmt;
    std::memset(&fmt, 0, sizeof fmt);
    fmt.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    for (; ioctl(fd, VIDIOC_ENUM_FMT, &fmt) == 0; ++fmt.index) {
        ELEMENT_LOG(4, "%s:%d DEBUG: FOURCC:%C%C%C%C(%s)\n", fmt.pixelformat & 0xff,
                    (fmt.pixelformat >> 8) & 0xff, (fmt.pixelformat >> 16) & 0xff,
                    (fmt.pixelformat >> 24) & 0xff, reinterpret_cast<const char*>(fmt.description));
        v4l2_frmsizeenum size;
        std::memset(&size, 0, sizeof size);
        size.pixel_format = fmt.pixelformat;
        size.type = V4L2_FRMSIZE_TYPE_DISCRETE;
        for (; ioctl(fd, VIDIOC_ENUM_FRAMESIZES, &size) == 0; ++size.index) {
            std::vector<RangeSize> sizes{{size.discrete.width, size.discrete.height}};
            if (size.type == V4L2_FRMSIZE_TYPE_STEPWISE || size.type == V4L2_FRMSIZE_TYPE_CONTINUOUS) {
                const v4l2_frmsize_stepwise& r = size.stepwise;
                sizes = pickableSizes({r.min_width, r.max_width, r.step_width, r.min_height, r.max_height,
                                       r.step_height});
            }
            for (const RangeSize& picked : sizes) {
                const int width = int(picked.width);
                const int height = int(picked.height);

                v4l2_frmivalenum interval;
                std::memset(&interval, 0, sizeof interval);
                interval.pixel_format = fmt.pixelformat;
                interval.width = uint32_t(width);
                interval.height = uint32_t(height);
                interval.type = V4L2_FRMIVAL_TYPE_DISCRETE;
                QList<QPair<int, int>> intervals;
                for (; ioctl(fd, VIDIOC_ENUM_FRAMEINTERVALS, &interval) == 0; ++interval.index)
                    intervals.append({int(interval.discrete.numerator), int(interval.discrete.denominator)});
                QByteArray text;
                for (const auto& pair : intervals)
                    text += "[" + QByteArray::number(pair.first) + "/" + QByteArray::number(pair.second) + "]";
                ELEMENT_LOG(4, "%s:%d DEBUG:     size:%dx%d %s\n", width, height, text.constData());

                if (const CaptureFormat* known = captureFormatOf(fmt.pixelformat)) {
                    MediaFormat entry;
                    entry.codecType = known->codecType;
                    entry.width = width;
                    entry.height = height;
                    formats.append(entry);
                }
            }
        }
    }
    return formats;
}

int V4LCameraCapturePlugin::v4l2_set_format()
{
    static int ecount = 0;
    if (m_height <= 0 || int(m_format) <= 0) {
        ELEMENT_LOG(0, "%s:%d ERROR: v4l2_set_format failed [m_height <= 0 || m_format <= 0]\n\n");
        return -1;
    }
    v4l2_format fmt;
    std::memset(&fmt, 0, sizeof fmt);
    fmt.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    fmt.fmt.pix.width = uint32_t(m_width);
    fmt.fmt.pix.height = uint32_t(m_height);
    fmt.fmt.pix.pixelformat = m_format;
    ELEMENT_LOG(2, "%s:%d INFO: set format width=%d   height=%d  pixeformat=%d,%s\n", m_width, m_height,
                int(m_format), fourccText(m_format).constData());
    int ret;
    do {
        ret = ioctl(m_fd, VIDIOC_S_FMT, &fmt);
    } while (ret == -1 && errno == EINTR);
    if (ret < 0) {
        ELEMENT_LOG(0, "%s:%d ERROR: set format failed ret %s\n", strerror(errno));
        if (++ecount > 4) {
            resetUsbCamera();
            ecount = 0;
        }
        return -1;
    }
    ecount = 0;
    ioctl(m_fd, VIDIOC_G_FMT, &fmt);
    ELEMENT_LOG(2, "%s:%d INFO: ********* get format width=%d   height=%d  pixeformat=%d,%s\n",
                int(fmt.fmt.pix.width), int(fmt.fmt.pix.height), int(fmt.fmt.pix.pixelformat),
                fourccText(fmt.fmt.pix.pixelformat).constData());
    ELEMENT_LOG(2, "%s:%d INFO: set format succed\n");

    v4l2_streamparm parm;
    std::memset(&parm, 0, sizeof parm);
    parm.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    if (ioctl(m_fd, VIDIOC_G_PARM, &parm) == 0) {
        m_frameRateDen = int(parm.parm.capture.timeperframe.numerator);
        m_frameRateNum = int(parm.parm.capture.timeperframe.denominator);
        ELEMENT_LOG(4, "%s:%d DEBUG: 8******************** current frametime:%d/%d\n",
                    int(parm.parm.capture.timeperframe.numerator),
                    int(parm.parm.capture.timeperframe.denominator));
    }
    return 0;
}

// ---- USB reset ----------------------------------------------------------------------

int V4LCameraCapturePlugin::resetUsbCamera()
{
    QMetaObject::invokeMethod(this, []() { resetUsbCameraPri(); }, Qt::QueuedConnection);
    return 0;
}
