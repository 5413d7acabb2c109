#pragma once
// Camera source element: captures from a Video4Linux2 (UVC) camera into DMA-BUF frames and
// delivers coded video on its single output pin. H.264, MJPEG and HEVC cameras are passed
// through; YUYV and NV12 cameras are encoded to H.264.

#include <QObject>
#include <QThread>

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "Codec/MediaBuffer.h"
#include "Codec/MediaCodec.h"
#include "Codec/MediaMem.h"
#include "IMediaElement.h"
#include "MediaFrame.h"
#include "MediaPin.h"
#include "StopSignal.h"

struct v4l2_buffer;
struct CaptureFormat;

// Copies n bytes; on ARM with NEON it moves 64 bytes per step through d0-d7.
void memcpy_neon(void* dst, const void* src, int n);

extern "C" {
extern int log_level;
extern int enable_minilog;
int UvcExtenFuncSet(int fd, int selector, void* data, unsigned int size);
int UvcExtenFuncGet(int fd, int selector, void* data, unsigned int size);
}

// Fixed by the host contract, to be kept even where they look odd: the class name, the
// interface id, the three signals in their order, every contract and v4l2_ method name,
// the field names and their order (m_fd to m_sendCond below), the class static
// m_isStreaming, the function-local statics `ecount` and `offset`, the exported log_level,
// enable_minilog, memcpy_neon and UvcExtenFunc*, and every quoted log text the element
// shares with the host's logs, misspellings included ("alredy", "succed", "formate").
// The project's own, free to change: SendBuffer's recycling of spent entries, the private
// helpers (RunFormat, closeDevice, the read steps, the send-queue helpers), the members
// after m_sendCond, the log lines added beside the fixed ones (reasons, refusals,
// truncations, drops), and the capture format table (CaptureFormats.h).
class V4LCameraCapturePlugin : public IMediaElement {
    Q_OBJECT
    Q_PLUGIN_METADATA(IID "org.IMediaElement/1.0")
    Q_INTERFACES(IMediaElement)

public:
    // One coded frame on its way to the output pin: owned bytes and their length. The
    // element recycles spent entries, so their storage only ever grows.
    class SendBuffer {
    public:
        SendBuffer(void* source, unsigned int length);
        ~SendBuffer();
        SendBuffer(const SendBuffer&) = delete;
        SendBuffer& operator=(const SendBuffer&) = delete;

        // Copies length bytes in, reallocating only when they do not fit.
        void assign(const void* source, unsigned int length);

        uint8_t* data;
        uint32_t size;

    private:
        uint32_t m_capacity;
    };

    V4LCameraCapturePlugin();
    ~V4LCameraCapturePlugin() override;

    // Contract.
    QString getName() override;
    int getType() override;
    int getState() override;
    int initialize() override;
    int start() override;
    int play() override;
    int pause() override;
    int stop() override;
    QList<MediaInputPin*> getInputPinList() override;
    QList<MediaOutputPin*> getOutputPinList() override;
    int activeInputPin(MediaInputPin* pin, MediaFormat format) override;
    int activeOutPin(MediaOutputPin* pin, MediaFormat format) override;
    int setAttribute(QString key, QVariant value) override;
    QVariant getAttribute(QString key) override;

    // Device management.
    int v4l2_dev_open();
    int v4l2_dev_open(int* fd);
    QList<MediaFormat> listCameraFormat(int fd);
    int v4l2_set_format();
    int resetUsbCamera();

    // Capture streaming.
    int v4l2_init_buffer();
    void v4l2_release_buffer();
    int v4l2_stream_on();
    int v4l2_stream_off();
    int v4l2_get_one_frame2();
    int v4l2_get_one_frame(MediaFrame* frame);
    int v4l2_h264_force_idr();

    // Data path.
    void video_frame();
    void initEncoder();
    void deinitEncoder();
    int v4l2_get_one_frame_yuv();
    void video_send_frame();

signals:
    void empty();
    void sigSendFrame();
    void sigQuit();

private:
    // Steps every read shares; `caller` names the read in its log lines. Each returns 0 or
    // -errno.
    int waitReadable(const char* caller);
    int dequeueBuffer(v4l2_buffer* buf, const char* caller, const char* failFormat);
    int requeueBuffer(v4l2_buffer* buf, const char* caller);
    // The capture frame behind a dequeued buffer and how many of its bytes may be read;
    // null when the index has no frame.
    Codec::MediaFrame* capturedFrame(const v4l2_buffer& buf, uint32_t* bytes, const char* caller);
    // What one run captures with: play takes it once, so the host may set the next format
    // meanwhile without the capture thread seeing it.
    struct RunFormat {
        const CaptureFormat* format = nullptr;
        int width = 0;
        int height = 0;
        int rateNum = 30;
        int rateDen = 1;
    };
    RunFormat currentFormat() const;
    int readCoded(const CaptureFormat* format);
    void configureEncoder(const RunFormat& run);
    void runCapture(const RunFormat& run);

    // Closes the capture device if open; m_fd is -1 afterwards.
    void closeDevice();

    // Send queue: append one frame and wake the sender; length; drop everything.
    void pushSendBuffer(const void* source, unsigned int length);
    size_t sendQueueLength();
    void flushSendQueue();
    // Gives a sent or dropped entry's storage back for the next push.
    void recycle(std::unique_ptr<SendBuffer> entry);

    // Tests reach the fields through this one friend (tests/element/ElementProbe.h).
    friend class ElementProbe;

    // Fields, in this order.
    int m_fd = -1;
    std::array<std::shared_ptr<Codec::MediaFrame>, 4> m_frames;
    MediaOutputPin* m_outputPin = nullptr;
    std::thread m_captureThread;
    QThread* m_workThread = nullptr;
    QObject* m_worker = nullptr;
    int m_width = 0;
    int m_height = 0;
    uint32_t m_format = 0;
    std::atomic<bool> m_running{false};
    int m_state = 0;
    int m_frameRateDen = 1;
    int m_frameRateNum = 30;
    bool m_netState = false;
    Codec::Encoder* m_encoder = nullptr;
    Codec::MediaMem* m_mediaMem = nullptr;
    std::mutex m_sendMutex;
    std::deque<std::unique_ptr<SendBuffer>> m_sendQueue;
    std::condition_variable m_sendCond;

    // True while the driver streams; class-wide, so shared by every element in the process.
    static bool m_isStreaming;

    std::thread m_senderThread;       // runs beside the capture thread, joined by it
    StopSignal m_stopSignal;          // cuts the capture thread's waits short on stop
    std::vector<std::unique_ptr<SendBuffer>> m_spareBuffers;  // guarded by m_sendMutex
};
