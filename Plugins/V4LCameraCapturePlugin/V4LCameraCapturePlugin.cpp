// Element shell: construction, identity, quit handling, pins, attributes and lifecycle.

#include "V4LCameraCapturePlugin.h"

#include <linux/videodev2.h>
#include <pthread.h>
#include <unistd.h>

#include <QMetaObject>
#include <cstdlib>

#include "CaptureFormats.h"
#include "ElementLog.h"
#include "UniqueFd.h"

extern "C" {
Q_DECL_EXPORT int log_level = 0;
Q_DECL_EXPORT int enable_minilog = 0;
}

bool V4LCameraCapturePlugin::m_isStreaming = false;

V4LCameraCapturePlugin::V4LCameraCapturePlugin() : IMediaElement(nullptr)
{
    m_outputPin = new MediaOutputPin(MAJOR_TYPE_VIDEO, MINOR_TYPE_CODED, CODEC_TYPE_H264,
                                     RAW_TYPE_NONE, this);
    m_format = V4L2_PIX_FMT_H264;
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
    // Ours alone, once their thread has stopped. The output pin is not ours to delete: it was
    // made with this element as its owner, and a host that owns its pins deletes it itself.
    delete m_worker;
    delete m_workThread;

    // What a failed buffer setup left behind.
    v4l2_release_buffer();
    closeDevice();
}

void V4LCameraCapturePlugin::closeDevice()
{
    if (m_fd >= 0)
        ::close(m_fd);
    m_fd = -1;
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
    // The pin carries coded video: raw capture is only chosen by negotiation.
    const CaptureFormat* chosen = captureFormatForCodec(format.codecType);
    if (!chosen || chosen->raw) {
        ELEMENT_LOG(0, "%s:%d ERROR: activeOutPin failed -1\n\n");
        return -1;
    }
    m_format = chosen->fourcc;
    return 0;
}

// ---- attributes ---------------------------------------------------------------------

namespace {

// The first negotiable format, in table order, that the camera offers at the requested size.
const CaptureFormat* preferredFormat(const QList<MediaFormat>& offered, int width, int height)
{
    for (const CaptureFormat& candidate : kCaptureFormats) {
        if (!candidate.negotiable)
            continue;
        for (const MediaFormat& entry : offered) {
            if (entry.codecType == candidate.codecType && entry.width == width && entry.height == height)
                return &candidate;
        }
    }
    return nullptr;
}

} // namespace

int V4LCameraCapturePlugin::setAttribute(QString key, QVariant value)
{
    if (key == ATTR_CAM_SETFORMAT) {
        registerMediaFormatMetaTypes();
        const MediaFormat format = value.value<MediaFormat>();
        m_width = format.width;
        m_height = format.height;
        if (format.codecType == CODEC_TYPE_H264) {
            int fd;  // v4l2_dev_open sets it, -1 on failure
            v4l2_dev_open(&fd);
            QList<MediaFormat> offered;
            {
                const UniqueFd probe(fd);
                offered = listCameraFormat(probe.get());
            }
            if (const CaptureFormat* chosen = preferredFormat(offered, format.width, format.height))
                m_format = chosen->fourcc;
        } else {
            const CaptureFormat* named = captureFormatForCodec(format.codecType);
            m_format = named && !named->raw ? named->fourcc : V4L2_PIX_FMT_H264;
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
        if (v4l2_dev_open(&fd) == 0)
            formats = listCameraFormat(UniqueFd(fd).get());
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
    // Until the capture thread runs, a failed step gives back the device and whatever
    // buffers were made: no DMA-BUF descriptor may outlive a failed play.
    auto giveBack = [this] {
        v4l2_release_buffer();
        closeDevice();
        return -1;
    };
    if (v4l2_set_format() < 0) {
        ELEMENT_LOG(0, "%s:%d ERROR: set format failed\n\n");
        return giveBack();
    }
    if (v4l2_init_buffer() < 0) {
        ELEMENT_LOG(0, "%s:%d ERROR: v4l2_stream_on#v4l2_init_buffer() failed\n\n");
        return giveBack();
    }
    // The run keeps the format, size and rate its buffers were made for, whatever the host
    // sets meanwhile.
    const RunFormat run = currentFormat();
    m_running = true;
    m_captureThread = std::thread([this, run] {
        pthread_setname_np(pthread_self(), "cam-capture");
        runCapture(run);
    });
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
    // Wakes the capture thread from its device wait or its pause after a failed read.
    m_stopSignal.raise();
    if (m_captureThread.joinable()) {
        ELEMENT_LOG(2, "%s:%d INFO: thread stop\n");
        try {
            m_captureThread.join();
        } catch (...) {
        }
        ELEMENT_LOG(2, "%s:%d INFO: thread stop end\n");
    }
    // Direct reads outside a run wait their full time again.
    m_stopSignal.clear();
    if (m_fd > 0) {
        ELEMENT_LOG(4, "%s:%d DEBUG: stream stop\n");
        v4l2_stream_off();
        v4l2_release_buffer();
    }
    closeDevice();
    m_state = 2;
    ELEMENT_LOG(2, "%s:%d INFO: v4l2 stop end\n");
    return 0;
}
