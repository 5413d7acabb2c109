// Media data path: the capture loop, the encoder path for raw cameras, and the send queue
// with its sender thread feeding the output pin.

#include "V4LCameraCapturePlugin.h"

#include <linux/videodev2.h>
#include <pthread.h>
#include <sys/ioctl.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <utility>

#include "CaptureFormats.h"
#include "ElementLog.h"

namespace {
// Twenty packets waiting is most of a second at 30 fps: encoding more only deepens the lag.
constexpr size_t kEncodedBacklog = 19;
// Five minutes of one-second waits on a silent camera, or seconds of a failing one.
constexpr int kQuitAfterFailures = 300;
// Spent send entries kept for reuse: what is in flight between capture and pin at once.
constexpr size_t kSpareBuffers = 4;
// Encoder: a key frame every two seconds at 30 fps, rate control on, 7 Mbit/s for 1080p.
constexpr unsigned kKeyFrameInterval = 60;
constexpr unsigned kRateControlOn = 1;
constexpr unsigned kBitRate = 7 * 1024 * 1024;
} // namespace

// ---- memcpy_neon --------------------------------------------------------------------

void memcpy_neon(void* dst, const void* src, int n)
{
    if (n <= 0)
        return;
#if defined(__arm__) && defined(__ARM_NEON)
    const int blocks = n & ~63;
    if (blocks > 0) {
        auto* d = static_cast<uint8_t*>(dst);
        const auto* s = static_cast<const uint8_t*>(src);
        int steps = blocks / 64;
        if (((reinterpret_cast<uintptr_t>(d) | reinterpret_cast<uintptr_t>(s)) & 3) == 0) {
            // One eight-register load and store per 64 bytes; VLDM/VSTM need word alignment.
            asm volatile("1:\n\t"
                         "vldmia %[s]!, {d0-d7}\n\t"
                         "vstmia %[d]!, {d0-d7}\n\t"
                         "subs %[k], %[k], #1\n\t"
                         "bne 1b\n"
                         : [d] "+r"(d), [s] "+r"(s), [k] "+r"(steps)
                         :
                         : "d0", "d1", "d2", "d3", "d4", "d5", "d6", "d7", "cc", "memory");
        } else {
            asm volatile("1:\n\t"
                         "vld1.8 {d0-d3}, [%[s]]!\n\t"
                         "vld1.8 {d4-d7}, [%[s]]!\n\t"
                         "vst1.8 {d0-d3}, [%[d]]!\n\t"
                         "vst1.8 {d4-d7}, [%[d]]!\n\t"
                         "subs %[k], %[k], #1\n\t"
                         "bne 1b\n"
                         : [d] "+r"(d), [s] "+r"(s), [k] "+r"(steps)
                         :
                         : "d0", "d1", "d2", "d3", "d4", "d5", "d6", "d7", "cc", "memory");
        }
    }
    if (n > blocks)
        std::memcpy(static_cast<uint8_t*>(dst) + blocks, static_cast<const uint8_t*>(src) + blocks,
                    size_t(n - blocks));
#else
    std::memcpy(dst, src, size_t(n));
#endif
}

// ---- send queue ---------------------------------------------------------------------

V4LCameraCapturePlugin::SendBuffer::SendBuffer(void* source, unsigned int length)
    : data(new uint8_t[length]), size(length), m_capacity(length)
{
    memcpy_neon(data, source, int(length));
}

V4LCameraCapturePlugin::SendBuffer::~SendBuffer() { delete[] data; }

void V4LCameraCapturePlugin::SendBuffer::assign(const void* source, unsigned int length)
{
    if (length > m_capacity) {
        auto* grown = new uint8_t[length];
        delete[] data;
        data = grown;
        m_capacity = length;
    }
    size = length;
    memcpy_neon(data, source, int(length));
}

void V4LCameraCapturePlugin::pushSendBuffer(const void* source, unsigned int length)
{
    std::unique_ptr<SendBuffer> entry;
    {
        std::lock_guard<std::mutex> lock(m_sendMutex);
        if (!m_spareBuffers.empty()) {
            entry = std::move(m_spareBuffers.back());
            m_spareBuffers.pop_back();
        }
    }
    // The copy happens outside the lock, so the sender is never held up by it.
    if (entry)
        entry->assign(source, length);
    else
        entry.reset(new SendBuffer(const_cast<void*>(source), length));
    std::lock_guard<std::mutex> lock(m_sendMutex);
    m_sendQueue.push_back(std::move(entry));
    m_sendCond.notify_one();
}

void V4LCameraCapturePlugin::recycle(std::unique_ptr<SendBuffer> entry)
{
    std::lock_guard<std::mutex> lock(m_sendMutex);
    if (m_spareBuffers.size() < kSpareBuffers)
        m_spareBuffers.push_back(std::move(entry));
}

size_t V4LCameraCapturePlugin::sendQueueLength()
{
    std::lock_guard<std::mutex> lock(m_sendMutex);
    return m_sendQueue.size();
}

void V4LCameraCapturePlugin::flushSendQueue()
{
    std::lock_guard<std::mutex> lock(m_sendMutex);
    std::deque<std::unique_ptr<SendBuffer>> dropped;
    dropped.swap(m_sendQueue);
    for (auto& entry : dropped) {
        if (m_spareBuffers.size() == kSpareBuffers)
            break;
        m_spareBuffers.push_back(std::move(entry));
    }
    dropped.clear();
}

// ---- sender -------------------------------------------------------------------------

void V4LCameraCapturePlugin::video_send_frame()
{
    int connection = 0;
    // A pin frame too small for its entry is kept for the next one: the pin takes frames
    // back only through queue(), and a size beyond capacity() must never reach it.
    MediaFrame* unused = nullptr;
    while (m_running) {
        std::unique_ptr<SendBuffer> entry;
        {
            std::unique_lock<std::mutex> lock(m_sendMutex);
            m_sendCond.wait(lock, [this] { return !m_running || !m_sendQueue.empty(); });
            if (!m_running)
                break;
            entry = std::move(m_sendQueue.front());
            m_sendQueue.pop_front();
        }

        MediaFrame* frame = std::exchange(unused, nullptr);
        while (!frame) {
            const int r = m_outputPin->dequeue(&frame, 30, 0);
            if (r == -2) {
                std::this_thread::sleep_for(std::chrono::milliseconds(30));
                ELEMENT_LOG(1, "%s:%d WARN: connection disconnected!\n");
                emit sigQuit();
                break;
            }
            if (r == -3) {
                if (connection != -3)
                    ELEMENT_LOG(1, "%s:%d WARN: poor connection\n");
                connection = -3;
                if (m_running)
                    continue;
                break;
            }
            if (connection != 0 && r == 0)
                ELEMENT_LOG(2, "%s:%d INFO: connection resume\n");
            connection = r;
            break;
        }

        if (frame && entry->size > frame->capacity()) {
            ELEMENT_LOG(1, "%s:%d WARN: frame of %u bytes exceeds the pin's %u, dropped\n", entry->size,
                        frame->capacity());
            unused = frame;
        } else if (frame) {
            frame->setSize(int(entry->size));
            std::memcpy(frame->data(), entry->data, entry->size);
            m_outputPin->queue(frame);
        }
        recycle(std::move(entry));
    }
    if (unused) {
        unused->setSize(0);
        m_outputPin->queue(unused);
    }
}

// ---- encoder path -------------------------------------------------------------------

V4LCameraCapturePlugin::RunFormat V4LCameraCapturePlugin::currentFormat() const
{
    return RunFormat{captureFormatOf(m_format), m_width, m_height, m_frameRateNum, m_frameRateDen};
}

void V4LCameraCapturePlugin::initEncoder() { configureEncoder(currentFormat()); }

// Configured from the run's own format: the size the capture buffers were made for.
void V4LCameraCapturePlugin::configureEncoder(const RunFormat& run)
{
    const CaptureFormat* format = run.format;
    static const char* const name = "initEncoder";
    Logger::logger_printf(4, "%s:%d DEBUG: init encoder\n", name, __LINE__);
    m_encoder = Codec::MediaCodec::createEncoder(Codec::CODEC_H264);
    if (!m_encoder) {
        Logger::logger_printf(0, "%s:%d ERROR: no encoder available\n\n", name, __LINE__);
        return;
    }
    const bool raw = format && format->raw;
    if (raw)
        m_encoder->set(Codec::CONFIG_INPUT_FORMAT, unsigned(format->pictureFormat));
    m_encoder->set(Codec::CONFIG_WIDTH, unsigned(run.width));
    m_encoder->set(Codec::CONFIG_HEIGHT, unsigned(run.height));
    m_encoder->set(Codec::CONFIG_HOR_STRIDE, unsigned((raw ? format->bytesPerPixel : 1) * run.width));
    m_encoder->set(Codec::CONFIG_VER_STRIDE, unsigned(run.height));
    m_encoder->set(Codec::CONFIG_INPUT_FPS_NUM, unsigned(run.rateNum));
    m_encoder->set(Codec::CONFIG_INPUT_FPS_DEN, unsigned(run.rateDen));
    m_encoder->set(Codec::CONFIG_OUTPUT_FPS_NUM, unsigned(run.rateNum));
    m_encoder->set(Codec::CONFIG_OUTPUT_FPS_DEN, unsigned(run.rateDen));
    m_encoder->set(Codec::CONFIG_GOP, kKeyFrameInterval);
    m_encoder->set(Codec::CONFIG_RATE_CONTROL, kRateControlOn);
    m_encoder->set(Codec::CONFIG_BITRATE, kBitRate);
    m_encoder->configure();
    Logger::logger_printf(4, "%s:%d DEBUG: init encoder done\n", name, __LINE__);
}

void V4LCameraCapturePlugin::deinitEncoder()
{
    ELEMENT_LOG(4, "%s:%d DEBUG: reset encoder\n");
    if (m_encoder) {
        m_encoder->reset();
        delete m_encoder;
    }
    m_encoder = nullptr;
}

int V4LCameraCapturePlugin::v4l2_get_one_frame_yuv()
{
    if (waitReadable(__func__) < 0)
        return -1;
    v4l2_buffer buf;
    if (dequeueBuffer(&buf, __func__, "%s:%d ERROR: VIDIOC_DQBUF failed\n\n") < 0)
        return -1;
    if (buf.bytesused == 0 || sendQueueLength() > kEncodedBacklog)
        return requeueBuffer(&buf, __func__) < 0 ? -1 : 0;

    uint32_t bytes = 0;
    Codec::MediaFrame* frame = capturedFrame(buf, &bytes, __func__);
    if (!frame || !m_encoder || m_encoder->putFrame(frame) != 0) {
        ELEMENT_LOG(1, "%s:%d WARN: encode frame failed\n");
        requeueBuffer(&buf, __func__);
        return -1;
    }
    std::unique_ptr<Codec::MediaPacket> packet = m_encoder->getPacket();
    // Only a packet with status 0 hands its buffer over; any other stays the encoder's.
    if (packet && packet->status == 0 && packet->buffer) {
        pushSendBuffer(packet->buffer->data, packet->buffer->length);
        delete packet->buffer;
    }
    return requeueBuffer(&buf, __func__) < 0 ? -1 : 0;
}

// ---- capture loop -------------------------------------------------------------------

void V4LCameraCapturePlugin::video_frame() { runCapture(currentFormat()); }

void V4LCameraCapturePlugin::runCapture(const RunFormat& run)
{
    const CaptureFormat* format = run.format;
    static const char* const name = "video_frame";
    if (v4l2_stream_on() < 0) {
        Logger::logger_printf(2, "%s:%d INFO: V4LCameraCapturePlugin::video_frame 3!\n", name, __LINE__);
        return;
    }
    Logger::logger_printf(2, "%s:%d INFO: V4LCameraCapturePlugin::video_frame play state: %d\n", name, __LINE__,
                          int(m_running.load()));
    const bool raw = format && format->raw;
    if (raw)
        configureEncoder(run);
    m_senderThread = std::thread([this] {
        pthread_setname_np(pthread_self(), "cam-sender");
        video_send_frame();
    });

    int failures = 0;
    bool firstFramePending = true;
    while (m_running) {
        int result = -1;  // a format the element cannot read fails every pass
        if (raw)
            result = v4l2_get_one_frame_yuv();
        else if (format)
            result = readCoded(format);

        if (result == 0) {
            if (firstFramePending) {
                Logger::logger_printf(
                    2, "%s:%d INFO: V4LCameraCapturePlugin::video_frame v4l2_get_one_frame2 got a frame!\n", name,
                    __LINE__);
                emit mediaEvent(QStringLiteral("event.camera.gotframe"), QVariant());
                firstFramePending = false;
            }
            failures = 0;
        } else if (++failures > kQuitAfterFailures) {
            Logger::logger_printf(1, "%s:%d WARN: v4l2_get_one_frame2 error > 300 quit!\n", name, __LINE__);
            emit sigQuit();
        }
    }

    if (m_senderThread.joinable())
        m_senderThread.join();
    if (raw)
        deinitEncoder();
    Logger::logger_printf(2, "%s:%d INFO: video_frame over!\n", name, __LINE__);
}
