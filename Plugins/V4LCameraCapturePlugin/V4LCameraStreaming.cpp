// Capture streaming: the DMA-BUF capture buffers, the driver's streaming state, taking
// filled buffers from the driver (compressed formats and the direct read), and controls.

#include "V4LCameraCapturePlugin.h"

#include <linux/usb/video.h>
#include <linux/uvcvideo.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "Bitstream.h"
#include "CaptureFormats.h"
#include "ElementLog.h"

namespace {

constexpr unsigned kSlots = 4;
// About 7 s of video at 30 fps: a consumer this far behind is resynchronised.
constexpr size_t kH264Backlog = 200;
// The camera firmware's extension unit that answers the vendor controls.
constexpr uint8_t kExtensionUnit = 9;
// A failed dequeue usually means a camera resetting or gone: give it time before retrying.
constexpr std::chrono::seconds kDequeueFailurePause{3};

// 0, or the driver's -errno.
int xioctl(int fd, unsigned long request, void* arg) { return ioctl(fd, request, arg) < 0 ? -errno : 0; }

// Larger than any camera's picture side; a host value beyond it is refused, not allocated.
constexpr int kMaxPictureSide = 8192;

size_t align16(int x) { return (size_t(x) + 15) & ~size_t(15); }

// Frames own their memory through the allocator; the deleter gives it back first.
void deleteCaptureFrame(Codec::MediaFrame* frame)
{
    Codec::MediaMem::free(frame);
    delete frame;
}

void clearBuffer(v4l2_buffer* buf)
{
    std::memset(buf, 0, sizeof *buf);
    buf->type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    buf->memory = V4L2_MEMORY_DMABUF;
}

int uvcExtensionQuery(int fd, int selector, void* data, unsigned int size, uint8_t query)
{
    if (fd < 0)
        return -1;
    uvc_xu_control_query xu;
    std::memset(&xu, 0, sizeof xu);
    xu.unit = kExtensionUnit;
    xu.selector = uint8_t(selector);
    xu.query = query;
    xu.size = uint16_t(size);
    xu.data = static_cast<uint8_t*>(data);
    return ioctl(fd, UVCIOC_CTRL_QUERY, &xu) >= 0 ? 0 : -1;
}

} // namespace

// ---- buffers and streaming ----------------------------------------------------------

int V4LCameraCapturePlugin::v4l2_init_buffer()
{
    if (m_width <= 0 || m_height <= 0 || m_width > kMaxPictureSide || m_height > kMaxPictureSide) {
        ELEMENT_LOG(0, "%s:%d ERROR: capture size %dx%d refused\n\n", m_width, m_height);
        return -1;
    }
    // Room for any raw layout (YUYV at two bytes a pixel) at the padded size.
    const size_t frameBytes = 3 * align16(m_width) * align16(m_height);
    v4l2_requestbuffers req;
    std::memset(&req, 0, sizeof req);
    req.count = kSlots;
    req.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    req.memory = V4L2_MEMORY_DMABUF;
    int err = xioctl(m_fd, VIDIOC_REQBUFS, &req);
    if (err < 0) {
        ELEMENT_LOG(0, "%s:%d ERROR: request buffer failed\n\n");
        ELEMENT_LOG_REASON(-err);
        return -1;
    }
    unsigned granted = req.count;
    if (granted > kSlots) {
        // We own four slots; extra buffers simply stay unused with the driver.
        ELEMENT_LOG(1, "%s:%d WARN: driver granted %u buffers, using %u\n", granted, kSlots);
        granted = kSlots;
    }

    // What an earlier setup left goes first: its frames before the allocator they came from.
    v4l2_release_buffer();
    m_mediaMem = Codec::MediaMem::create(Codec::MEDIA_BUFFER_TYPE_DMA);
    const CaptureFormat* format = captureFormatOf(m_format);

    for (unsigned i = 0; i < granted; ++i) {
        v4l2_buffer buf;
        clearBuffer(&buf);
        buf.index = i;
        err = xioctl(m_fd, VIDIOC_QUERYBUF, &buf);
        if (err < 0) {
            ELEMENT_LOG(0, "%s:%d ERROR: VIDIOC_QUERYBUF failed!!  n_buffers=%d\n\n", int(i));
            ELEMENT_LOG_REASON(-err);
            return -1;
        }
        ELEMENT_LOG(4, "%s:%d DEBUG: V4LCameraCapturePlugin::v4l2_init_buffer------------!!  buf.length=%d\n\n",
                    int(buf.length));

        std::shared_ptr<Codec::MediaFrame> frame(new Codec::MediaFrame(), deleteCaptureFrame);
        m_mediaMem->alloc(frame.get(), int(frameBytes));
        if (format && format->raw) {
            frame->format = uint64_t(format->pictureFormat);
            frame->horStride = uint32_t(format->bytesPerPixel * m_width);
        }
        frame->width = uint32_t(m_width);
        frame->height = uint32_t(m_height);
        frame->verStride = uint32_t(m_height);
        m_frames[i] = std::move(frame);

        buf.m.fd = m_frames[i]->fd;
        buf.length = m_frames[i]->size;
        const int ret = ioctl(m_fd, VIDIOC_QBUF, &buf);
        if (ret < 0) {
            err = errno;
            ELEMENT_LOG(0, "%s:%d ERROR: enqueue failed index = %d  error=%d\n\n", int(i), ret);
            ELEMENT_LOG_REASON(err);
            return -1;
        }
    }
    return 0;
}

void V4LCameraCapturePlugin::v4l2_release_buffer()
{
    // Frames before the allocator their memory came from.
    for (auto& frame : m_frames)
        frame.reset();
    if (m_mediaMem)
        Codec::MediaMem::destroy(m_mediaMem);
    m_mediaMem = nullptr;
}

int V4LCameraCapturePlugin::v4l2_stream_on()
{
    if (m_isStreaming) {
        ELEMENT_LOG(0, "%s:%d ERROR: v4l2_stream_on#m_isStreaming() true\n\n");
        return 0;
    }
    int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    const int err = xioctl(m_fd, VIDIOC_STREAMON, &type);
    if (err < 0) {
        ELEMENT_LOG(0, "%s:%d ERROR: v4l2_stream_on#open stream failed\n\n");
        ELEMENT_LOG_REASON(-err);
        return -1;
    }
    m_isStreaming = true;
    ELEMENT_LOG(2, "%s:%d INFO: open stream succed\n");
    return 0;
}

int V4LCameraCapturePlugin::v4l2_stream_off()
{
    m_isStreaming = false;
    int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    const int err = xioctl(m_fd, VIDIOC_STREAMOFF, &type);
    if (err < 0) {
        ELEMENT_LOG(0, "%s:%d ERROR: off stream failed\n\n");
        ELEMENT_LOG_REASON(-err);
    }
    return 0;
}

// ---- the steps every read shares ----------------------------------------------------

int V4LCameraCapturePlugin::waitReadable(const char* caller)
{
    const int stopFd = m_stopSignal.fd();
    // FD_SET on a descriptor outside the set's range would write past it.
    if (m_fd < 0 || m_fd >= FD_SETSIZE || stopFd >= FD_SETSIZE) {
        Logger::logger_printf(0, "%s:%d ERROR: select failed\n", caller, __LINE__);
        logReason(caller, __LINE__, EBADF);
        return -EBADF;
    }
    fd_set readSet;
    FD_ZERO(&readSet);
    FD_SET(m_fd, &readSet);
    m_stopSignal.addTo(readSet);
    timeval timeout{1, 0};
    const int ready = select(std::max(m_fd, stopFd) + 1, &readSet, nullptr, nullptr, &timeout);
    const int err = ready < 0 ? errno : 0;
    if (ready < 0)
        FD_ZERO(&readSet);
    if (FD_ISSET(m_fd, &readSet))
        return 0;
    if (m_stopSignal.isIn(readSet))
        return -ECANCELED;  // stopping: not a camera fault
    Logger::logger_printf(0, "%s:%d ERROR: select failed\n", caller, __LINE__);
    if (err)
        logReason(caller, __LINE__, err);
    return err ? -err : -ETIMEDOUT;
}

int V4LCameraCapturePlugin::dequeueBuffer(v4l2_buffer* buf, const char* caller, const char* failFormat)
{
    clearBuffer(buf);
    const int err = xioctl(m_fd, VIDIOC_DQBUF, buf);
    if (err < 0) {
        Logger::logger_printf(0, failFormat, caller, __LINE__);
        logReason(caller, __LINE__, -err);
        m_stopSignal.sleepFor(kDequeueFailurePause);
    }
    return err;
}

int V4LCameraCapturePlugin::requeueBuffer(v4l2_buffer* buf, const char* caller)
{
    const int err = xioctl(m_fd, VIDIOC_QBUF, buf);
    if (err < 0) {
        Logger::logger_printf(0, "%s:%d ERROR: VIDIOC_QBUF failed\n\n", caller, __LINE__);
        logReason(caller, __LINE__, -err);
    }
    return err;
}

Codec::MediaFrame* V4LCameraCapturePlugin::capturedFrame(const v4l2_buffer& buf, uint32_t* bytes,
                                                         const char* caller)
{
    Codec::MediaFrame* frame = buf.index < kSlots ? m_frames[buf.index].get() : nullptr;
    if (!frame || !frame->data) {
        Logger::logger_printf(0, "%s:%d ERROR: dequeued buffer %u has no capture frame\n", caller,
                              __LINE__, buf.index);
        *bytes = 0;
        return nullptr;
    }
    *bytes = buf.bytesused;
    if (*bytes > frame->size) {
        Logger::logger_printf(1, "%s:%d WARN: bytesused %u exceeds buffer %u, truncated\n", caller,
                              __LINE__, buf.bytesused, frame->size);
        *bytes = frame->size;
    }
    return frame;
}

// ---- compressed acquisition ---------------------------------------------------------

int V4LCameraCapturePlugin::v4l2_get_one_frame2() { return readCoded(captureFormatOf(m_format)); }

int V4LCameraCapturePlugin::readCoded(const CaptureFormat* format)
{
    static const char* const caller = "v4l2_get_one_frame2";
    if (waitReadable(caller) < 0)
        return -1;
    v4l2_buffer buf;
    if (dequeueBuffer(&buf, caller, "%s:%d ERROR: VIDIOC_DQBUF failed\n") < 0)
        return -1;
    if (buf.bytesused == 0)
        return requeueBuffer(&buf, caller) < 0 ? -1 : 0;

    uint32_t bytes = 0;
    const Codec::MediaFrame* frame = capturedFrame(buf, &bytes, caller);
    if (!frame) {
        requeueBuffer(&buf, caller);
        return -1;
    }
    const auto* data = static_cast<const unsigned char*>(frame->data);

    switch (format ? format->backlog : Backlog::DropUnencoded) {
    case Backlog::FlushAtKeyFrame:
        if (sendQueueLength() > kH264Backlog && bytes > 4 && bitstream::startsWithKeyFrame(data, int(bytes)))
            flushSendQueue();
        pushSendBuffer(data, bytes);
        break;
    case Backlog::KeepLatest:
        if (sendQueueLength() < 2)
            pushSendBuffer(data, bytes);
        break;
    case Backlog::Split:
        bitstream::cutHevc(bytes, [&](uint32_t offset, uint32_t piece) { pushSendBuffer(data + offset, piece); });
        break;
    case Backlog::DropUnencoded:
        break;  // raw pictures belong to the encoder path
    }
    return requeueBuffer(&buf, caller) < 0 ? -1 : 0;
}

// ---- direct read --------------------------------------------------------------------

int V4LCameraCapturePlugin::v4l2_get_one_frame(MediaFrame* frame)
{
    if (waitReadable(__func__) < 0) {
        if (frame)
            frame->setSize(0);
        return -1;
    }
    v4l2_buffer buf;
    if (dequeueBuffer(&buf, __func__, "%s:%d ERROR: VIDIOC_DQBUF failed\n") < 0)
        return -1;
    if (frame && buf.bytesused != 0) {
        uint32_t bytes = 0;
        const Codec::MediaFrame* captured = capturedFrame(buf, &bytes, __func__);
        if (buf.bytesused > frame->capacity()) {
            ELEMENT_LOG(0, "%s:%d ERROR: ******************************* VIDIOC_DQBUF failed\n\n");
            // A frame too small for the picture holds none of it.
            frame->setSize(0);
        } else if (captured) {
            std::memcpy(frame->data(), captured->data, bytes);
            frame->setSize(int(bytes));
        } else {
            frame->setSize(0);
        }
    }
    return requeueBuffer(&buf, __func__) < 0 ? -1 : 0;
}

// ---- controls -----------------------------------------------------------------------

int V4LCameraCapturePlugin::v4l2_h264_force_idr()
{
    v4l2_control control;
    std::memset(&control, 0, sizeof control);
    control.id = V4L2_CID_MPEG_VIDEO_FORCE_KEY_FRAME;
    control.value = 0;
    const int ret = ioctl(m_fd, VIDIOC_S_CTRL, &control);
    if (ret < 0)
        ELEMENT_LOG(0, "%s:%d ERROR: v4l2_h264_force_idr#************* error!***********\n\n");
    return ret;
}

extern "C" int UvcExtenFuncSet(int fd, int selector, void* data, unsigned int size)
{
    return uvcExtensionQuery(fd, selector, data, size, UVC_SET_CUR);
}

extern "C" int UvcExtenFuncGet(int fd, int selector, void* data, unsigned int size)
{
    return uvcExtensionQuery(fd, selector, data, size, UVC_GET_CUR);
}
