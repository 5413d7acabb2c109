#pragma once
// The buffer queue of one descriptor and the frame clock that fills it, behaving as a
// videobuf2 capture queue: with DMA-BUF memory buffers are imported at QBUF, with MMAP
// memory the queue allocates them and clients map them through the descriptor. Buffers are
// filled in queue order at the frame interval, and readiness is reported through the
// descriptor itself (an eventfd the caller's select()/poll() sees), readable exactly when
// the driver's poll would report input or an error.

#include "DeviceState.h"
#include "DmabufMapping.h"
#include "MmapBuffer.h"
#include "Recorder.h"
#include "Ring.h"
#include "SyncMutex.h"
#include "content/ContentSource.h"

#include <atomic>
#include <condition_variable>
#include <linux/videodev2.h>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace simcam {

class StreamQueue {
public:
    StreamQueue(int eventFd, std::shared_ptr<NodeState> node, uint64_t generation,
                Recorder& recorder, bool nonBlocking);
    ~StreamQueue();
    StreamQueue(const StreamQueue&) = delete;
    StreamQueue& operator=(const StreamQueue&) = delete;

    // Each returns 0 or the errno the ioctl fails with.
    int requestBuffers(v4l2_requestbuffers& request);
    int queryBuffer(v4l2_buffer& buffer) const;
    int queueBuffer(v4l2_buffer& buffer);
    int dequeueBuffer(v4l2_buffer& buffer);
    int streamOn();
    int streamOff();
    int exportBuffer(v4l2_exportbuffer& request) const;

    // The MMAP buffer at `offset` for a client mapping of `length` bytes, or null with
    // `error` set as videobuf2's mmap would fail.
    std::shared_ptr<MmapBuffer> bufferAt(uint64_t offset, size_t length, int prot, int flags,
                                         int& error) const;
    // What videobuf2's poll would report now for the `requested` events.
    short pollEvents(short requested) const;

    void poke();
    void setNonBlocking(bool on) { nonBlocking_ = on; }
    void shutdown(bool wake);
    // The client's descriptor number may close while a duplicate lives on: signal readiness
    // through a private duplicate of the eventfd from now on.
    void keepOwnDescriptor();
    void addGauges(Stats& stats) const;

    static int runningClocks();

private:
    struct Buffer {
        enum class State { Idle, Queued, Filling, Done };
        State state = State::Idle;
        std::optional<DmabufMapping> mapping;  // DMABUF: the imported buffer
        std::shared_ptr<MmapBuffer> memory;     // MMAP: the queue's own
        int fd = -1;
        uint32_t length = 0;
        uint32_t bytesused = 0;
        uint32_t flags = 0;
        uint32_t sequence = 0;
        timeval timestamp{};
    };

    void clockLoop();
    void produceLocked(std::unique_lock<SyncMutex>& lock);
    void evaluateLocked();
    void syncReadinessLocked();
    void stopClock();
    bool isKeyFrame(uint64_t index) const;
    void fillDequeued(const Buffer& b, uint32_t index, v4l2_buffer& out) const;
    uint32_t offsetOf(uint32_t index) const;

    int eventFd_;         // guarded by m_
    int ownEventFd_ = -1; // the private duplicate, once there is one
    const std::shared_ptr<NodeState> node_;
    const uint64_t generation_;
    Recorder& recorder_;
    std::atomic<bool> nonBlocking_;

    std::mutex control_; // serialises what starts or joins the clock
    mutable SyncMutex m_;
    std::condition_variable_any cv_;
    std::vector<Buffer> buffers_;
    Ring<uint32_t> queued_;
    Ring<uint32_t> done_;
    uint32_t minLength_ = 0;
    uint32_t memory_ = 0; // V4L2_MEMORY_MMAP or _DMABUF while buffers exist
    bool streaming_ = false;
    bool stop_ = false;
    bool wake_ = false;
    bool dead_ = false;
    bool stalled_ = false;
    bool gone_ = false; // the camera went away under this descriptor
    bool errorPending_ = false;
    int error_ = 0;
    bool waitingForBuffers_ = true;
    bool signalled_ = false;
    bool fdUsable_ = true; // false once the descriptor is closing
    uint32_t sequence_ = 0;
    uint64_t contentIndex_ = 0;
    PixFormat streamFormat_;
    std::shared_ptr<const ContentSource> content_;
    std::thread clock_;
};

} // namespace simcam
