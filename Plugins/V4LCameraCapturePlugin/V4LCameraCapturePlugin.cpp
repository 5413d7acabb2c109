// Element shell: construction, identity, quit handling, pins, attributes and lifecycle.

#include "V4LCameraCapturePlugin.h"

#include <unistd.h>

#include <QMetaObject>
#include <cstdlib>

#include "ElementLog.h"

extern "C" {
Q_DECL_EXPORT int log_level = 0;
Q_DECL_EXPORT int enable_minilog = 0;
}

bool V4LCameraCapturePlugin::m_isStreaming = false;

V4LCameraCapturePlugin::V4LCameraCapturePlugin() : IMediaElement(nullptr)
{
    m_outputPin = new MediaOutputPin(MAJOR_TYPE_VIDEO, MINOR_TYPE_CODED, CODEC_TYPE_H264,
                                     RAW_TYPE_NONE, this);
    m_format = FOURCC_H264;
    m_workThread = new QThread();
    m_worker = new QObject();
    m_worker->moveToThread(m_workThread);

    connect(this, &V4LCameraCapturePlugin::sigQuit, this, [this]() {
        ELEMENT_LOG(0, "%s:%d ERROR: V4LCameraCapturePlugin sigQuit\n\n");
        stop();
        exit(-1);
    }, Qt::QueuedConnection);
}

V4LCameraCapturePlugin::~V4LCameraCapturePlugin()
{
    // A host should stop before deleting; if it did not, tear the capture down here rather
    // than destroy a joinable thread.
    if (m_captureThread.joinable())
        V4LCameraCapturePlugin::stop();
    if (m_captureThread.joinable())
        m_captureThread.join();

    m_workThread->quit();
    m_workThread->wait();
    delete m_worker;
    delete m_workThread;
    delete m_outputPin;

    // What a failed buffer setup left behind.
    for (auto& frame : m_frames)
        frame.reset();
    Codec::MediaMem::destroy(m_mediaMem);
    m_mediaMem = nullptr;
    if (m_fd > 0)
        ::close(m_fd);
}

QString V4LCameraCapturePlugin::getName() { return QStringLiteral("V4LCameraCapturePlugin"); }
int V4LCameraCapturePlugin::getType() { return 2; }
int V4LCameraCapturePlugin::getState() { return m_state; }

// ---- pins ---------------------------------------------------------------------------

QList<MediaInputPin*> V4LCameraCapturePlugin::getInputPinList() { return {}; }

QList<MediaOutputPin*> V4LCameraCapturePlugin::getOutputPinList()
{
    return QList<MediaOutputPin*>{m_outputPin};
}

int V4LCameraCapturePlugin::activeInputPin(MediaInputPin* pin, MediaFormat format)
{
    Q_UNUSED(pin)
    Q_UNUSED(format)
    return 0;
}

int V4LCameraCapturePlugin::activeOutPin(MediaOutputPin* pin, MediaFormat format)
{
    Q_UNUSED(pin)
    m_width = format.width;
    m_height = format.height;
    switch (format.codecType) {
    case CODEC_TYPE_H264: m_format = FOURCC_H264; return 0;
    case CODEC_TYPE_MJPEG: m_format = FOURCC_MJPG; return 0;
    case CODEC_TYPE_HEVC: m_format = FOURCC_HEVC; return 0;
    default:
        ELEMENT_LOG(0, "%s:%d ERROR: activeOutPin failed -1\n\n");
        return -1;
    }
}

// ---- attributes ---------------------------------------------------------------------

namespace {

// Negotiation order for an H.264 request: a camera's own H.264 first, then raw formats we
// encode ourselves (NV12 before YUYV), and MJPEG last.
struct Preference {
    int codecType;
    uint32_t fourcc;
};
const Preference kPreferences[] = {
    {CODEC_TYPE_H264, FOURCC_H264},
    {CODEC_TYPE_NV12, FOURCC_NV12},
    {CODEC_TYPE_YUYV, FOURCC_YUYV},
    {CODEC_TYPE_MJPEG, FOURCC_MJPG},
};

} // namespace

int V4LCameraCapturePlugin::setAttribute(QString key, QVariant value)
{
    if (key == ATTR_CAM_SETFORMAT) {
        registerMediaFormatMetaTypes();
        const MediaFormat format = value.value<MediaFormat>();
        m_width = format.width;
        m_height = format.height;
        if (format.codecType == CODEC_TYPE_H264) {
            int fd = -1;
            v4l2_dev_open(&fd);
            const QList<MediaFormat> offered = listCameraFormat(fd);
            if (fd >= 0)
                ::close(fd);
            bool found = false;
            for (const Preference& preference : kPreferences) {
                for (const MediaFormat& entry : offered) {
                    if (entry.codecType == preference.codecType && entry.width == format.width &&
                        entry.height == format.height) {
                        m_format = preference.fourcc;
                        found = true;
                        break;
                    }
                }
                if (found)
                    break;
            }
        } else if (format.codecType == CODEC_TYPE_MJPEG) {
            m_format = FOURCC_MJPG;
        } else if (format.codecType == CODEC_TYPE_HEVC) {
            m_format = FOURCC_HEVC;
        } else {
            m_format = FOURCC_H264;
        }
        ELEMENT_LOG(2, "%s:%d INFO: req atts formate:=%d w:=%d h:=%d\n", format.codecType,
                    format.width, format.height);
        ELEMENT_LOG(2, "%s:%d INFO: set attrs m_format:=%d w:=%d h:=%d\n", int(m_format), m_width,
                    m_height);
        return 0;
    }
    if (key == QLatin1String("net.state")) {
        m_netState = value.toBool();
        ELEMENT_LOG(2, "%s:%d INFO: setAttribute net.state %d\n\n", m_netState ? 1 : 0);
        return 0;
    }
    ELEMENT_LOG(0, "%s:%d ERROR: setAttribute failed -1\n\n");
    return -1;
}

QVariant V4LCameraCapturePlugin::getAttribute(QString key)
{
    if (key != ATTR_CAM_FORMATLIST)
        return QVariant();
    registerMediaFormatMetaTypes();
    QList<MediaFormat> formats;
    if (m_running && m_fd > 0) {
        formats = listCameraFormat(m_fd);
    } else {
        int fd = -1;
        if (v4l2_dev_open(&fd) == 0) {
            formats = listCameraFormat(fd);
            ::close(fd);
        }
    }
    return QVariant::fromValue(formats);
}

// ---- lifecycle ----------------------------------------------------------------------

int V4LCameraCapturePlugin::initialize()
{
    // Re-initialising a playing element must not orphan its capture thread.
    if (m_state == 3)
        stop();
    enable_minilog = 0;
    log_level = 1;
    m_state = 1;
    return 0;
}

int V4LCameraCapturePlugin::start()
{
    m_workThread->start(QThread::InheritPriority);
    return 0;
}

int V4LCameraCapturePlugin::play()
{
    if (m_state == 3) {
        ELEMENT_LOG(0, "%s:%d ERROR: V4LCameraCapturePlugin alredy be playing\n\n");
        return 0;
    }
    if (v4l2_dev_open() < 0) {
        ELEMENT_LOG(0, "%s:%d ERROR: dev open failed\n\n");
        return -1;
    }
    if (v4l2_set_format() < 0) {
        ELEMENT_LOG(0, "%s:%d ERROR: set format failed\n\n");
        ::close(m_fd);
        m_fd = -1;
        return -1;
    }
    if (v4l2_init_buffer() < 0) {
        ELEMENT_LOG(0, "%s:%d ERROR: v4l2_stream_on#v4l2_init_buffer() failed\n\n");
        v4l2_release_buffer();  // no DMA-BUF descriptor may outlive a failed play
        ::close(m_fd);
        m_fd = -1;
        return -1;
    }
    m_running = true;
    m_captureThread = std::thread(&V4LCameraCapturePlugin::video_frame, this);
    m_state = 3;
    return 0;
}

int V4LCameraCapturePlugin::pause()
{
    stop();
    return 0;
}

int V4LCameraCapturePlugin::stop()
{
    if (m_state != 3)
        return 0;
    ELEMENT_LOG(2, "%s:%d INFO: v4l2 stop begin \n");
    {
        std::lock_guard<std::mutex> lock(m_sendMutex);
        m_running = false;
    }
    m_sendCond.notify_all();
    if (m_captureThread.joinable()) {
        ELEMENT_LOG(2, "%s:%d INFO: thread stop\n");
        try {
            m_captureThread.join();
        } catch (...) {
        }
        ELEMENT_LOG(2, "%s:%d INFO: thread stop end\n");
    }
    if (m_fd > 0) {
        ELEMENT_LOG(4, "%s:%d DEBUG: stream stop\n");
        v4l2_stream_off();
        v4l2_release_buffer();
    }
    if (m_fd > 0)
        ::close(m_fd);
    m_fd = -1;
    m_state = 2;
    ELEMENT_LOG(2, "%s:%d INFO: v4l2 stop end\n");
    return 0;
}
