// Media data path: the capture loop, the encoder path for raw cameras, and the send queue
// with its sender thread feeding the output pin.

#include "V4LCameraCapturePlugin.h"

#include <linux/videodev2.h>
#include <sys/ioctl.h>

#include <chrono>
#include <cstring>
#include <functional>

#include "ElementLog.h"

namespace {
constexpr size_t kEncodedBacklog = 19;  // more waiting than this: drop pictures unencoded
constexpr int kQuitAfterFailures = 300;

bool isRawFormat(uint32_t format) { return format == FOURCC_YUYV || format == FOURCC_NV12; }
} // namespace

// ---- memcpy_neon --------------------------------------------------------------------

void memcpy_neon(void* dst, const void* src, int n)
{
    if (n <= 0)
        return;
    const int blocks = n & ~63;
#if defined(__arm__) && defined(__ARM_NEON)
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
    (void)blocks;
    std::memcpy(dst, src, size_t(n));
#endif
}

// ---- send queue ---------------------------------------------------------------------

V4LCameraCapturePlugin::SendBuffer::SendBuffer(void* source, unsigned int length)
    : data(new uint8_t[length]), size(length)
{
    memcpy_neon(data, source, int(length));
}

V4LCameraCapturePlugin::SendBuffer::~SendBuffer() { delete[] data; }

void V4LCameraCapturePlugin::pushSendBuffer(const void* source, unsigned int length)
{
    // The copy happens before the lock, so the sender is never held up by it.
    std::unique_ptr<SendBuffer> entry(new SendBuffer(const_cast<void*>(source), length));
    std::lock_guard<std::mutex> lock(m_sendMutex);
    m_sendQueue.push_back(std::move(entry));
    m_sendCond.notify_one();
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
    dropped.clear();
}

// ---- sender -------------------------------------------------------------------------

void V4LCameraCapturePlugin::video_send_frame()
{
    int connection = 0;
    while (m_running) {
        std::unique_ptr<SendBuffer> entry;
        {
            std::unique_lock<std::mutex> lock(m_sendMutex);
            m_sendCond.wait(lock, [this] { return !m_running || !m_sendQueue.empty(); });
            if (!m_running)
                return;
            entry = std::move(m_sendQueue.front());
            m_sendQueue.pop_front();
        }

        MediaFrame* frame = nullptr;
        for (;;) {
            frame = nullptr;
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

        if (frame) {
            frame->setSize(int(entry->size));
            // The pin refuses an oversized frame; never write past its storage.
            if (entry->size <= frame->capacity())
                std::memcpy(frame->data(), entry->data, entry->size);
            m_outputPin->queue(frame);
        }
    }
}

// ---- encoder path -------------------------------------------------------------------

void V4LCameraCapturePlugin::initEncoder()
{
    ELEMENT_LOG(4, "%s:%d DEBUG: init encoder\n");
    m_encoder = Codec::MediaCodec::createEncoder(Codec::CODEC_H264);
    if (!m_encoder) {
        ELEMENT_LOG(0, "%s:%d ERROR: no encoder available\n\n");
        return;
    }
    if (m_format == FOURCC_YUYV)
        m_encoder->set(Codec::CONFIG_INPUT_FORMAT, 1);
    else if (m_format == FOURCC_NV12)
        m_encoder->set(Codec::CONFIG_INPUT_FORMAT, 0);
    m_encoder->set(Codec::CONFIG_WIDTH, unsigned(m_width));
    m_encoder->set(Codec::CONFIG_HEIGHT, unsigned(m_height));
    m_encoder->set(Codec::CONFIG_HOR_STRIDE, unsigned(m_format == FOURCC_YUYV ? 2 * m_width : m_width));
    m_encoder->set(Codec::CONFIG_VER_STRIDE, unsigned(m_height));
    m_encoder->set(Codec::CONFIG_INPUT_FPS_NUM, unsigned(m_frameRateNum));
    m_encoder->set(Codec::CONFIG_INPUT_FPS_DEN, unsigned(m_frameRateDen));
    m_encoder->set(Codec::CONFIG_OUTPUT_FPS_NUM, unsigned(m_frameRateNum));
    m_encoder->set(Codec::CONFIG_OUTPUT_FPS_DEN, unsigned(m_frameRateDen));
    m_encoder->set(Codec::CONFIG_GOP, 60);
    m_encoder->set(Codec::CONFIG_RATE_CONTROL, 1);
    m_encoder->set(Codec::CONFIG_BITRATE, 7340032);
    m_encoder->configure();
    ELEMENT_LOG(4, "%s:%d DEBUG: init encoder done\n");
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
    if (!waitReadable(__func__))
        return -1;
    v4l2_buffer buf;
    if (!dequeueBuffer(&buf, __func__, "%s:%d ERROR: VIDIOC_DQBUF failed\n\n"))
        return -1;
    if (buf.bytesused == 0 || sendQueueLength() > kEncodedBacklog)
        return requeueBuffer(&buf, __func__);

    uint32_t bytes = 0;
    Codec::MediaFrame* frame = capturedFrame(buf, &bytes, __func__);
    if (!frame || !m_encoder || m_encoder->putFrame(frame) != 0) {
        ELEMENT_LOG(1, "%s:%d WARN: encode frame failed\n");
        requeueBuffer(&buf, __func__);
        return -1;
    }
    std::unique_ptr<Codec::MediaPacket> packet = m_encoder->getPacket();
    if (packet) {
        if (packet->status == 0 && packet->buffer)
            pushSendBuffer(packet->buffer->data, packet->buffer->length);
        // A buffer is ours once received, whatever the status says.
        delete packet->buffer;
    }
    return requeueBuffer(&buf, __func__);
}

// ---- capture loop -------------------------------------------------------------------

void V4LCameraCapturePlugin::video_frame()
{
    if (v4l2_stream_on() < 0) {
        ELEMENT_LOG(2, "%s:%d INFO: V4LCameraCapturePlugin::video_frame 3!\n");
        return;
    }
    ELEMENT_LOG(2, "%s:%d INFO: V4LCameraCapturePlugin::video_frame play state: %d\n", int(m_running.load()));
    if (isRawFormat(m_format))
        initEncoder();
    std::thread sender(std::bind(&V4LCameraCapturePlugin::video_send_frame, this));

    int failures = 0;
    bool firstFramePending = true;
    while (m_running) {
        const uint32_t format = m_format;
        int result = -1;
        if (format == FOURCC_H264 || format == FOURCC_MJPG || format == FOURCC_HEVC)
            result = v4l2_get_one_frame2();
        else if (isRawFormat(format))
            result = v4l2_get_one_frame_yuv();

        if (result == 0) {
            if (firstFramePending) {
                ELEMENT_LOG(2, "%s:%d INFO: V4LCameraCapturePlugin::video_frame v4l2_get_one_frame2 got a frame!\n");
                emit mediaEvent(QStringLiteral("event.camera.gotframe"), QVariant());
                firstFramePending = false;
            }
            failures = 0;
        } else if (++failures > kQuitAfterFailures) {
            ELEMENT_LOG(1, "%s:%d WARN: v4l2_get_one_frame2 error > 300 quit!\n");
            emit sigQuit();
        }
    }

    if (sender.joinable())
        sender.join();
    if (isRawFormat(m_format))
        deinitEncoder();
    ELEMENT_LOG(2, "%s:%d INFO: video_frame over!\n");
}
