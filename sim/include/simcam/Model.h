#pragma once
// What the simulated camera looks like: device nodes, formats, sysfs/USB placement and the
// faults it shows on demand. A Model is plain data; build one in code, start from preset(),
// or parse the compact text form also read from the SIMCAM_MODEL environment variable
// (grammar in sim/README.md).

#include "content/ContentSource.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace simcam {

constexpr uint32_t kFourccRGB24 = fourcc('R', 'G', 'B', '3');

// Seconds per frame, as V4L2 reports it (1/30 = 30 fps).
struct Interval {
    uint32_t numerator = 1;
    uint32_t denominator = 30;
    friend bool operator==(const Interval& a, const Interval& b)
    {
        return a.numerator == b.numerator && a.denominator == b.denominator;
    }
};

struct FrameSize {
    uint32_t width = 0;
    uint32_t height = 0;
    std::vector<Interval> intervals; // enumeration order; the first is the default
};

// A size range: VIDIOC_ENUM_FRAMESIZES reports V4L2_FRMSIZE_TYPE_STEPWISE, or
// V4L2_FRMSIZE_TYPE_CONTINUOUS when both steps are 1.
struct StepwiseSize {
    uint32_t minWidth = 0, maxWidth = 0, stepWidth = 1;
    uint32_t minHeight = 0, maxHeight = 0, stepHeight = 1;
    std::vector<Interval> intervals; // offered at every size of the range
};

// A frame interval range offered at every size (VIDIOC_ENUM_FRAMEINTERVALS reports
// V4L2_FRMIVAL_TYPE_STEPWISE, or V4L2_FRMIVAL_TYPE_CONTINUOUS when `step` is 1/1).
struct IntervalRange {
    Interval min{1, 30}; // the shortest interval: the highest rate, and the default
    Interval max{1, 5};
    Interval step{1, 1};
};

struct Format {
    uint32_t fourcc = 0;
    std::string description;             // empty: derived from the FourCC
    std::vector<FrameSize> sizes;        // discrete sizes in enumeration order
    std::optional<StepwiseSize> stepwise; // when set, replaces `sizes`
    std::optional<IntervalRange> intervalRange; // when set, replaces the sizes' interval lists
};

// Misbehaviour of one device node. Default-constructed = a healthy camera. Changing a
// node's faults restarts its "after N frames" counting; STREAMON restarts stallAfter's.
struct Faults {
    int openErrno = 0;      // open() fails with this errno (ENOENT, EBUSY, EACCES, ...)
    bool busy = false;      // another process owns the queue: S_FMT and REQBUFS fail EBUSY
    bool noCaptureCap = false; // VIDIOC_QUERYCAP lacks V4L2_CAP_VIDEO_CAPTURE
    int querycapErrno = 0;  // VIDIOC_QUERYCAP fails
    int sfmtErrno = 0;      // VIDIOC_S_FMT is refused with this errno ...
    int sfmtCount = -1;     // ... for the next N requests (-1: every request)
    int parmErrno = 0;      // VIDIOC_G_PARM / VIDIOC_S_PARM fail
    int reqbufsErrno = 0;   // VIDIOC_REQBUFS fails
    int grantBuffers = -1;  // VIDIOC_REQBUFS grants this count (-1: what was asked, max 32)
    int querybufErrno = 0;  // VIDIOC_QUERYBUF fails ...
    int querybufIndex = -1; // ... for this index (-1: every index)
    int qbufErrno = 0;      // VIDIOC_QBUF before streaming fails ...
    int qbufIndex = -1;     // ... for this index (-1: every index)
    int streamQbufErrno = 0; // VIDIOC_QBUF while streaming fails ...
    int streamQbufAfter = 0; // ... after this many frames went round (dequeued, queued again)
    int streamonErrno = 0;  // VIDIOC_STREAMON fails
    bool stall = false;     // streaming, but no frame is ever ready ...
    int stallAfter = 0;     // ... once this many frames were dequeued from this stream
                            //     (counted from STREAMON: a stream started anew delivers again)
    int emptyEvery = 0;     // every Nth frame has bytesused 0 (1: every frame)
    int dqbufErrno = 0;     // VIDIOC_DQBUF fails (ENODEV: the camera unplugs then) ...
    int dqbufAfter = 0;     // ... once this many frames were dequeued
    bool noKeyFrameControl = false; // V4L2_CID_MPEG_VIDEO_FORCE_KEY_FRAME is absent (EINVAL)
    bool refuseMemfd = false;       // VIDIOC_QBUF refuses a memfd (EINVAL), as every real driver
                                    // does: only a DMA-BUF (heap, udmabuf, DRM) is taken
    uint32_t bytesusedExtra = 0;    // a buggy driver: bytesused claims this many bytes more
    int badIndex = -1;              // a buggy driver: DQBUF reports this index (-1: the real one)
};

enum class NodeKind {
    Capture,  // V4L2_CAP_VIDEO_CAPTURE
    Metadata, // V4L2_CAP_META_CAPTURE only, as a UVC camera's second node
};

struct Node {
    std::string name;              // file name under /dev: "video0", "Video1", "videodev", ...
    NodeKind kind = NodeKind::Capture;
    std::vector<Format> formats;   // capture nodes; enumeration order
    ContentOptions content;        // clip options for coded formats
    // When set, frames are these payloads in turn (looping) instead of generated content:
    // bitstreams a test crafts byte by byte.
    std::vector<std::vector<uint8_t>> scriptedFrames;
    Faults faults;
};

// Where the camera hangs in the device tree, which decides where sysfs keeps
// busnum/devnum (the element looks at the interface first, then the device).
enum class Attachment {
    UsbDevice,    // busnum/devnum in the USB device directory (as the kernel does)
    UsbInterface, // busnum/devnum in the interface directory
    Platform,     // not USB: no busnum/devnum anywhere, no usbfs node
};

struct Camera {
    std::string card = "Simulated UVC Camera";
    Attachment attachment = Attachment::UsbDevice;
    int busnum = 1;
    int devnum = 2;
    int extensionUnit = 9;     // UVC extension unit id answering UVCIOC_CTRL_QUERY (0: none)
    bool resetReplugs = true;  // USBDEVFS_RESET brings an unplugged camera back
    int replugMs = -1;         // an unplugged camera comes back by itself this many ms later
                               // (as after a USB reset); -1: it stays unplugged
    int usbOpenErrno = 0;      // open() of the usbfs node fails
    int resetErrno = 0;        // USBDEVFS_RESET fails
    std::vector<Node> nodes;
};

struct Model {
    std::vector<Camera> cameras;
    // Listed by opendir("/dev") beside the cameras' nodes; never opened as cameras.
    std::vector<std::string> otherDevNames = {"null", "zero", "v4l-subdev0"};
    // Frames are produced as soon as a buffer is queued instead of at the frame interval.
    bool unthrottled = false;
};

// Named starting points: "h264", "hevc", "hevc-large", "mjpeg", "yuyv", "nv12", "multi".
// Throws std::invalid_argument for an unknown name.
Model preset(std::string_view name);
std::vector<std::string> presetNames();

// Parses the SIMCAM_MODEL text form. Throws std::invalid_argument naming the bad item.
Model parseModel(std::string_view text);

// "/dev/bus/usb/BBB/DDD" of a USB camera, empty for a platform one.
std::string usbDevicePath(const Camera& camera);

// Default frame description ("H.264", "Motion-JPEG", ...) of a FourCC.
std::string formatDescription(uint32_t fourcc);

} // namespace simcam
