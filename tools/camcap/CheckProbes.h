#pragma once
// What camcap --check learns by asking the kernel itself, read-only towards the system: the
// video nodes and what they are, a node's formats, whether a driver imports capture memory
// from each DMA-BUF source, and the controls and USB access the element relies on.

#include <QList>
#include <QString>
#include <QStringList>
#include <cstdint>

#include "DmaBufSources.h"

namespace check {

struct NodeInfo {
    QString path;
    QString linkTo;      // the node a link such as /dev/video-1 points to
    int openErrno = 0;   // why it could not be opened
    QString driver, card, bus;
    bool capture = false, output = false, m2m = false, metadata = false;
    QString usbId;       // "vvvv:pppp" of a USB camera
    QString usbDevice;   // its usbfs node, /dev/bus/usb/BBB/DDD
    QString kinds() const;  // "capture", "output, metadata", ...
};

// Every /dev/video* in the element's order; it opens the first.
QList<NodeInfo> surveyNodes();

struct SizeInfo {
    int width = 0, height = 0;  // a discrete size, or the smallest of a range
    QString text;               // "1280x720", "160x120-1920x1080 step 16x8"
    QStringList rates;          // "30", "15", or "5-30"
};

struct FormatInfo {
    uint32_t fourcc = 0;
    QString description;
    int codec = -1;  // MediaCodecType, -1 for a format the element does not take
    QList<SizeInfo> sizes;
};

QList<FormatInfo> listFormats(const QString& node);
// The frame rates a node offers at a size, e.g. {"30", "15"} or {"5-30"} for a range.
QStringList frameRates(int fd, uint32_t fourcc, uint32_t width, uint32_t height);
QString fourccText(uint32_t fourcc);

// One DMA-BUF source tried on a node: allocated here, imported by the driver, streamed.
struct ImportTry {
    Codec::DmaBufSource source = Codec::DmaBufSource::Memfd;
    bool allocated = false;
    QString device;          // what served it ("/dev/dri/card0")
    int error = 0;           // the errno of the first failure
    QString failedAt;        // "allocation", "VIDIOC_S_FMT", "VIDIOC_REQBUFS", "VIDIOC_QBUF", ...
    bool imported = false;   // every buffer queued and the stream started
    int frames = 0;          // frames that came back within the wait
};

ImportTry tryImport(const QString& node, uint32_t fourcc, int width, int height, Codec::DmaBufSource source,
                    int frames, int waitMs);

struct ControlsInfo {
    bool keyFrameControl = false;
    int extensionUnitErrno = 0;  // 0: unit 9 answers
    QString usbDevice;
    int resetErrno = 0;          // 0: the usbfs node opens for writing, as the reset needs
    int bufferBytes = 0;         // sizeof(struct v4l2_buffer) in this build
    bool time64 = false;         // of this build
    int layoutErrno = 0;         // 0: the kernel takes this build's layout
};

ControlsInfo probeControls(const NodeInfo& node);

} // namespace check
