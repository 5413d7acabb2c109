#pragma once
// The one seam into the element's private fields, for what the contract does not show: the
// capture format play applies next, the descriptor, the buffers, the encoder and the send
// queue. Everything else goes through the element's own operations.

#include <atomic>
#include <cstdint>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "V4LCameraCapturePlugin.h"

class ElementProbe {
public:
    explicit ElementProbe(V4LCameraCapturePlugin& element) : e(element) {}

    // What play applies next; raw formats too, which only negotiation with a camera picks.
    void setCapture(uint32_t fourcc, int width, int height)
    {
        e.m_format = fourcc;
        e.m_width = width;
        e.m_height = height;
    }
    uint32_t format() const { return e.m_format; }
    std::pair<int, int> size() const { return {e.m_width, e.m_height}; }
    std::pair<int, int> frameRate() const { return {e.m_frameRateNum, e.m_frameRateDen}; }

    int& fd() { return e.m_fd; }
    Codec::MediaFrame* frame(size_t index) const { return e.m_frames[index].get(); }
    void dropFrame(size_t index) { e.m_frames[index].reset(); }
    bool hasAllocator() const { return e.m_mediaMem != nullptr; }
    bool hasEncoder() const { return e.m_encoder != nullptr; }
    bool running() const { return e.m_running; }
    std::thread& captureThread() { return e.m_captureThread; }

    static bool& streaming() { return V4LCameraCapturePlugin::m_isStreaming; }

    // The send queue, each call under its lock.
    std::vector<std::vector<uint8_t>> queued()
    {
        std::lock_guard<std::mutex> lock(e.m_sendMutex);
        std::vector<std::vector<uint8_t>> out;
        for (const auto& entry : e.m_sendQueue)
            out.emplace_back(entry->data, entry->data + entry->size);
        return out;
    }
    size_t queueLength()
    {
        std::lock_guard<std::mutex> lock(e.m_sendMutex);
        return e.m_sendQueue.size();
    }
    // Appends an entry and wakes the sender, as a producer does.
    void push(const void* bytes, unsigned length)
    {
        {
            std::lock_guard<std::mutex> lock(e.m_sendMutex);
            e.m_sendQueue.push_back(
                std::make_unique<V4LCameraCapturePlugin::SendBuffer>(const_cast<void*>(bytes), length));
        }
        e.m_sendCond.notify_one();
    }
    // Sets the run flag and wakes the sender, as play and stop do.
    void setRunning(bool running)
    {
        {
            std::lock_guard<std::mutex> lock(e.m_sendMutex);
            e.m_running = running;
        }
        e.m_sendCond.notify_all();
    }

private:
    V4LCameraCapturePlugin& e;
};
